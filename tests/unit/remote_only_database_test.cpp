// The card database of a service that takes all calls.
#include <string>

#include "environment.h"
#include "guarded_buffer.h"
#include "remote_only_test.h"

using namespace tez;
using namespace std::string_literals;
using test::AuditLayout;
using test::Bytes;
using test::Command;
using test::DeviceTypeLayout;
using test::establishAnswer;
using test::ForgetLayout;
using test::GuardedBuffer;
using test::IntroduceLayout;
using test::IsSent;
using test::IsSentEstablish;
using test::ListCardsLayout;
using test::ProviderNameLayout;
using test::RecordBytes;
using test::textBytes;
using testing::IsEmpty;

namespace {

const std::string kUnfittingName(1024, 'C');

RecordBytes listCardsRecord(std::uint64_t context, std::uint32_t length, std::uint32_t rv = 0) {
    return RecordBytes(ListCardsLayout::kSize)
        .u64(ListCardsLayout::kContext, context)
        .u32(ListCardsLayout::kLength, length)
        .u32(ListCardsLayout::kResult, rv);
}

RecordBytes providerNameRecord(std::uint64_t context, std::uint32_t length, std::uint32_t rv = 0) {
    return RecordBytes(ProviderNameLayout::kSize)
        .u64(ProviderNameLayout::kContext, context)
        .text(ProviderNameLayout::kCard, "Card")
        .u32(ProviderNameLayout::kProvider, 2)
        .u32(ProviderNameLayout::kLength, length)
        .u32(ProviderNameLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyDatabase : public test::RemoteOnlyTest {
  protected:
    LONG listCards(SCARDCONTEXT context, LPCBYTE atr = nullptr) {
        return SCardListCardsA(context, atr, nullptr, 0, nullptr, &length_);
    }

    LONG getProvider(SCARDCONTEXT context, LPCSTR card = "Card") {
        return SCardGetCardTypeProviderNameA(context, card, 2, nullptr, &length_);
    }

    DWORD length_ = 0;
};

TEST_F(RemoteOnlyDatabase, ListsTheDaemonsCardsUnchangedUnderTheRemoteLocalContext) {
    const SCARDCONTEXT context = boundContext();
    const std::string names = "B\0A\0\0"s;
    daemon().answers = {establishAnswer(0x77), listCardsRecord(0x77, 5), textBytes(names)};
    const GuardedBuffer cards(5);
    length_ = 5;
    EXPECT_EQ(SCardListCardsA(context, nullptr, nullptr, 0, cards.as<char>(), &length_),
              SCARD_S_SUCCESS);
    EXPECT_EQ(test::copyBytes(cards.data(), 5), textBytes(names));
    EXPECT_THAT(takeRequest(), IsSentEstablish(SCARD_SCOPE_SYSTEM, false));
    EXPECT_THAT(takeRequest(), IsSent(Command::kListCards, listCardsRecord(0x77, 5), false));
}

TEST_F(RemoteOnlyDatabase, UsesTheRemoteContextWhenAllCallsAreRedirected) {
    test::setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {listCardsRecord(kDaemonContext, 2), {0, 0}};
    EXPECT_EQ(listCards(context), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kListCards, listCardsRecord(kDaemonContext, 0), true));
}

TEST_F(RemoteOnlyDatabase, ListsNoCardsForAnAtrWithAWrongCheckByteAndSendsNothing) {
    const Bytes atr = {0x3B, 0x80, 0x80, 0x01, 0x02};
    const GuardedBuffer cards(10);
    length_ = 10;
    EXPECT_EQ(SCardListCardsA(0, atr.data(), nullptr, 0, cards.as<char>(), &length_),
              SCARD_S_SUCCESS);
    EXPECT_EQ(length_, 0U);
    EXPECT_TRUE(cards.untouched());
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyDatabase, ListsCardsOfADaemonOfAnyVersion) {
    daemon().versionMinor = 0;
    daemon().answers = {listCardsRecord(0, 3), textBytes("A\0\0"s)};
    EXPECT_EQ(listCards(0), SCARD_S_SUCCESS);
    EXPECT_EQ(length_, 3U);
}

TEST_F(RemoteOnlyDatabase, HandsOnWhatKeptCardsFromBeingListed) {
    daemon().answers = {listCardsRecord(0, 3, 0x80100069)};
    EXPECT_EQ(listCards(0), SCARD_W_REMOVED_CARD);
    daemon().answers = {listCardsRecord(0, 0xFFFFFFFF)};
    EXPECT_EQ(listCards(0), SCARD_E_NO_MEMORY);
    EXPECT_EQ(daemon().timesClosed, 1);
    daemon().answers = {};
    EXPECT_EQ(listCards(0), SCARD_E_NO_SERVICE);
    EXPECT_EQ(listCards(4711), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardListCardsA(0, nullptr, nullptr, 0, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(length_, 0U);
}

TEST_F(RemoteOnlyDatabase, GetsTheDaemonsProviderName) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {establishAnswer(0x77), providerNameRecord(0x77, 2), textBytes("P\0"s)};
    daemon().versionMinor = 0;
    EXPECT_EQ(getProvider(context), SCARD_S_SUCCESS);
    EXPECT_EQ(length_, 2U);
    EXPECT_THAT(takeRequest(), IsSentEstablish(SCARD_SCOPE_SYSTEM, false));
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kGetCardTypeProviderName, providerNameRecord(0x77, 0), false));
}

TEST_F(RemoteOnlyDatabase, HandsOnWhatKeptAProviderNameFromBeingGot) {
    daemon().answers = {providerNameRecord(0, 2, 0x8010000D)};
    EXPECT_EQ(getProvider(0), SCARD_E_UNKNOWN_CARD);
    daemon().answers = {providerNameRecord(0, 0x80000000)};
    EXPECT_EQ(getProvider(0), SCARD_E_NO_MEMORY);
    EXPECT_EQ(daemon().timesClosed, 1);
    daemon().requests.clear();
    EXPECT_EQ(getProvider(4711), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(getProvider(0, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardGetCardTypeProviderNameA(0, "Card", 2, nullptr, nullptr),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(getProvider(0, kUnfittingName.c_str()), SCARD_E_INVALID_VALUE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyDatabase, SetsProviderNamesWithoutAContext) {
    daemon().answers = {providerNameRecord(0, 2)};
    EXPECT_EQ(SCardSetCardTypeProviderNameA(0, "Card", 2, "P"), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kSetCardTypeProviderName,
                                      providerNameRecord(0, 2).append({'P', 0}), false));
    daemon().answers = {providerNameRecord(0, 2, 0x8010000D)};
    EXPECT_EQ(SCardSetCardTypeProviderNameA(0, "Card", 2, "P"), SCARD_E_UNKNOWN_CARD);
}

TEST_F(RemoteOnlyDatabase, HandsOnWhatTheDaemonSaysOfUpdates) {
    daemon().versionMinor = 0;
    daemon().answers = {RecordBytes(AuditLayout::kSize)
                            .u32(AuditLayout::kEvent, 1)
                            .u32(AuditLayout::kResult, 0x80100003)};
    EXPECT_EQ(SCardAudit(0, 1), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kAudit, RecordBytes(AuditLayout::kSize).u32(AuditLayout::kEvent, 1),
                       false));
    daemon().answers = {RecordBytes(ForgetLayout::kSize)
                            .text(ForgetLayout::kCard, "Card")
                            .u32(ForgetLayout::kResult, 0x8010000D)};
    EXPECT_EQ(SCardForgetCardTypeA(0, "Card"), SCARD_E_UNKNOWN_CARD);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kForgetCardType,
                       RecordBytes(ForgetLayout::kSize).text(ForgetLayout::kCard, "Card"), false));
    const Bytes introduced =
        RecordBytes(IntroduceLayout::kSize).text(IntroduceLayout::kCard, "Card").bytes();
    daemon().answers = {introduced};
    EXPECT_EQ(SCardIntroduceCardTypeA(0, "Card", nullptr, nullptr, 0, nullptr, nullptr, 0),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kIntroduceCardType, introduced, false));
}

