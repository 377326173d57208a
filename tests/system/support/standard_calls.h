// What the tests of the standard answers share: docs/standard-calls.md tells them row by row.
#pragma once

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

    void closeWait() {
        EXPECT_TRUE(
            daemon.closeConnection(daemon.requests(Command::kGetStatusChange).back().connection));
    }
};

}  // namespace tez::test
