#include "relay/relay.h"

#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "relay/pair.h"

namespace tez::relay {
namespace {

void serveClient(const AgentStream::Peer& agent, std::uint32_t relay, pcscd::UniqueHandle instance,
                 HANDLE end, Log& log) {
    pcscd::PipeEnd pipe(std::move(instance));
    const std::uint32_t process = pipe.clientProcess();
    if (process == link::kControlProcess) {
        throw std::runtime_error("the system does not tell its process");
    }
    AgentStream stream(agent, {relay, process}, end);
    log.detail("process " + std::to_string(process) + ": connected");
    copyBothWays(pipe, stream, end);
    log.detail("process " + std::to_string(process) + ": disconnected");
}

/// Serves for as long as the agent is there. Throws std::exception when it is not, or when the pipe
/// cannot be made.
void serveOnce(const RelaySettings& settings, HANDLE stop, Log& log) {
    const std::uint32_t relay = std::random_device()();
    AgentStream control(settings.agent, {relay, link::kControlProcess}, stop);
    const auto serve = [&](pcscd::UniqueHandle instance, HANDLE end) {
        serveClient(settings.agent, relay, std::move(instance), end, log);
    };
    const pcscd::PipeServer server(settings.pipe, serve,
                                   [&](const std::string& what) { log.error(what); });
    log.info("the agent at " + settings.agent.address.text() + " answers: serving " +
             settings.pipe.name);
    keepBeating(control, settings.heartbeat, stop);
}

}  // namespace

void runRelay(const RelaySettings& settings, HANDLE stop, Log& log) {
    do {
        try {
            serveOnce(settings, stop, log);
            log.info(pcscd::isSet(stop) ? "told to stop" : "the agent is gone: the pipe is closed");
        } catch (const std::exception& failure) {
            if (!pcscd::isSet(stop)) {
                log.error(settings.agent.address.text() + ": " + failure.what());
            }
        }
    } while (WaitForSingleObject(stop, static_cast<DWORD>(settings.retry.count())) == WAIT_TIMEOUT);
}

}  // namespace tez::relay
