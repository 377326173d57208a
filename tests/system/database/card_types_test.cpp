// SCardIntroduceCardTypeA, SCardForgetCardTypeA and SCardAudit. Once calls are redirected these go
// to the daemon, and only without a context: those that the library knows are refused.
#include <numeric>

#include "card_database_test.h"
#include "failing_writes.h"
#include "guarded_buffer.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsNull;
using testing::Return;
using testing::StrEq;

constexpr GUID kPrimaryProvider{0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
constexpr GUID kTypeInterfaces[] = {{1, 0, 0, {}}, {2, 0, 0, {}}};

class IntroduceCardTypeTest : public CardDatabaseTest {
  protected:
    LONG introduce(SCARDCONTEXT on, DWORD atrLength) const {
        return SCardIntroduceCardTypeA(on, name.c_str(), provider, interfaces, interfaceCount,
                                       atr.data(), mask, atrLength);
    }

    RecordBytes record() const {
        return RecordBytes(IntroduceLayout::kSize).text(IntroduceLayout::kCard, name);
    }

    std::string name = "New Card";
    const GUID* provider = nullptr;
    const GUID* interfaces = nullptr;
    DWORD interfaceCount = 0;
    Bytes atr = cardsAtr();
    const BYTE* mask = nullptr;
};

TEST_F(IntroduceCardTypeTest, TellsTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    const Bytes maskBytes(atr.size(), 0xF0);
    provider = &kPrimaryProvider;
    interfaces = kTypeInterfaces;
    interfaceCount = 2;
    mask = maskBytes.data();
    const auto size = static_cast<DWORD>(atr.size());
    EXPECT_CALL(host, SCardIntroduceCardTypeA(kHostContext, StrEq(name), provider, interfaces, 2,
                                              atr.data(), mask, size));
    EXPECT_THAT(introduce(context, size), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(hostCards().find(name));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages("SCardIntroduceCardTypeA"),
        ElementsAre("INTRODUCE CARD TYPE IN-PARAMS: 1, New Card", "INTRODUCE CARD TYPE RV: 0"));
}

TEST_F(IntroduceCardTypeTest, TellsTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    // The host judges what the library would.
    EXPECT_CALL(host, SCardIntroduceCardTypeA(kHostContext, _, _, _, _, _, _, 34))
        .WillOnce(Return(SCARD_F_COMM_ERROR));
    EXPECT_THAT(introduce(context, 34), Gives(SCARD_F_COMM_ERROR));
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA"),
                ElementsAre(_, "INTRODUCE CARD TYPE RV: -2146435053"));
    EXPECT_CALL(host, SCardIntroduceCardTypeA(_, _, _, _, _, _, _, _)).Times(0);
    EXPECT_THAT(introduce(0, 4), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(IntroduceCardTypeTest, RefusesAKnownContextSilentlyOnceItIsRedirected) {
    establishRedirected();
    EXPECT_CALL(host, SCardIntroduceCardTypeA(_, _, _, _, _, _, _, _)).Times(0);
    EXPECT_THAT(introduce(context, 4), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA"),
                ElementsAre(_, "INTRODUCE CARD TYPE RV: -2146435069"));
}

TEST_F(IntroduceCardTypeTest, OfAnUnknownContextSendsNothing) {
    establishRedirected();
    EXPECT_CALL(host, SCardIntroduceCardTypeA(_, _, _, _, _, _, _, _)).Times(0);
    EXPECT_THAT(introduce(kHostContext, 4), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(IntroduceCardTypeTest, RefusesAnAtrLengthOf34BeforeAnythingElse) {
    establishRedirected();
    EXPECT_THAT(introduce(0, 34), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA", 'W'),
                ElementsAre("Malformed ATR in request (length: 34)"));
}

TEST_F(IntroduceCardTypeTest, RefusesAnAtrWhoseStructureIsTooLongWhetherItHasACheckByteOrNot) {
    establishRedirected();
    // 20 bytes of interfaces behind TS and 15 historical ones; T=1 adds a check byte.
    for (const std::uint8_t next : Bytes{0xF0, 0xF1}) {
        atr = {0x3B, 0xFF, 1, 2, 3, next, 4, 5, 6, next, 7, 8, 9, next, 1, 2, 3, 0x70, 4, 5, 6};
        atr.resize(36);
        if (next == 0xF1) {
            atr.push_back(std::accumulate(atr.begin() + 1, atr.end(), std::uint8_t{0},
                                          [](std::uint8_t sum, std::uint8_t byte) {
                                              return static_cast<std::uint8_t>(sum ^ byte);
                                          }));
        }
        EXPECT_THAT(introduce(0, 0), Gives(SCARD_E_INVALID_PARAMETER)) << atr.size() << " bytes";
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA", 'W'),
                ElementsAre("Malformed ATR in request (length: 36)",
                            "Malformed ATR in request (length: 37)"));
}

TEST_F(IntroduceCardTypeTest, SendsAllThatItIsGiven) {
    establishRedirected();
    const GuardedBuffer guardedAtr(5);
    const GuardedBuffer guardedMask(5);
    std::ranges::copy(Bytes{0x3B, 1, 2, 3, 4}, guardedAtr.data());
    std::ranges::copy(Bytes{0xFF, 0xFE, 0xFD, 0xFC, 0xFB}, guardedMask.data());
    EXPECT_THAT(SCardIntroduceCardTypeA(0, "New Card", &kPrimaryProvider, kTypeInterfaces, 2,
                                        guardedAtr.data(), guardedMask.data(), 5),
                Gives(SCARD_S_SUCCESS));
    Bytes guids(32);
    guids[0] = 1;
    guids[16] = 2;
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(
                    Command::kIntroduceCardType,
                    record()
                        .raw(1032, {1})
                        .raw(1033, {4, 3, 2, 1, 6, 5, 8, 7, 9, 10, 11, 12, 13, 14, 15, 16})
                        .u32(1049, 2)
                        .raw(1053, {1})
                        .raw(1054, {0x3B, 1, 2, 3, 4})
                        .raw(1087, {1})
                        .raw(1088, {0xFF, 0xFE, 0xFD, 0xFC, 0xFB})
                        .u32(1121, 5)
                        .append(guids))));
    EXPECT_TRUE(remote.cardStore().find("New Card"));
}

TEST_F(IntroduceCardTypeTest, TakesTheLengthOfTheAtrFromItsStructureButSendsWhatItWasTold) {
    establishRedirected();
    const Bytes maskBytes(atr.size(), 0xF0);
    mask = maskBytes.data();
    interfaceCount = 3;  // of interfaces that are not given
    EXPECT_THAT(introduce(0, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(
                    Command::kIntroduceCardType,
                    record().u32(1049, 3).raw(1053, {1}).raw(1054, atr).raw(1087, {1}).raw(
                        1088, maskBytes))));
}

TEST_F(IntroduceCardTypeTest, SendsNoMaskWithoutAnAtr) {
    establishRedirected();
    const Bytes maskBytes(7, 0xF0);
    daemon.on(Command::kIntroduceCardType, answering(IntroduceLayout::kSize, {}));
    EXPECT_THAT(
        SCardIntroduceCardTypeA(0, "New Card", nullptr, nullptr, 0, nullptr, maskBytes.data(), 7),
        Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kIntroduceCardType, record().u32(1121, 7))));
}

