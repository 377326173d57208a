#include "relay/pair.h"

#include <array>
#include <thread>

#include "link/frame.h"

namespace tez::relay {
namespace {

using Buffer = std::array<std::uint8_t, 64U << 10U>;

/// How long the agent may take to end its stream when the client is gone.
constexpr pcscd::Limit kFarewell{2000};

void copyRequests(pcscd::PipeEnd& pipe, AgentStream& agent, HANDLE agentGone) {
    Buffer buffer = {};
    pcscd::Outcome outcome;
    do {
        outcome = pipe.read(buffer, {agentGone});
    } while (outcome.error == ERROR_SUCCESS &&
             agent.write(std::span(buffer).first(outcome.count), {agentGone}));
}

/// False when what comes is not of the link, so that nothing further is worth waiting for.
bool copyAnswers(AgentStream& agent, pcscd::PipeEnd& pipe, pcscd::Interrupts interrupts) {
    Buffer buffer = {};
    link::FrameDecoder decoder;
    for (;;) {
        const pcscd::Outcome outcome = agent.read(buffer, interrupts);
        if (outcome.error != ERROR_SUCCESS || outcome.count == 0) {
            return true;
        }
        bool taken = true;
        const bool decoded = decoder.decode(std::span(buffer).first(outcome.count),
                                            [&](std::span<const std::uint8_t> piece) {
                                                taken = pipe.write(piece, interrupts);
                                                return taken;
                                            });
        if (!decoded) {
            return !taken;
        }
    }
}

/// A socket that is closed with unread bytes in it takes those along that the agent has not read
/// yet.
void awaitEnd(AgentStream& agent, HANDLE cut) {
    Buffer buffer = {};
    const auto end = std::chrono::steady_clock::now() + kFarewell;
    pcscd::Outcome outcome;
    do {
        outcome = agent.read(buffer, {cut}, kFarewell);
    } while (outcome.error == ERROR_SUCCESS && outcome.count > 0 &&
             std::chrono::steady_clock::now() < end);
}

/// The direction from the client to the agent, on a thread of its own until the agent is of no more
/// use.
class Requests {
  public:
    Requests(pcscd::PipeEnd& pipe, AgentStream& agent)
        : thread_([this, &pipe, &agent] {
              copyRequests(pipe, agent, agentGone_.get());
              agent.finishWriting();
              SetEvent(clientGone_.get());
          }) {}
    ~Requests() {
        SetEvent(agentGone_.get());
        thread_.join();
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;

    HANDLE clientGone() const { return clientGone_.get(); }

  private:
    const pcscd::UniqueHandle clientGone_ = pcscd::makeEvent();
    const pcscd::UniqueHandle agentGone_ = pcscd::makeEvent();
    std::thread thread_;  // the last one: it uses the others
};

}  // namespace

void copyBothWays(pcscd::PipeEnd& pipe, AgentStream& agent, HANDLE cut) {
    const Requests requests(pipe, agent);
    if (copyAnswers(agent, pipe, {cut, requests.clientGone()})) {
        awaitEnd(agent, cut);
    }
}

}  // namespace tez::relay
