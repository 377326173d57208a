// SCardGetCardTypeProviderNameA and SCardSetCardTypeProviderNameA
#include "card_database_test.h"
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StrEq;
using namespace std::string_literals;

constexpr const char* kHostProvider = "Host Provider";
constexpr const char* kGetProvider = "SCardGetCardTypeProviderNameA";
constexpr const char* kSetProvider = "SCardSetCardTypeProviderNameA";

RecordBytes providerRecord(std::uint64_t daemonContext, const std::string& card) {
    return RecordBytes(ProviderNameLayout::kSize)
        .u64(ProviderNameLayout::kContext, daemonContext)
        .text(ProviderNameLayout::kCard, card)
        .u32(ProviderNameLayout::kProvider, SCARD_PROVIDER_CSP);
}

/// Both sides know kRemoteCardType, each with a provider of its own.
class GetProviderNameTest : public CardDatabaseTest {
  protected:
    GetProviderNameTest() {
        hostCards().introduce(kRemoteCardType, cardTypeOf(makeDemoCard(kRemoteCardHolder).atr()));
        hostCards().setProvider(kRemoteCardType, SCARD_PROVIDER_CSP, kHostProvider);
    }

    LONG get(LPSTR provider, LPCSTR type = kRemoteCardType) {
        return SCardGetCardTypeProviderNameA(context, type, SCARD_PROVIDER_CSP, provider, &length);
    }

    /// The name with its NUL, out of a buffer that has exactly the room for it.
    std::string provider() {
        EXPECT_THAT(get(nullptr), Gives(SCARD_S_SUCCESS));
        const GuardedBuffer buffer(length);
        EXPECT_THAT(get(buffer.as<char>()), Gives(SCARD_S_SUCCESS));
        return {buffer.as<char>(), length};
    }

    void announceProvider(std::uint32_t size, const Bytes& name) {
        daemon.on(
            Command::kGetCardTypeProviderName,
            answering(ProviderNameLayout::kSize, {{ProviderNameLayout::kLength, size}}, name));
    }

    void expectHostsNameInsteadOf(const std::string& failure) {
        EXPECT_EQ(provider(), "Host Provider\0"s);
        EXPECT_THAT(log().messages(kGetProvider, 'W'), Contains(failure));
        daemon.restore(Command::kGetCardTypeProviderName);
        EXPECT_EQ(provider(), "Remote Provider\0"s);
    }

    DWORD length = 0;
};

TEST_F(GetProviderNameTest, AsksTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    const GuardedBuffer buffer(20);
    length = 20;
    EXPECT_CALL(host,
                SCardGetCardTypeProviderNameA(kHostContext, StrEq(kRemoteCardType),
                                              SCARD_PROVIDER_CSP, buffer.as<char>(), &length));
    EXPECT_THAT(get(buffer.as<char>()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(buffer.as<char>(), length), "Host Provider\0"s);
    EXPECT_TRUE(buffer.untouchedFrom(14));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages(kGetProvider),
        ElementsAre("GET_CARD_TYPE_PROVIDER_NAME IN-PARAMS: 1, Remote Card, 2, " +
                        logged(buffer.data()) + ", " + logged(&length) + ", 20",
                    "GET_CARD_TYPE_PROVIDER_NAME OUT-PARAMS: 14", "    provider: Host Provider",
                    "GET_CARD_TYPE_PROVIDER_NAME RV: 0x00000000"));
}

TEST_F(GetProviderNameTest, AsksTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    EXPECT_EQ(provider(), "Host Provider\0"s);
}

TEST_F(GetProviderNameTest, AsksTheDaemonAloneOnceItIsRedirected) {
    establishRedirected();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(_, _, _, _, _)).Times(0);
    const GuardedBuffer buffer(17);
    length = 17;
    EXPECT_THAT(get(buffer.as<char>()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(buffer.as<char>(), length), "Remote Provider\0"s);
    EXPECT_TRUE(buffer.untouchedFrom(16));
    EXPECT_THAT(daemon.requests(Command::kGetCardTypeProviderName),
                ElementsAre(IsRequest(Command::kGetCardTypeProviderName,
                                      providerRecord(kDaemonContext, kRemoteCardType))));
    EXPECT_THAT(
        log().messages(kGetProvider),
        ElementsAre("GET_CARD_TYPE_PROVIDER_NAME IN-PARAMS: 1, Remote Card, 2, " +
                        logged(buffer.data()) + ", " + logged(&length) + ", 17",
                    "GET_CARD_TYPE_PROVIDER_NAME OUT-PARAMS: 16", "    provider: Remote Provider",
                    "GET_CARD_TYPE_PROVIDER_NAME RV: 0x00000000"));
}

