// Both sides in one application: what a user would try first.
#include <algorithm>
#include <iterator>

#include "system_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

class SmokeTest : public SystemTest {
  protected:
    /// Reads the holder's name from the demo card in a reader.
    static std::string holderOf(SCARDCONTEXT context, const std::string& reader) {
        const ConnectedCard card = connect(context, reader);
        Bytes select = {0x00, 0xA4, 0x04, 0x0C, sizeof kDemoAid};
        std::ranges::copy(kDemoAid, std::back_inserter(select));
        EXPECT_THAT(transmit(card, select), ElementsAre(0x90, 0x00));
        const Bytes selectFile = {
            0x00, 0xA4, 0x02, 0x0C, 0x02, kDemoHolderFile >> 8U, kDemoHolderFile & 0xFFU};
        EXPECT_THAT(transmit(card, selectFile), ElementsAre(0x90, 0x00));
        const Bytes content = transmit(card, {0x00, 0xB0, 0x00, 0x00, 0x00});
        EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        return {content.begin(), content.end()};
    }
};

TEST_F(SmokeTest, ListsTheReadersOfBothSides) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

TEST_F(SmokeTest, ReadsTheCardsOfBothSides) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_THAT(holderOf(context, kRemoteReader), HasSubstr(kRemoteCardHolder));
    EXPECT_THAT(holderOf(context, kHostReader), HasSubstr(kHostCardHolder));
}

TEST_F(SmokeTest, ServesTheHostAloneWithoutADaemon) {
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(holderOf(context, kHostReader), HasSubstr(kHostCardHolder));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_F(SmokeTest, FollowsADaemonThatGoesAndComesBack) {
    const SCARDCONTEXT context = establishWithDaemon();
    stopDaemon();
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('D', "checkServiceAvailability",
                                 "TEZ pipe connection interrupted, invalidating all the remote "
                                 "contexts")));
    startDaemon();
    waitForWatch();
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
    EXPECT_THAT(holderOf(context, kRemoteReader), HasSubstr(kRemoteCardHolder));
}

TEST_F(SmokeTest, FreesEverySystemBuffer) {
    const SCARDCONTEXT context = establishWithDaemon();
    char* readers = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    auto* const destination = reinterpret_cast<LPSTR>(&readers);
    EXPECT_THAT(SCardListReadersA(context, nullptr, destination, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(splitMultiString(readers), UnorderedElementsAre(kHostReader, kRemoteReader));
    EXPECT_THAT(SCardFreeMemory(context, readers), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_EQ(host.heap().foreignFrees(), 0U);
}

}  // namespace
}  // namespace tez::test