TEST_F(IntroduceCardTypeTest, SendsAnAtrOfTheGreatestLength) {
    establishRedirected();
    atr.assign(33, 0x77);
    const Bytes maskBytes(33, 0x88);
    mask = maskBytes.data();
    EXPECT_THAT(introduce(0, 33), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kIntroduceCardType, record()
                                                                       .raw(1053, {1})
                                                                       .raw(1054, atr)
                                                                       .raw(1087, {1})
                                                                       .raw(1088, maskBytes)
                                                                       .u32(1121, 33))));
}

TEST_F(IntroduceCardTypeTest, HandsTheDaemonsRefusalOn) {
    establishRedirected({1, 0});
    EXPECT_CALL(host, SCardIntroduceCardTypeA(_, _, _, _, _, _, _, _)).Times(0);
    name = kRemoteCardType;
    EXPECT_THAT(introduce(0, 0), Gives(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(daemon.requests(Command::kIntroduceCardType).size(), 1U) << "whatever its version";
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA"), Contains("INTRODUCE CARD TYPE RV: 183"));
}

TEST_F(IntroduceCardTypeTest, RefusesACardNameThatDoesNotFitItsField) {
    establishRedirected();
    name = kTooLongCardName;
    EXPECT_THAT(introduce(0, 4), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardIntroduceCardTypeA(0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    name = kLongestCardName;
    EXPECT_THAT(introduce(0, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(remote.cardStore().find(kLongestCardName));
}

TEST_F(IntroduceCardTypeTest, WarnsWhenTheRequestCannotBeSent) {
    establishRedirected();
    const FailingWrites broken([](DWORD size) { return size == IntroduceLayout::kSize; });
    EXPECT_THAT(introduce(0, 0), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA", 'W'),
                ElementsAre("Failed to send header"));
}

TEST_F(IntroduceCardTypeTest, WarnsWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishRedirected();
    daemon.on(Command::kIntroduceCardType, closing());
    EXPECT_THAT(introduce(0, 0), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeA", 'W'),
                ElementsAre("Failed to receive data"));
}

class ForgetCardTypeTest : public CardDatabaseTest {
  protected:
    static LONG forget(const std::string& type) { return SCardForgetCardTypeA(0, type.c_str()); }
};

TEST_F(ForgetCardTypeTest, TellsTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    EXPECT_CALL(host, SCardForgetCardTypeA(kHostContext, StrEq(kHostCardType)));
    EXPECT_THAT(SCardForgetCardTypeA(context, kHostCardType), Gives(SCARD_S_SUCCESS));
    EXPECT_FALSE(hostCards().find(kHostCardType));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardForgetCardTypeA"),
                ElementsAre("FORGET CARD TYPE IN-PARAMS: 1, Demo Card", "FORGET CARD TYPE RV: 0"));
}

TEST_F(ForgetCardTypeTest, TellsTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    EXPECT_CALL(host, SCardForgetCardTypeA(kHostContext, IsNull()))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardForgetCardTypeA(context, nullptr), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardForgetCardTypeA(0, kHostCardType), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(ForgetCardTypeTest, RefusesAKnownContextSilentlyOnceItIsRedirected) {
    establishRedirected();
    EXPECT_CALL(host, SCardForgetCardTypeA(_, _)).Times(0);
    EXPECT_THAT(SCardForgetCardTypeA(context, kRemoteCardType), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardForgetCardTypeA"),
                ElementsAre(_, "FORGET CARD TYPE RV: -2146435069"));
}

TEST_F(ForgetCardTypeTest, OfAnUnknownContextSendsNothing) {
    establishRedirected();
    EXPECT_CALL(host, SCardForgetCardTypeA(_, _)).Times(0);
    EXPECT_THAT(SCardForgetCardTypeA(kHostContext, kRemoteCardType), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ForgetCardTypeTest, SendsTheCardsName) {
    establishRedirected({1, 0});
    EXPECT_THAT(forget(kRemoteCardType), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(
                    Command::kForgetCardType,
                    RecordBytes(ForgetLayout::kSize).text(ForgetLayout::kCard, kRemoteCardType))));
    EXPECT_FALSE(remote.cardStore().find(kRemoteCardType));
}

TEST_F(ForgetCardTypeTest, TurnsTheDaemonsRefusalIntoAnInvalidHandle) {
    establishRedirected();
    EXPECT_CALL(host, SCardForgetCardTypeA(_, _)).Times(0);
    EXPECT_THAT(forget("No Card"), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_EQ(daemon.requests(Command::kForgetCardType).size(), 1U);
    EXPECT_THAT(log().messages("SCardForgetCardTypeA", 'W'), IsEmpty());
}

TEST_F(ForgetCardTypeTest, TurnsAFailureToSendIntoAnInvalidHandle) {
    establishRedirected();
    const FailingWrites broken([](DWORD size) { return size == ForgetLayout::kSize; });
    EXPECT_THAT(forget(kRemoteCardType), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(log().messages("SCardForgetCardTypeA"),
                ElementsAre(_, "Could not send forget_card_type message", _));
    EXPECT_THAT(log().messages("SCardForgetCardTypeA", 'W'), IsEmpty());
}

TEST_F(ForgetCardTypeTest, TurnsAMissingAnswerIntoAnInvalidHandle) {
    establishRedirected();
    daemon.on(Command::kForgetCardType, closing());
    EXPECT_THAT(forget(kRemoteCardType), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(log().messages("SCardForgetCardTypeA"),
                ElementsAre(_, "Could not read forget_card_type message", _));
    EXPECT_THAT(log().messages("SCardForgetCardTypeA", 'W'), IsEmpty());
}

TEST_F(ForgetCardTypeTest, SendsNoCardNameThatDoesNotFitItsField) {
    establishRedirected();
    EXPECT_THAT(SCardForgetCardTypeA(0, kTooLongCardName.c_str()), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(SCardForgetCardTypeA(0, nullptr), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    remote.cardStore().introduce(kLongestCardName, {});
    EXPECT_THAT(forget(kLongestCardName), Gives(SCARD_S_SUCCESS));
}

class AuditTest : public CardDatabaseTest {};

TEST_F(AuditTest, TellsTheHostAloneWhenCallsAreNotRedirected) {
    establishContext();
    EXPECT_CALL(host, SCardAudit(kHostContext, SCARD_AUDIT_CHV_SUCCESS));
    EXPECT_THAT(SCardAudit(context, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardAudit"), ElementsAre("AUDIT IN-PARAMS: 1, 1", "AUDIT RV: 0"));
}

TEST_F(AuditTest, TellsTheHostAloneWithoutADaemon) {
    redirectAllCalls();
    context = establish();
    EXPECT_THAT(SCardAudit(context, 99), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages("SCardAudit"),
                ElementsAre("AUDIT IN-PARAMS: 1, 99", "AUDIT RV: -2146435068"));
    EXPECT_THAT(SCardAudit(0, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(AuditTest, RefusesAKnownContextSilentlyOnceItIsRedirected) {
    establishRedirected();
    EXPECT_CALL(host, SCardAudit(_, _)).Times(0);
    EXPECT_THAT(SCardAudit(context, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardAudit"), ElementsAre(_, "AUDIT RV: -2146435069"));
}

TEST_F(AuditTest, OfAnUnknownContextSendsNothing) {
    establishRedirected();
    EXPECT_CALL(host, SCardAudit(_, _)).Times(0);
    EXPECT_THAT(SCardAudit(kHostContext, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(AuditTest, SendsTheEvent) {
    establishRedirected({1, 2});
    EXPECT_THAT(SCardAudit(0, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(IsRequest(
            Command::kAudit,
            RecordBytes(AuditLayout::kSize).u32(AuditLayout::kEvent, SCARD_AUDIT_CHV_SUCCESS))));
}

TEST_F(AuditTest, HandsTheDaemonsRefusalOn) {
    establishRedirected();
    EXPECT_CALL(host, SCardAudit(_, _)).Times(0);
    EXPECT_THAT(SCardAudit(0, 99), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_EQ(daemon.requests(Command::kAudit).size(), 1U);
}

TEST_F(AuditTest, IsNotSentToADaemonOlderThan12) {
    establishRedirected({1, 1});
    EXPECT_THAT(SCardAudit(0, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(daemon.requests(Command::kAudit), IsEmpty());
    EXPECT_THAT(log().messages("SCardAudit"), ElementsAre(_, gateLine("SCardAudit"), _));
}

TEST_F(AuditTest, WarnsWhenTheRequestCannotBeSent) {
    establishRedirected();
    const FailingWrites broken([](DWORD size) { return size == AuditLayout::kSize; });
    EXPECT_THAT(SCardAudit(0, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardAudit", 'W'), ElementsAre("Failed to send header"));
}

TEST_F(AuditTest, WarnsWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishRedirected();
    daemon.on(Command::kAudit, closing());
    EXPECT_THAT(SCardAudit(0, SCARD_AUDIT_CHV_SUCCESS), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardAudit", 'W'), ElementsAre("Failed to receive data"));
}

}  // namespace
}  // namespace tez::test