TEST_F(GetProviderNameTest, NeedsNoContext) {
    establishRedirected();
    context = 0;
    EXPECT_EQ(provider(), "Remote Provider\0"s);
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), IsEmpty());
    EXPECT_THAT(
        daemon.requests(Command::kGetCardTypeProviderName),
        Contains(IsRequest(Command::kGetCardTypeProviderName, providerRecord(0, kRemoteCardType))));
    daemon.stop();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(0, _, _, _, _)).Times(2);
    EXPECT_EQ(provider(), "Host Provider\0"s);
}

TEST_F(GetProviderNameTest, RefusesAnUnknownContextSilentlyAndAsksNoSide) {
    establishRedirected();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(_, _, _, _, _)).Times(0);
    context = kHostContext;
    EXPECT_THAT(get(nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kGetProvider),
                ElementsAre(_, "GET_CARD_TYPE_PROVIDER_NAME RV: 0x80100004"));
}

TEST_F(GetProviderNameTest, RefusesAnUnknownContextOnTheHostsSide) {
    establishContext();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(_, _, _, _, _)).Times(0);
    context = kHostContext;
    EXPECT_THAT(get(nullptr), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(GetProviderNameTest, LeavesAMissingLengthToTheHostsJudgement) {
    establishRedirected();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(kHostContext, _, _, nullptr, nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, kRemoteCardType, SCARD_PROVIDER_CSP, nullptr,
                                              nullptr),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kGetProvider, 'D'), Contains("pcchProvider cannot be NULL"));
}

TEST_F(GetProviderNameTest, LeavesAMissingCardNameToTheHostsJudgement) {
    establishRedirected();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(kHostContext, nullptr, _, _, _))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(get(nullptr, nullptr), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages(kGetProvider),
        ElementsAre("GET_CARD_TYPE_PROVIDER_NAME IN-PARAMS: 1, , 2, 0000000000000000, " +
                        logged(&length) + ", 0",
                    "szCardName cannot be NULL", "GET_CARD_TYPE_PROVIDER_NAME RV: 0x80100011"));
}

