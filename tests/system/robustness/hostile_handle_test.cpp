// Applications that pass handles that nobody issued, or that are none any more.
#include <random>

#include "catalogue_test.h"

namespace tez::test {
namespace {

using testing::IsEmpty;

class HostileHandleTest : public CatalogueTest {
  protected:
    /// A number that was a context and a card, and is neither any more; some that look like
    /// handles, the sides' own among them; and others.
    static std::vector<std::uint64_t> strangeHandles(const char* reader) {
        std::vector<std::uint64_t> handles = {
            takenBack(reader), 5,           0x1'0000'0001, kHostContext,       kHostCard,
            kDaemonContext,    kDaemonCard, 0xFFFFFFFF,    0xFFFFFFFFFFFFFFFF, 257,
            0x8000000000000001};
        std::mt19937_64 random(20240229);
        for (int i = 0; i < 20; ++i) {
            handles.push_back(random());
        }
        return handles;
    }

    /// @param reader  the one that the disconnected card was in.
    void expectRefused(const char* reader, LONG result = SCARD_E_INVALID_HANDLE) {
        std::vector<std::uint64_t> handles = strangeHandles(reader);
        daemon.clearRecords();
        if (GetParam().takes == Takes::kContext || GetParam().isCardCall()) {
            handles.push_back(0);
        }
        for (const std::uint64_t handle : handles) {
            SCOPED_TRACE(handle);
            EXPECT_THAT(GetParam().make({handle}), Gives(result));
        }
    }

  private:
    static std::uint64_t takenBack(const char* reader) {
        const SCARDCONTEXT released = establish();
        const SCARDHANDLE disconnected = connect(released, reader).handle;
        EXPECT_EQ(disconnected, released);
        EXPECT_THAT(SCardDisconnect(disconnected, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardReleaseContext(released), Gives(SCARD_S_SUCCESS));
        return released;
    }
};

TEST_P(HostileHandleTest, IsRefusedWithoutADaemonAndWithOneAndNotSentToIt) {
    context = establish();
    card = connect(context, kHostReader);
    expectRefused(kHostReader);
    startDaemon();
    waitForWatch();
    expectRefused(kRemoteReader);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
}

INSTANTIATE_TEST_SUITE_P(EveryCall, HostileHandleTest, testing::ValuesIn(callsWith(takesHandle)),
                         nameOfCall);

using RedirectedHandleTest = HostileHandleTest;

TEST_P(RedirectedHandleTest, IsRefusedAndNotSentToTheDaemon) {
    redirectDatabaseCalls();
    connectCard();
    expectRefused(kRemoteReader, GetParam().unknownHandle);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryCall, RedirectedHandleTest, testing::ValuesIn(databaseCalls()),
                         nameOfCall);

}  // namespace
}  // namespace tez::test
