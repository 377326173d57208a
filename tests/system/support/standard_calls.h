// What the tests of the standard answers share: docs/standard-calls.md tells them row by row.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "status_waits.h"

namespace tez::test {

/// Status-change calls with the switch on.
class StandardTest : public StatusChangeTest {
  protected:
    StandardTest() { setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1"); }

    std::size_t remoteAsks() const { return daemon.requests(Command::kGetStatusChange).size(); }
    /// The time-out of a status-change request.
    DWORD askedTimeout(std::size_t request) const {
        return u32At(daemon.requests(Command::kGetStatusChange).at(request).body,
                     StatusChangeLayout::kTimeout);
    }

    /// The pseudo-reader, asked without waiting.
    static DWORD pseudoReader(SCARDCONTEXT context, DWORD told, LONG expected) {
        SCARD_READERSTATEA state = readerState(kPnpReader, told);
        EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(expected));
        return state.dwEventState;
    }

    /// Waits until this many status-change calls have begun: a cancel reaches each from then on.
    /// False when they do not within kPatience.
    bool waitForCalls(std::size_t calls) const {
        return eventually([&] {
            const std::vector<std::string> messages = log().messages(kStatusChange);
            return static_cast<std::size_t>(
                       std::ranges::count_if(messages, [](const std::string& message) {
                           return message.starts_with("GET_STATUS_CHANGE IN-PARAMS");
                       })) >= calls;
        });
    }

    void closeWait() {
        EXPECT_TRUE(
            daemon.closeConnection(daemon.requests(Command::kGetStatusChange).back().connection));
    }
};

}  // namespace tez::test
