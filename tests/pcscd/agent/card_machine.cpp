#include "card_machine.h"

#include <winscard.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "agent/service_context.h"
#include "patience.h"

namespace tez::agent {
namespace {

using test::eventually;

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

bool firstReaderHas(DWORD state) {
    const ServiceContext context;
    SCARD_READERSTATE reader{};
    reader.szReader = kFirstReader;
    return context && SCardGetStatusChange(context.get(), 0, &reader, 1) == SCARD_S_SUCCESS &&
           (reader.dwEventState & state) != 0;
}

}  // namespace

std::filesystem::path freshFolder() {
    const std::string placeholder(6, 'X');  // mkdtemp puts something else there
    std::string pattern =
        (std::filesystem::temp_directory_path() / ("pcsc-agent-" + placeholder)).string();
    require(mkdtemp(pattern.data()) != nullptr, "no folder: " + pattern);
    return pattern;
}

std::filesystem::path programFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

CardMachine::CardMachine() : folder_(freshFolder()) {
    // The virtual readers alone, none of the machine's own.
    std::filesystem::create_directory(folder_ / "readers");
    std::filesystem::copy_file("/etc/reader.conf.d/vpcd", folder_ / "readers" / "vpcd");
    startService();
    insertCard();
}

CardMachine::~CardMachine() {
    agent_.reset();
    card_.reset();
    if (service_) {
        stopService();
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void CardMachine::startService() {
    service_.emplace(
        "/usr/sbin/pcscd",
        std::vector<std::string>{"--foreground", "--config", (folder_ / "readers").string()},
        folder_ / "pcscd.log");
    require(eventually([] { return firstReaderHas(SCARD_STATE_EMPTY | SCARD_STATE_PRESENT); }),
            "the PC/SC service does not start");
}

void CardMachine::stopService() {
    // It removes its socket when it ends in peace.
    service_->end(SIGTERM);
    service_.reset();
}

void CardMachine::insertCard(std::vector<std::string> options) {
    require(eventually([&] {
                card_.emplace(programFolder() / "vpcd-card", options, folder_ / "card.log");
                // The driver takes one card at a time, and needs a moment to see that one is gone.
                const auto seen = std::chrono::steady_clock::now() + std::chrono::seconds(3);
                while (std::chrono::steady_clock::now() < seen) {
                    if (firstReaderHas(SCARD_STATE_PRESENT)) {
                        return true;
                    }
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
                return false;
            }),
            "the card is not seen");
}

void CardMachine::removeCard() {
    card_.reset();
    require(eventually([] { return firstReaderHas(SCARD_STATE_EMPTY); }), "the card stays");
}

void CardMachine::startAgent(std::vector<std::string> options) {
    if (!std::filesystem::exists(token())) {
        Child maker(programFolder() / "pcsc-agent", {"--make-token", token().string()},
                    folder_ / "agent.log");
        require(maker.wait() == 0, "no token: " + agentLog());
    }
    options.insert(options.end(), {"--token", token().string(), "--verbose", "--listen",
                                   "unix:" + socket().string()});
    agent_.emplace(programFolder() / "pcsc-agent", options, folder_ / "agent.log");
    require(eventually([this] { return agentLog().find("serving\n") != std::string::npos; }),
            "the agent does not serve");
}

int CardMachine::stopAgent() {
    const int code = agent_->end(SIGTERM);
    agent_.reset();
    std::filesystem::remove(folder_ / "agent.log");
    return code;
}

std::string CardMachine::agentLog() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "agent.log").rdbuf();
    return text.str();
}

}  // namespace tez::agent
