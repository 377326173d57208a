// SCardGetTransmitCount
#include "failing_writes.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

class TransmitCountTest : public RemoteCardTest {
  protected:
    LONG getCount() { return SCardGetTransmitCount(card.handle, &count); }

    DWORD count = 77;
};

TEST_F(TransmitCountTest, SendsTheCallersValueAndStoresTheDaemons) {
    connectCard();
    daemon.on(Command::kGetTransmitCount,
              answering(TransmitCountLayout::kSize, {{TransmitCountLayout::kCount, 1234}}));
    EXPECT_THAT(getCount(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(count, 1234U);
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kGetTransmitCount,
                                      RecordBytes(TransmitCountLayout::kSize)
                                          .u64(TransmitCountLayout::kCard, kDaemonCard)
                                          .u32(TransmitCountLayout::kCount, 77))));
    EXPECT_THAT(
        log().messages("SCardGetTransmitCount"),
        ElementsAre("GET_TRANSMIT_COUNT IN-PARAMS: 1, " + logged(&count),
                    "GET_TRANSMIT_COUNT OUT-PARAMS: 1234", "GET_TRANSMIT_COUNT RV: 0x00000000"));
}

TEST_F(TransmitCountTest, CountsTransmits) {
    connectCard();
    for (DWORD expected = 0; expected < 3; ++expected) {
        EXPECT_THAT(getCount(), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(count, expected);
        transmit(card, getChallenge());
    }
}

TEST_F(TransmitCountTest, IsAskedOfADaemonFromVersion12On) {
    connectCard({1, 2});
    EXPECT_THAT(getCount(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(count, 0U);
}

TEST_F(TransmitCountTest, IsNotAskedOfAnOlderDaemon) {
    connectCard({1, 1});
    EXPECT_THAT(getCount(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(count, 77U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().entries(),
                Contains(LogLine('D', "SCardGetTransmitCount",
                                 "SCardGetTransmitCount is not compatible with the current "
                                 "negotiated protocol")));
    EXPECT_THAT(log().messages("SCardGetTransmitCount"),
                ElementsAre(_, _, "GET_TRANSMIT_COUNT RV: 0x80100001"));
}

TEST_F(TransmitCountTest, NeedsAPlaceForTheCountOfARemoteCard) {
    connectCard();
    EXPECT_THAT(SCardGetTransmitCount(card.handle, nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(TransmitCountTest, IsLeftAloneWhenTheDaemonRefuses) {
    connectCard();
    daemon.on(Command::kGetTransmitCount,
              answering(TransmitCountLayout::kSize, {{TransmitCountLayout::kCount, 5},
                                                     {TransmitCountLayout::kResult, 0x80100069}}));
    EXPECT_THAT(getCount(), Gives(SCARD_W_REMOVED_CARD));
    EXPECT_EQ(count, 77U);
}

TEST_F(TransmitCountTest, WithoutAConnectionIsNoService) {
    connectCard();
    // The idle connection breaks, and none can be opened in its place.
    daemon.on(Command::kBeginTransaction, closing());
    ASSERT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_E_NO_SERVICE));
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(getCount(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(count, 77U);
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'), IsEmpty());
}

TEST_F(TransmitCountTest, OfAHostCardComesFromTheHost) {
    establishContext();
    card = connect(context, kHostReader);
    EXPECT_CALL(host, SCardGetTransmitCount(kHostCard, &count))
        .WillOnce([](SCARDHANDLE, LPDWORD c) {
            *c = 9;
            return SCARD_S_SUCCESS;
        });
    EXPECT_THAT(getCount(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(count, 9U);
    EXPECT_CALL(host, SCardGetTransmitCount(kHostCard, nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardGetTransmitCount(card.handle, nullptr), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages("SCardGetTransmitCount"),
        ElementsAre(_, "GET_TRANSMIT_COUNT OUT-PARAMS: 9", "GET_TRANSMIT_COUNT RV: 0x00000000", _,
                    "GET_TRANSMIT_COUNT RV: 0x80100011"));
}

}  // namespace
}  // namespace tez::test
