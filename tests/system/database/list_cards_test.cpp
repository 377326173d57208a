// SCardListCardsA: the daemon's card types and then the host's.
#include <cstring>

#include "card_database_test.h"
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "record_codec.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsNull;
using testing::Not;
using testing::Return;
using namespace std::string_literals;

constexpr GUID kListedInterfaces[] = {{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}},
                                      {0x11223344, 0x5566, 0x7788, {1}}};

/// The GUIDs as they stand on the pipe.
const Bytes& listedInterfaceBytes() {
    static const Bytes bytes = {1,    0,    0, 0,  2,  0,    3,    0,    4,    5,    6,
                                7,    8,    9, 10, 11, 0x44, 0x33, 0x22, 0x11, 0x66, 0x55,
                                0x88, 0x77, 1, 0,  0,  0,    0,    0,    0,    0};
    return bytes;
}

class ListCardsTest : public CardDatabaseTest {
  protected:
    LONG list(LPSTR cards, LPCBYTE atr = nullptr) {
        return SCardListCardsA(context, atr, nullptr, 0, cards, &length);
    }

    /// The whole list, out of a buffer that has exactly the room for it.
    std::string cards(LPCBYTE atr = nullptr) {
        EXPECT_THAT(list(nullptr, atr), Gives(SCARD_S_SUCCESS));
        const GuardedBuffer buffer(length);
        EXPECT_THAT(list(buffer.as<char>(), atr), Gives(SCARD_S_SUCCESS));
        return {buffer.as<char>(), length};
    }

    void announceCards(std::uint32_t size, const Bytes& names) {
        daemon.on(Command::kListCards,
                  answering(ListCardsLayout::kSize, {{ListCardsLayout::kLength, size}}, names));
    }

    void expectHostsListInsteadOf(const std::string& failure) {
        EXPECT_EQ(cards(), "Demo Card\0\0"s);
        EXPECT_THAT(log().messages("SCardListCardsA", 'W'), Contains(failure));
        // The pipe is in order again.
        daemon.restore(Command::kListCards);
        EXPECT_EQ(cards(), "Remote Card\0Demo Card\0\0"s);
    }

    DWORD length = 0;
};

TEST_F(ListCardsTest, AsksTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    const GuardedBuffer buffer(40);
    const Bytes atr = cardsAtr();
    length = 40;
    EXPECT_CALL(host, SCardListCardsA(kHostContext, atr.data(), kListedInterfaces, 2,
                                      buffer.as<char>(), &length))
        .WillOnce([](SCARDCONTEXT, LPCBYTE, LPCGUID, DWORD, LPSTR names, LPDWORD size) {
            std::memcpy(names, "A\0B\0", 5);
            *size = 5;
            return SCARD_S_SUCCESS;
        });
    EXPECT_THAT(
        SCardListCardsA(context, atr.data(), kListedInterfaces, 2, buffer.as<char>(), &length),
        Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 5U);
    EXPECT_TRUE(buffer.untouchedFrom(5));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA"),
                ElementsAre("LIST_CARDS IN-PARAMS: 1, 2, " + logged(&length) + ", 40",
                            "LIST_CARDS OUT-PARAMS: " +
                                logged(reinterpret_cast<std::uintptr_t>(buffer.data())) + ", 5",
                            "    Card: A", "    Card: B", "LIST_CARDS RV: 0x00000000"));
}

TEST_F(ListCardsTest, AsksTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    EXPECT_EQ(cards(), "Demo Card\0\0"s);
    EXPECT_CALL(host, SCardListCardsA(_, _, _, _, _, _)).WillOnce(Return(SCARD_F_COMM_ERROR));
    EXPECT_THAT(list(nullptr), Gives(SCARD_F_COMM_ERROR));
    EXPECT_THAT(log().messages("SCardListCardsA"), Contains("LIST_CARDS RV: 0x80100013"));
}

TEST_F(ListCardsTest, LeavesAMissingLengthToTheHostsJudgement) {
    establishContext();
    EXPECT_CALL(host, SCardListCardsA(kHostContext, _, _, _, nullptr, nullptr))
        .WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 0, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardListCardsA"),
                ElementsAre("LIST_CARDS IN-PARAMS: 1, 0, 0000000000000000, 0",
                            "LIST_CARDS OUT-PARAMS: 0, 0", "LIST_CARDS RV: 0x00000000"));
}

