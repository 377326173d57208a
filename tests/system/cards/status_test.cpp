// SCardStatusA
#include <cstring>

#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SizeIs;
using namespace std::string_literals;

constexpr DWORD kNameSize = 17;  // of kRemoteReader as a multi-string

class StatusTest : public RemoteCardTest {
  protected:
    /// Asks for the state and the protocol only.
    LONG askForState() {
        return SCardStatusA(card.handle, nullptr, nullptr, &state, &protocol, nullptr, nullptr);
    }

    static Bytes cardsAtr() { return makeDemoCard(kRemoteCardHolder).atr(); }

    DWORD nameLength = 0;
    DWORD state = kUntouched;
    DWORD protocol = kUntouched;
    DWORD atrLength = 0;
};

TEST_F(StatusTest, SendsARecordThatIsReadAsNoServiceWhenTheDaemonLeavesIt) {
    connectCard();
    daemon.on(Command::kStatus, answering(StatusLayout::kSize, {}));
    EXPECT_THAT(askForState(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(IsRequest(Command::kStatus, RecordBytes(StatusLayout::kSize)
                                                    .u64(StatusLayout::kCard, kDaemonCard)
                                                    .u32(StatusLayout::kAtrLength, 264)
                                                    .u32(StatusLayout::kResult, 0x8010001D))));
    EXPECT_EQ(state, 0U);
    EXPECT_EQ(protocol, 0U);
    EXPECT_THAT(log().messages("SCardStatusA", 'W'), IsEmpty());
}

TEST_F(StatusTest, FillsBuffersThatFitExactly) {
    connectCard();
    const GuardedBuffer name(kNameSize);
    const GuardedBuffer atr(cardsAtr().size());
    nameLength = kNameSize;
    atrLength = static_cast<DWORD>(atr.size());
    EXPECT_THAT(SCardStatusA(card.handle, name.as<char>(), &nameLength, &state, &protocol,
                             atr.data(), &atrLength),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(name.as<char>(), nameLength), "Remote Reader 0\0\0"s);
    EXPECT_EQ(Bytes(atr.data(), atr.data() + atrLength), cardsAtr());
    EXPECT_EQ(state, 6U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
}

TEST_F(StatusTest, LogsItsParametersAndItsResult) {
    connectCard();
    const GuardedBuffer name(100);
    const GuardedBuffer atr(36);
    nameLength = 100;
    atrLength = 36;
    ASSERT_THAT(SCardStatusA(card.handle, name.as<char>(), &nameLength, &state, &protocol,
                             atr.data(), &atrLength),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        log().messages("SCardStatusA"),
        ElementsAre(
            "STATUS IN-PARAMS: hCard:1 mszReaderName:" + logged(name.data()) +
                ", pcchReaderLen:" + logged(&nameLength) + "(100), pbAtr:" + logged(atr.data()) +
                ", pcbAtrLen:" + logged(&atrLength) + "(36)",
            "STATUS OUT-PARAMS: mszReaderName:" + logged(name.data()) +
                "(), pcchReaderLen:" + logged(&nameLength) + "(17), pdwState:" + logged(&state) +
                "(0x6), pdwProtocol:" + logged(&protocol) +
                "(0x2), pcbAtrLen:" + logged(&atrLength) + "(" + logged(cardsAtr().size()) + ")",
            "STATUS RV: 0x00000000"));
}

TEST_F(StatusTest, LogsMissingLengthsAsZero) {
    connectCard();
    ASSERT_THAT(SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    const std::string null = logged(nullptr);
    EXPECT_THAT(log().messages("SCardStatusA"),
                ElementsAre("STATUS IN-PARAMS: hCard:1 mszReaderName:" + null + ", pcchReaderLen:" +
                                null + "(0), pbAtr:" + null + ", pcbAtrLen:" + null + "(0)",
                            "STATUS OUT-PARAMS: mszReaderName:" + null +
                                "(), pcchReaderLen:" + null + "(0), pdwState:" + null +
                                "(0x0), pdwProtocol:" + null + "(0x0), pcbAtrLen:" + null + "(0)",
                            "STATUS RV: 0x00000000"));
}

TEST_F(StatusTest, TellsStateAndProtocolToACallerWhoWantsNothingElse) {
    connectCard();
    EXPECT_THAT(askForState(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state, 6U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
}

TEST_F(StatusTest, TellsTheMostAdvancedOfTheDaemonsStates) {
    connectCard();
    const std::pair<std::uint32_t, DWORD> states[] = {
        {0x00, 0}, {0x01, 0}, {0x02, 1}, {0x04, 2},   {0x06, 2},      {0x08, 3}, {0x0C, 3},
        {0x10, 4}, {0x14, 4}, {0x20, 5}, {0x34, 5},   {0x40, 6},      {0x54, 6}, {0x7F, 6},
        {0x80, 0}, {0x81, 0}, {0x82, 1}, {0x8000, 0}, {0xFFFFFF80, 0}};
    for (const auto& [bits, expected] : states) {
        SCOPED_TRACE(bits);
        daemon.on(Command::kStatus, answering(StatusLayout::kSize, {{StatusLayout::kState, bits},
                                                                    {StatusLayout::kAtrLength, 0},
                                                                    {StatusLayout::kResult, 0}}));
        EXPECT_THAT(askForState(), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(state, expected);
    }
}

TEST_F(StatusTest, ConvertsTheProtocol) {
    connectCard();
    daemon.on(Command::kStatus, answering(StatusLayout::kSize, {{StatusLayout::kProtocol, 4},
                                                                {StatusLayout::kAtrLength, 0},
                                                                {StatusLayout::kResult, 0}}));
    EXPECT_THAT(askForState(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_RAW});
}

TEST_F(StatusTest, RefusesANameBufferThatIsTooSmallAndLeavesTheAtr) {
    connectCard();
    const GuardedBuffer name(kNameSize - 1);
    const GuardedBuffer atr(36);
    nameLength = kNameSize - 1;
    atrLength = 36;
    EXPECT_THAT(SCardStatusA(card.handle, name.as<char>(), &nameLength, &state, &protocol,
                             atr.data(), &atrLength),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(nameLength, kNameSize);
    EXPECT_TRUE(name.untouched());
    EXPECT_TRUE(atr.untouched());
    EXPECT_EQ(atrLength, 36U);
    EXPECT_EQ(state, 6U);
    EXPECT_THAT(log().messages("SCardStatusA"), ElementsAre(_, "STATUS RV: 0x80100008"));
}

TEST_F(StatusTest, TakesABufferWithoutALengthForOneWithoutRoom) {
    connectCard();
    const GuardedBuffer buffer(0);
    EXPECT_THAT(
        SCardStatusA(card.handle, buffer.as<char>(), nullptr, nullptr, nullptr, nullptr, nullptr),
        Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_THAT(
        SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, buffer.data(), nullptr),
        Gives(SCARD_E_INSUFFICIENT_BUFFER));
}

TEST_F(StatusTest, AllocatesTheNameAndTheAtr) {
    connectCard();
    char* name = nullptr;
    BYTE* atr = nullptr;
    nameLength = SCARD_AUTOALLOCATE;
    atrLength = SCARD_AUTOALLOCATE;
    const HeapSpy heap;
    ASSERT_THAT(SCardStatusA(card.handle, reinterpret_cast<LPSTR>(&name), &nameLength, nullptr,
                             nullptr, reinterpret_cast<LPBYTE>(&atr), &atrLength),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(name, nameLength), "Remote Reader 0\0\0"s);
    EXPECT_EQ(Bytes(atr, atr + atrLength), cardsAtr());
    EXPECT_THAT(SCardFreeMemory(context, name), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardFreeMemory(context, atr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(heap.outstanding(kNameSize), 0U);
    EXPECT_EQ(heap.outstanding(cardsAtr().size()), 0U);
}

TEST_F(StatusTest, FreesAnAllocatedNameWhenTheAtrDoesNotFit) {
    connectCard();
    char* name = nullptr;
    nameLength = SCARD_AUTOALLOCATE;
    const GuardedBuffer atr(1);
    atrLength = 1;
    const HeapSpy heap;
    EXPECT_THAT(SCardStatusA(card.handle, reinterpret_cast<LPSTR>(&name), &nameLength, nullptr,
                             nullptr, atr.data(), &atrLength),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(heap.outstanding(kNameSize), 0U);
    EXPECT_TRUE(atr.untouched());
}

TEST_F(StatusTest, ClearsStateAndProtocolWhenTheDaemonRefuses) {
    connectCard();
    daemon.on(Command::kStatus,
              answering(StatusLayout::kSize, {{StatusLayout::kState, 0x54},
                                              {StatusLayout::kProtocol, 2},
                                              {StatusLayout::kResult, 0x80100069}}));
    EXPECT_THAT(askForState(), Gives(SCARD_W_REMOVED_CARD));
    EXPECT_EQ(state, 0U);
    EXPECT_EQ(protocol, 0U);
}

TEST_F(StatusTest, GoesToTheHostWithAllTheCallersPointersForAHostCard) {
    establishContext();
    card = connect(context, kHostReader);
    daemon.clearRecords();
    const GuardedBuffer name(100);
    const GuardedBuffer atr(36);
    nameLength = 100;
    atrLength = 36;
    EXPECT_CALL(host, SCardStatusA(kHostCard, name.as<char>(), &nameLength, &state, &protocol,
                                   atr.data(), &atrLength));
    EXPECT_THAT(SCardStatusA(card.handle, name.as<char>(), &nameLength, &state, &protocol,
                             atr.data(), &atrLength),
                Gives(SCARD_S_SUCCESS));
    EXPECT_STREQ(name.as<char>(), kHostReader);
    EXPECT_EQ(state, 6U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardStatusA"), SizeIs(3));
    EXPECT_THAT(
        log().messages("SCardStatusA"),
        Contains("STATUS OUT-PARAMS: mszReaderName:" + logged(name.data()) +
                 "(), pcchReaderLen:" + logged(&nameLength) + "(" + logged(nameLength) +
                 "), pdwState:" + logged(&state) + "(0x6), pdwProtocol:" + logged(&protocol) +
                 "(0x2), pcbAtrLen:" + logged(&atrLength) + "(" + logged(atrLength) + ")"));
}

TEST_F(StatusTest, OfAHostCardReturnsTheHostsError) {
    establishContext();
    card = connect(context, kHostReader);
    EXPECT_CALL(host, SCardStatusA(kHostCard, _, _, _, _, _, _))
        .WillOnce(Return(SCARD_W_REMOVED_CARD));
    EXPECT_THAT(askForState(), Gives(SCARD_W_REMOVED_CARD));
    EXPECT_EQ(state, kUntouched);
}

TEST_F(StatusTest, OfAHostCardEndsWithItsContext) {
    establishContext();
    card = connect(context, kHostReader);
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_CALL(host, SCardStatusA(_, _, _, _, _, _, _)).Times(0);
    EXPECT_THAT(askForState(), Gives(SCARD_E_INVALID_HANDLE));
}

}  // namespace
}  // namespace tez::test
