#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "remote_card_test.h"

namespace tez::test {

/// A test of calls with handles that are none. `context` and `card` are the only ones that are.
class StrangeHandleTest : public RemoteCardTest {
  protected:
    /// A number that was a context and a card, and is neither any more; some that look like
    /// handles, the sides' own among them; and others.
    static std::vector<std::uint64_t> strangeHandles() {
        std::vector<std::uint64_t> handles = {
            takenBack(),       5,           0x1'0000'0001, kHostContext,       kHostCard,
            kDaemonContext,    kDaemonCard, 0xFFFFFFFF,    0xFFFFFFFFFFFFFFFF, 257,
            0x8000000000000001};
        std::mt19937_64 random(20240229);
        for (int i = 0; i < 20; ++i) {
            handles.push_back(random());
        }
        return handles;
    }

  private:
    static std::uint64_t takenBack() {
        const SCARDCONTEXT released = establish();
        const SCARDHANDLE disconnected = connect(released, kHostReader).handle;
        EXPECT_EQ(disconnected, released);
        EXPECT_THAT(SCardDisconnect(disconnected, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardReleaseContext(released), Gives(SCARD_S_SUCCESS));
        return released;
    }
};

}  // namespace tez::test