TEST_F(RemoteOnlyDatabase, RefusesUpdatesOfAKnownContext) {
    const SCARDCONTEXT context = boundContext();
    EXPECT_EQ(SCardSetCardTypeProviderNameA(context, "Card", 2, "P"), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardIntroduceCardTypeA(context, "Card", nullptr, nullptr, 0, nullptr, nullptr, 0),
              SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardForgetCardTypeA(context, "Card"), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardAudit(context, 1), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyDatabase, SendsNoUpdateWithANameThatDoesNotFitItsField) {
    const char* const name = kUnfittingName.c_str();
    EXPECT_EQ(SCardSetCardTypeProviderNameA(0, name, 2, "P"), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardIntroduceCardTypeA(0, name, nullptr, nullptr, 0, nullptr, nullptr, 0),
              SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardForgetCardTypeA(0, name), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(SCardForgetCardTypeA(0, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyDatabase, GetsTheDeviceTypeUnderTheRemoteContext) {
    const SCARDCONTEXT context = boundContext();
    const auto record = [](std::uint32_t type, std::uint32_t rv) {
        return RecordBytes(DeviceTypeLayout::kSize)
            .u64(DeviceTypeLayout::kContext, kDaemonContext)
            .text(DeviceTypeLayout::kReader, "Reader")
            .u32(DeviceTypeLayout::kType, type)
            .u32(DeviceTypeLayout::kResult, rv)
            .bytes();
    };
    daemon().versionMinor = 0;
    daemon().answers = {record(32, 0), record(1, 0x80100009)};
    DWORD type = 0;
    EXPECT_EQ(SCardGetDeviceTypeIdA(context, "Reader", &type), SCARD_S_SUCCESS);
    EXPECT_EQ(type, 32U);
    EXPECT_THAT(takeRequest(), IsSent(Command::kGetDeviceTypeId, record(0, 0)));
    EXPECT_EQ(SCardGetDeviceTypeIdA(context, "Reader", &type), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(type, 32U);
    EXPECT_EQ(SCardGetDeviceTypeIdA(4711, "Reader", &type), SCARD_E_INVALID_HANDLE);
}