TEST_F(ListCardsTest, RefusesAnUnknownContextOnTheHostsSide) {
    establishContext();
    EXPECT_CALL(host, SCardListCardsA(_, _, _, _, _, _)).Times(0);
    EXPECT_THAT(SCardListCardsA(kHostContext, nullptr, nullptr, 0, nullptr, &length),
                Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(log().messages("SCardListCardsA", 'W'), IsEmpty());
}

TEST_F(ListCardsTest, PutsTheHostsCardsBehindTheDaemons) {
    establishRedirected();
    EXPECT_EQ(cards(), "Remote Card\0Demo Card\0\0"s);
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_EQ(daemon.requests(Command::kEstablishContext).size(), 1U);
}

TEST_F(ListCardsTest, NamesTwiceWhatBothSidesKnow) {
    establishRedirected();
    hostCards().introduce(kRemoteCardType, {});
    remote.cardStore().introduce(kHostCardType, {});
    EXPECT_EQ(cards(), "Demo Card\0Remote Card\0Demo Card\0Remote Card\0\0"s);
}

TEST_F(ListCardsTest, SendsTheAtrTheInterfacesAndTheCallersLength) {
    establishRedirected();
    announceCards(2, {0, 0});
    const Bytes atr = cardsAtr();
    const GuardedBuffer guarded(atr.size());
    std::ranges::copy(atr, guarded.data());
    const GuardedBuffer buffer(77);
    length = 77;
    EXPECT_CALL(host, SCardListCardsA(kHostContext, guarded.data(), kListedInterfaces, 2, _, _));
    EXPECT_THAT(
        SCardListCardsA(context, guarded.data(), kListedInterfaces, 2, buffer.as<char>(), &length),
        Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kListCards),
                ElementsAre(IsRequest(Command::kListCards,
                                      RecordBytes(ListCardsLayout::kSize)
                                          .u64(ListCardsLayout::kContext, kDaemonContext)
                                          .raw(ListCardsLayout::kHasAtr, {1})
                                          .raw(ListCardsLayout::kAtr, atr)
                                          .u32(ListCardsLayout::kInterfaces, 2)
                                          .u32(ListCardsLayout::kLength, 77)
                                          .append(listedInterfaceBytes()))));
    std::string hex;
    for (const std::uint8_t byte : atr) {
        hex += {"0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
    }
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'), Contains("ATR found is " + hex));
}

TEST_F(ListCardsTest, SendsZerosForInterfacesThatAreCountedButNotGiven) {
    establishRedirected();
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 2, nullptr, &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kListCards),
                ElementsAre(IsRequest(Command::kListCards,
                                      RecordBytes(ListCardsLayout::kSize + 32)
                                          .u64(ListCardsLayout::kContext, kDaemonContext))));
}

TEST_F(ListCardsTest, FiltersByAtrOnBothSides) {
    establishRedirected();
    CardType other;
    other.atr = makeAtr(SCARD_PROTOCOL_T0, "other");
    other.atrMask.assign(other.atr.size(), 0xFF);
    remote.cardStore().introduce("Other Remote", other);
    hostCards().introduce("Other Host", other);
    EXPECT_EQ(cards(other.atr.data()), "Other Remote\0Other Host\0\0"s);
}

TEST_F(ListCardsTest, NeedsNoContext) {
    establishRedirected();
    context = 0;
    EXPECT_CALL(host, SCardListCardsA(0, IsNull(), IsNull(), 0, _, _)).Times(2);
    EXPECT_EQ(cards(), "Remote Card\0Demo Card\0\0"s);
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), IsEmpty());
    EXPECT_THAT(daemon.requests(Command::kListCards),
                Contains(IsRequest(Command::kListCards, RecordBytes(ListCardsLayout::kSize))));
}

TEST_F(ListCardsTest, RefusesAnUnknownContext) {
    establishRedirected();
    EXPECT_CALL(host, SCardListCardsA(_, _, _, _, _, _)).Times(0);
    EXPECT_THAT(SCardListCardsA(kHostContext, nullptr, nullptr, 0, nullptr, &length),
                Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA", 'W'), ElementsAre("Invalid context handle"));
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'),
                ElementsAre(_, "LIST_CARDS RV: 0x80100003"));
}