TEST_F(GetProviderNameTest, SendsACardNameThatFillsItsField) {
    establishRedirected();
    remote.cardStore().introduce(kLongestCardName, {});
    remote.cardStore().setProvider(kLongestCardName, SCARD_PROVIDER_CSP, "P");
    EXPECT_THAT(get(nullptr, kLongestCardName.c_str()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 2U);
    EXPECT_THAT(daemon.requests(Command::kGetCardTypeProviderName),
                ElementsAre(IsRequest(Command::kGetCardTypeProviderName,
                                      providerRecord(kDaemonContext, kLongestCardName))));
}

TEST_F(GetProviderNameTest, AsksTheHostForACardNameThatDoesNotFitItsField) {
    establishRedirected();
    hostCards().introduce(kTooLongCardName, {});
    hostCards().setProvider(kTooLongCardName, SCARD_PROVIDER_CSP, "P");
    EXPECT_THAT(get(nullptr, kTooLongCardName.c_str()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 2U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(GetProviderNameTest, AsksTheHostWhenTheDaemonIsOlderThan12) {
    establishRedirected({1, 1});
    EXPECT_EQ(provider(), "Host Provider\0"s);
    EXPECT_THAT(daemon.requests(Command::kGetCardTypeProviderName), IsEmpty());
    EXPECT_THAT(log().messages(kGetProvider, 'D'), Contains(gateLine(kGetProvider)));
}

TEST_F(GetProviderNameTest, AsksADaemonOfVersion12) {
    establishRedirected({1, 2});
    EXPECT_EQ(provider(), "Remote Provider\0"s);
}

TEST_F(GetProviderNameTest, AsksTheHostWhenTheDaemonRefuses) {
    establishRedirected();
    daemon.on(Command::kGetCardTypeProviderName,
              answering(ProviderNameLayout::kSize, {{ProviderNameLayout::kLength, 9},
                                                    {ProviderNameLayout::kResult, 0x8010000D}}));
    EXPECT_EQ(provider(), "Host Provider\0"s);
}

TEST_F(GetProviderNameTest, OfAContextWithoutAHostsSideIsInvalidWhenTheDaemonRefuses) {
    establishRemoteContextOnly();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA(_, _, _, _, _)).Times(0);
    EXPECT_EQ(provider(), "Remote Provider\0"s);
    EXPECT_THAT(get(nullptr, "No Card"), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(GetProviderNameTest, AsksTheHostWhenThereIsNoConnection) {
    establishRedirected();
    context = 0;
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_EQ(provider(), "Host Provider\0"s);
    EXPECT_THAT(log().messages(kGetProvider, 'W'), IsEmpty());
}

TEST_F(GetProviderNameTest, AsksTheHostWhenTheRequestCannotBeSent) {
    establishRedirected();
    const FailingWrites broken([](DWORD size) { return size == ProviderNameLayout::kSize; });
    EXPECT_THAT(get(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 14U);
    EXPECT_THAT(log().messages(kGetProvider, 'W'), ElementsAre("Failed to send header"));
}

TEST_F(GetProviderNameTest, AsksTheHostWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishRedirected();
    daemon.on(Command::kGetCardTypeProviderName, closing());
    expectHostsNameInsteadOf("Failed to receive data");
}

TEST_F(GetProviderNameTest, AsksTheHostWhenTheDaemonHangsUpInTheMiddleOfTheName) {
    establishRedirected();
    daemon.on(Command::kGetCardTypeProviderName,
              answeringAndClosing(ProviderNameLayout::kSize, {{ProviderNameLayout::kLength, 10}},
                                  {'R', 'e', 'm'}));
    expectHostsNameInsteadOf("Failed to read data for provider name");
}

TEST_F(GetProviderNameTest, ClosesANameThatTheDaemonLeftOpen) {
    establishRedirected();
    announceProvider(0, {});
    EXPECT_EQ(provider(), "\0"s);
    announceProvider(3, {'A', 'b', 'c'});
    EXPECT_EQ(provider(), "Abc\0"s);
    announceProvider(4, {'A', 'b', 'c', 0});
    EXPECT_EQ(provider(), "Abc\0"s);
}

TEST_F(GetProviderNameTest, AllocatesTheNameForACallerWhoWantsThat) {
    establishRedirected();
    char* allocated = nullptr;
    length = SCARD_AUTOALLOCATE;
    const HeapSpy heap;
    ASSERT_THAT(get(reinterpret_cast<LPSTR>(&allocated)), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(allocated, length), "Remote Provider\0"s);
    EXPECT_THAT(log().messages(kGetProvider), Contains("    provider: Remote Provider"));
    EXPECT_THAT(SCardFreeMemory(context, allocated), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(heap.wasFreed(allocated));
    EXPECT_EQ(heap.outstanding(16), 0U);
}

TEST_F(GetProviderNameTest, WithoutMemoryForTheNameAllocatesNothing) {
    establishRedirected();
    const std::string name(5000, 'P');
    remote.cardStore().setProvider(kRemoteCardType, SCARD_PROVIDER_CSP, name);
    char* allocated = nullptr;
    length = SCARD_AUTOALLOCATE;
    HeapSpy heap;
    heap.refuse(5001);  // for the caller
    EXPECT_THAT(get(reinterpret_cast<LPSTR>(&allocated)), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(allocated, nullptr);
    heap.refuse(5002);  // for what the daemon sends
    length = 0;
    EXPECT_THAT(get(nullptr), Gives(SCARD_S_SUCCESS)) << "the host's";
    EXPECT_EQ(length, 14U);
    EXPECT_TRUE(hangsUpAfter(Command::kGetCardTypeProviderName));
}

class SetProviderNameTest : public CardDatabaseTest {
  protected:
    LONG set(LPCSTR provider, LPCSTR type = kRemoteCardType) {
        return SCardSetCardTypeProviderNameA(context, type, SCARD_PROVIDER_CSP, provider);
    }

    void expectHostAsked(LONG result) {
        EXPECT_CALL(host, SCardSetCardTypeProviderNameA(_, _, _, _)).WillOnce(Return(result));
    }
};

TEST_F(SetProviderNameTest, TellsTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    const std::string provider = "New Provider";
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(kHostContext, StrEq(kHostCardType),
                                                    SCARD_PROVIDER_CSP, provider.c_str()));
    EXPECT_THAT(set(provider.c_str(), kHostCardType), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kSetProvider),
                ElementsAre("SET CARD TYPE PROVIDER NAME IN-PARAMS: 1, Demo Card, 2, New Provider",
                            "SET CARD TYPE PROVIDER NAME RV: 0"));
    std::string stored;
    EXPECT_EQ(hostCards().provider(kHostCardType, SCARD_PROVIDER_CSP, stored), SCARD_S_SUCCESS);
    EXPECT_EQ(stored, provider);
}

TEST_F(SetProviderNameTest, TellsTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    expectHostAsked(SCARD_E_UNKNOWN_CARD);
    EXPECT_THAT(set("P"), Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_THAT(log().messages(kSetProvider),
                Contains("SET CARD TYPE PROVIDER NAME RV: -2146435059"));
}

TEST_F(SetProviderNameTest, TellsTheDaemonAloneOnceItIsRedirectedWithoutAContext) {
    establishRedirected();
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(_, _, _, _)).Times(0);
    context = 0;
    EXPECT_THAT(set("New"), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(
                    Command::kSetCardTypeProviderName,
                    providerRecord(0, kRemoteCardType).u32(1036, 4).append({'N', 'e', 'w', 0}))));
    std::string stored;
    EXPECT_EQ(remote.cardStore().provider(kRemoteCardType, SCARD_PROVIDER_CSP, stored),
              SCARD_S_SUCCESS);
    EXPECT_EQ(stored, "New");
    EXPECT_THAT(log().messages(kSetProvider),
                ElementsAre("SET CARD TYPE PROVIDER NAME IN-PARAMS: 0, Remote Card, 2, New",
                            "SET CARD TYPE PROVIDER NAME RV: 0"));
}

TEST_F(SetProviderNameTest, SendsAMissingNameAsAnEmptyOne) {
    establishRedirected();
    context = 0;
    EXPECT_THAT(set(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(IsRequest(Command::kSetCardTypeProviderName,
                              providerRecord(0, kRemoteCardType).u32(1036, 1).append({0}))));
}

TEST_F(SetProviderNameTest, RefusesAKnownContextSilentlyAndAsksNoSide) {
    establishRedirected();
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(_, _, _, _)).Times(0);
    EXPECT_THAT(set("New"), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kSetProvider),
                ElementsAre(_, "SET CARD TYPE PROVIDER NAME RV: -2146435069"));
}

TEST_F(SetProviderNameTest, OfAnUnknownContextFindsNoSideToTell) {
    establishRedirected();
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(_, _, _, _)).Times(0);
    context = kHostContext;
    EXPECT_THAT(set("New"), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetProviderNameTest, TellsADaemonOfAnyVersion) {
    establishRedirected({1, 0});
    context = 0;
    EXPECT_THAT(set("New"), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(daemon.requests(Command::kSetCardTypeProviderName).size(), 1U);
}

TEST_F(SetProviderNameTest, TellsTheHostWhenTheDaemonRefuses) {
    establishRedirected();
    context = 0;
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(0, StrEq("No Card"), SCARD_PROVIDER_CSP, _))
        .WillOnce(Return(SCARD_F_COMM_ERROR));
    EXPECT_THAT(set("New", "No Card"), Gives(SCARD_F_COMM_ERROR));
    EXPECT_EQ(daemon.requests(Command::kSetCardTypeProviderName).size(), 1U);
}

TEST_F(SetProviderNameTest, TellsTheHostACardNameThatDoesNotFitItsField) {
    establishRedirected();
    context = 0;
    expectHostAsked(SCARD_F_COMM_ERROR);
    EXPECT_THAT(set("New", kTooLongCardName.c_str()), Gives(SCARD_F_COMM_ERROR));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    remote.cardStore().introduce(kLongestCardName, {});
    EXPECT_THAT(set("New", kLongestCardName.c_str()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(daemon.requests(Command::kSetCardTypeProviderName).size(), 1U);
}

TEST_F(SetProviderNameTest, LeavesAMissingCardNameToTheHostsJudgement) {
    establishRedirected();
    context = 0;
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(0, nullptr, _, _))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(set("New", nullptr), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetProviderNameTest, TellsTheHostWhenTheRequestCannotBeSent) {
    establishRedirected();
    context = 0;
    expectHostAsked(SCARD_S_SUCCESS);
    const FailingWrites broken([](DWORD size) { return size == ProviderNameLayout::kSize + 4; });
    EXPECT_THAT(set("New"), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kSetProvider, 'W'), ElementsAre("Failed to send header"));
}

TEST_F(SetProviderNameTest, TellsTheHostWhenTheDaemonHangsUp) {
    establishRedirected();
    context = 0;
    daemon.on(Command::kSetCardTypeProviderName, closing());
    expectHostAsked(SCARD_S_SUCCESS);
    EXPECT_THAT(set("New"), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kSetProvider, 'W'), ElementsAre("Failed to receive data"));
}

}  // namespace
}  // namespace tez::test