TEST_F(ListCardsTest, RefusesAMissingLengthOnceItIsRedirected) {
    establishRedirected();
    EXPECT_CALL(host, SCardListCardsA(_, _, _, _, _, _)).Times(0);
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 0, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA", 'W'), ElementsAre("pcchCards is NULL"));
}

TEST_F(ListCardsTest, DoesNotAskADaemonOlderThan12) {
    establishRedirected({1, 1});
    EXPECT_EQ(cards(), "Demo Card\0\0"s);
    EXPECT_THAT(daemon.requests(Command::kListCards), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'), Contains(gateLine("SCardListCardsA")));
}

TEST_F(ListCardsTest, AsksADaemonOfVersion12) {
    establishRedirected({1, 2});
    EXPECT_EQ(cards(), "Remote Card\0Demo Card\0\0"s);
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'), Not(Contains(gateLine("SCardListCardsA"))));
}

TEST_F(ListCardsTest, TakesAnAtrWithAWrongCheckByteForOneThatNoRemoteCardHas) {
    establishRedirected();
    Bytes atr = cardsAtr();
    atr.back() ^= 1;
    CardType type;
    type.atr = atr;
    type.atrMask.assign(atr.size(), 0xFF);
    remote.cardStore().introduce("Never Asked", type);
    hostCards().introduce("Same ATR", type);
    EXPECT_EQ(cards(atr.data()), "Same ATR\0\0"s);
    EXPECT_THAT(daemon.requests(Command::kListCards), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'),
                Contains("Malformed ATR in request (parsed length: 0)"));
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(ListCardsTest, TakesAnAtrThatIsTooLongForOneThatNoRemoteCardHas) {
    establishRedirected();
    // Seven groups of interface bytes of a T=0 card, and 15 historical bytes behind them.
    Bytes atr = {0x3B, 0xFF};
    for (int group = 0; group < 6; ++group) {
        atr.insert(atr.end(), {0x00, 0x00, 0x00, 0xF0});
    }
    atr.resize(48);
    EXPECT_EQ(cards(atr.data()), "\0"s) << "an empty multi-string, with the host failing too";
    EXPECT_THAT(daemon.requests(Command::kListCards), IsEmpty());
    EXPECT_THAT(log().messages("SCardListCardsA", 'D'),
                Contains("Malformed ATR in request (parsed length: 45)"));
}

TEST_F(ListCardsTest, GivesTheHostsCardsBehindAnEmptyRemoteList) {
    establishRedirected();
    for (const Bytes& empty : {Bytes{}, Bytes{0}, Bytes{0, 0}}) {
        SCOPED_TRACE(empty.size());
        announceCards(static_cast<std::uint32_t>(empty.size()), empty);
        EXPECT_EQ(cards(), "Demo Card\0\0"s);
    }
}

TEST_F(ListCardsTest, GivesTheDaemonsCardsAloneWhenTheHostFails) {
    establishRedirected();
    EXPECT_CALL(host, SCardListCardsA(kHostContext, _, _, _, _, _))
        .WillRepeatedly(Return(SCARD_E_NO_SERVICE));
    EXPECT_EQ(cards(), "Remote Card\0\0"s);
}

TEST_F(ListCardsTest, GivesTheDaemonsCardsAloneForAContextUnknownToTheHost) {
    establishRemoteContextOnly();
    EXPECT_CALL(host, SCardListCardsA(_, _, _, _, _, _)).Times(0);
    EXPECT_EQ(cards(), "Remote Card\0\0"s);
    daemon.on(Command::kListCards, refusing<ListCardsLayout>(SCARD_W_REMOVED_CARD));
    EXPECT_THAT(list(nullptr), Gives(SCARD_E_INVALID_HANDLE)) << "now neither side has it";
}

TEST_F(ListCardsTest, AsksTheHostAsTheCallerDidWhenTheDaemonRefuses) {
    establishRedirected();
    daemon.on(Command::kListCards,
              answering(ListCardsLayout::kSize,
                        {{ListCardsLayout::kLength, 9}, {ListCardsLayout::kResult, 0x80100069}}));
    const GuardedBuffer buffer(30);
    length = 30;
    EXPECT_CALL(host, SCardListCardsA(kHostContext, _, _, _, buffer.as<char>(), &length))
        .WillOnce(Return(SCARD_F_COMM_ERROR));
    EXPECT_THAT(list(buffer.as<char>()), Gives(SCARD_F_COMM_ERROR));
    EXPECT_EQ(length, 30U);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(ListCardsTest, AsksTheHostWhenThereIsNoConnection) {
    establishRedirected();
    context = 0;
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_EQ(cards(), "Demo Card\0\0"s);
    EXPECT_THAT(log().messages("SCardListCardsA", 'W'), IsEmpty());
}

TEST_F(ListCardsTest, AsksTheHostWhenTheRequestCannotBeSent) {
    establishRedirected();
    const FailingWrites broken([](DWORD size) { return size == ListCardsLayout::kSize; });
    EXPECT_EQ(cards(), "Demo Card\0\0"s);
    EXPECT_THAT(log().messages("SCardListCardsA", 'W'),
                ElementsAre("Failed to send header", "Failed to send header"));
}

TEST_F(ListCardsTest, AsksTheHostWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishRedirected();
    daemon.on(Command::kListCards, closing());
    expectHostsListInsteadOf("Failed to receive data");
}

TEST_F(ListCardsTest, AsksTheHostWhenTheDaemonHangsUpInTheMiddleOfTheNames) {
    establishRedirected();
    daemon.on(Command::kListCards,
              answeringAndClosing(ListCardsLayout::kSize, {{ListCardsLayout::kLength, 10}},
                                  {'R', 'e', 'm'}));
    expectHostsListInsteadOf("Failed to read data for card names");
}

TEST_F(ListCardsTest, TakesALargeList) {
    establishRedirected();
    const std::string name(1000000, 'N');
    announceCards(1000002, multiString({name}));
    EXPECT_EQ(cards(), name + "\0Demo Card\0\0"s);
}

TEST_F(ListCardsTest, ClosesAListThatTheDaemonLeftOpen) {
    establishRedirected();
    for (const Bytes& names : {Bytes{'A', 0, 'B'}, Bytes{'A', 0, 'B', 0}, Bytes{'A', 0, 'B', 0, 0},
                               Bytes{'A', 0, 'B', 0, 0, 'C', 0, 0}}) {
        SCOPED_TRACE(names.size());
        announceCards(static_cast<std::uint32_t>(names.size()), names);
        EXPECT_EQ(cards(), "A\0B\0Demo Card\0\0"s);
    }
}

TEST_F(ListCardsTest, AllocatesTheListForACallerWhoWantsThat) {
    establishRedirected();
    char* allocated = nullptr;
    length = SCARD_AUTOALLOCATE;
    const HeapSpy heap;
    ASSERT_THAT(list(reinterpret_cast<LPSTR>(&allocated)), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(allocated, length), "Remote Card\0Demo Card\0\0"s);
    EXPECT_THAT(daemon.requests(Command::kListCards),
                ElementsAre(IsRequest(Command::kListCards,
                                      RecordBytes(ListCardsLayout::kSize)
                                          .u64(ListCardsLayout::kContext, kDaemonContext)
                                          .u32(ListCardsLayout::kLength, SCARD_AUTOALLOCATE))));
    EXPECT_THAT(
        log().messages("SCardListCardsA"),
        ElementsAre("LIST_CARDS IN-PARAMS: 1, 0, " + logged(&length) + ", 4294967295",
                    "LIST_CARDS OUT-PARAMS: " +
                        logged(reinterpret_cast<std::uintptr_t>(&allocated)) + ", 23",
                    "    Card: Remote Card", "    Card: Demo Card", "LIST_CARDS RV: 0x00000000"));
    EXPECT_THAT(SCardFreeMemory(context, allocated), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(heap.wasFreed(allocated));
    EXPECT_EQ(host.heap().foreignFrees(), 0U);
}

TEST_F(ListCardsTest, WithoutMemoryForTheListAllocatesNothing) {
    establishRedirected();
    hostCards().introduce(std::string(1000, 'N'), {});
    ASSERT_THAT(list(nullptr), Gives(SCARD_S_SUCCESS));
    const DWORD size = length;
    char* allocated = nullptr;
    length = SCARD_AUTOALLOCATE;
    HeapSpy heap;
    heap.refuse(size);
    EXPECT_THAT(list(reinterpret_cast<LPSTR>(&allocated)), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(allocated, nullptr);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

}  // namespace
}  // namespace tez::test
