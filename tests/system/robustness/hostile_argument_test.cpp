// Applications that pass nonsense: null pointers, absurd lengths and counts, endless names.
#include "call_catalogue.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::IsEmpty;
using testing::Not;

/// Makes the calls with both sides there and all calls redirected.
class HostileArgumentTest : public RemoteCardTest {
  protected:
    void SetUp() override {
        redirectDatabaseCalls();
        connectCard();
        serveAnswers(daemon, databaseCalls());
        closeHostsCache(host);
        daemon.clearRecords();
    }

    /// Both sides still serve.
    void TearDown() override {
        for (const ExportedCall& call : databaseCalls()) {
            const SCARDCONTEXT of = call.takes == Takes::kUpdateContext ? 0 : context;
            EXPECT_THAT(call.make({of}), Gives(SCARD_S_SUCCESS)) << call.name;
        }
        EXPECT_THAT(listReaders(context),
                    testing::UnorderedElementsAre(kHostReader, kRemoteReader));
        EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    }

    /// Neither the daemon nor the host nor the system's memory should have to take such a length.
    static constexpr DWORD kAbsurd = 0xFFFFFFFF;

    UUID identifier_{};
    BYTE bytes_[8] = {0x3B, 0x02, 0x14, 0x50};
    DWORD length_ = 0;
    SCARDHANDLE connected_ = 0;
    char narrowName_[8] = "a name";
    wchar_t wideName_[8] = L"a name";
};

TEST_F(HostileArgumentTest, NullPointersToListsOfReadersAndGroups) {
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListReadersW(context, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListReaderGroupsA(context, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListReaderGroupsW(context, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToConnect) {
    EXPECT_THAT(SCardConnectA(context, nullptr, 0, 0, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(
        SCardConnectW(context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, nullptr, nullptr),
        Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardConnectA(context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &connected_,
                              &length_),
                Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &connected_, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardConnectW(context, L"Remote Reader 0", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &connected_, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToACardsCalls) {
    EXPECT_THAT(SCardTransmit(card.handle, nullptr, nullptr, 0, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardStatusW(card.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardGetAttrib(card.handle, SCARD_ATTR_ATR_STRING, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardSetAttrib(card.handle, SCARD_ATTR_ATR_STRING, nullptr, 5),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetTransmitCount(card.handle, nullptr), Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersAndAnAbsurdCountToStatusChange) {
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    SCARD_READERSTATEA state = {};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
    SCARD_READERSTATEW wide = {};
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, &wide, 1), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, &wide, kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, AbsurdLengthsOfWhatACardIsSent) {
    const GuardedBuffer sent(5);
    const GuardedBuffer received(5);
    length_ = 5;
    EXPECT_THAT(SCardTransmit(card.handle, SCARD_PCI_T1, sent.data(), kAbsurd, nullptr,
                              received.data(), &length_),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardSetAttrib(card.handle, SCARD_ATTR_ATR_STRING, sent.data(), kAbsurd),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardControl(card.handle, SCARD_CTL_CODE(kControlEcho), sent.data(), kAbsurd,
                             received.data(), kAbsurd, &length_),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_TRUE(sent.untouched());
    EXPECT_TRUE(received.untouched());
}

TEST_F(HostileArgumentTest, NullPointersToAListOfCards) {
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 0, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListCardsW(context, nullptr, nullptr, 0, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    // Interfaces are announced that are not there.
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 3, nullptr, &length_),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardListCardsW(context, nullptr, nullptr, 3, nullptr, &length_),
                Gives(SCARD_S_SUCCESS));
}

TEST_F(HostileArgumentTest, NullPointersToADeviceType) {
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, kRemoteReader, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, L"Remote Reader 0", nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToAProviderName) {
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, nullptr, 1, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, nullptr, 1, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, "a card", 1, nullptr, nullptr),
                Gives(SCARD_E_UNKNOWN_CARD));  // the host's answer
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, L"a card", 1, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToACacheRead) {
    EXPECT_THAT(SCardReadCacheA(context, nullptr, 0, narrowName_, bytes_, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheW(context, nullptr, 0, wideName_, bytes_, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheA(context, &identifier_, 0, nullptr, bytes_, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheW(context, &identifier_, 0, nullptr, bytes_, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheA(context, &identifier_, 0, narrowName_, bytes_, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheW(context, &identifier_, 0, wideName_, bytes_, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToACacheWrite) {
    EXPECT_THAT(SCardWriteCacheA(context, nullptr, 0, narrowName_, bytes_, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, nullptr, 0, wideName_, bytes_, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(context, &identifier_, 0, nullptr, bytes_, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, &identifier_, 0, nullptr, bytes_, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(context, &identifier_, 0, narrowName_, nullptr, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, &identifier_, 0, wideName_, nullptr, 4),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToAnIcon) {
    EXPECT_THAT(SCardGetReaderIconA(context, kRemoteReader, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetReaderIconW(context, L"Remote Reader 0", nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetReaderIconW(context, nullptr, nullptr, &length_),
                Gives(SCARD_E_UNKNOWN_READER));
    // Without a name the daemon chooses.
    EXPECT_THAT(SCardGetReaderIconA(context, nullptr, nullptr, &length_), Gives(SCARD_S_SUCCESS));
}

TEST_F(HostileArgumentTest, NullPointersToUpdates) {
    // With all calls redirected a known context is refused, whatever else is passed.
    for (const SCARDCONTEXT none : {context, SCARDCONTEXT{0}}) {
        const LONG result = none == 0 ? SCARD_E_INVALID_PARAMETER : SCARD_E_INVALID_HANDLE;
        EXPECT_THAT(
            SCardIntroduceCardTypeA(none, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0),
            Gives(result));
        EXPECT_THAT(
            SCardIntroduceCardTypeW(none, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0),
            Gives(result));
        EXPECT_THAT(SCardSetCardTypeProviderNameA(none, nullptr, 1, nullptr), Gives(result));
        EXPECT_THAT(SCardSetCardTypeProviderNameW(none, nullptr, 1, nullptr), Gives(result));
        EXPECT_THAT(SCardForgetCardTypeA(none, nullptr), Gives(SCARD_E_INVALID_HANDLE));
        EXPECT_THAT(SCardForgetCardTypeW(none, nullptr), Gives(SCARD_E_INVALID_HANDLE));
    }
    // An ATR and interfaces that are announced, but not there.
    EXPECT_THAT(SCardIntroduceCardTypeA(0, "a card", nullptr, nullptr, 2, nullptr, bytes_, 33),
                Gives(SCARD_S_SUCCESS));
}

TEST_F(HostileArgumentTest, AnAbsurdCountOfInterfaces) {
    for (const DWORD count : {kAbsurd, DWORD{kAbsurd / sizeof(GUID)}}) {
        SCOPED_TRACE(count);
        // No memory must be taken for what can never be sent.
        HeapSpy heap;
        heap.refuse(std::size_t{count} * sizeof(GUID) + 1);
        EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, count, nullptr, &length_),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardListCardsW(context, nullptr, nullptr, count, nullptr, &length_),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardIntroduceCardTypeA(0, "a card", nullptr, GuardedBuffer(0).as<GUID>(),
                                            count, nullptr, nullptr, 0),
                    Gives(SCARD_E_INVALID_PARAMETER));
        EXPECT_FALSE(heap.stopRefusing());
    }
    EXPECT_THAT(daemon.requests(Command::kListCards), IsEmpty());
}

TEST_F(HostileArgumentTest, AnAbsurdLengthOfAnAtr) {
    const GuardedBuffer atr(4);
    for (const DWORD length : {DWORD{34}, kAbsurd}) {
        EXPECT_THAT(SCardIntroduceCardTypeA(0, "a card", nullptr, nullptr, 0, atr.data(),
                                            atr.data(), length),
                    Gives(SCARD_E_INVALID_PARAMETER));
    }
}

TEST_F(HostileArgumentTest, AnAbsurdLengthOfDataForTheCache) {
    const GuardedBuffer data(5);
    EXPECT_THAT(SCardWriteCacheA(context, &identifier_, 0, narrowName_, data.data(), kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, &identifier_, 0, wideName_, data.data(), kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(HostileArgumentTest, NamesLongerThanAnyRecordHolds) {
    const std::string name(100'000, 'n');
    const std::wstring wide(100'000, L'n');
    EXPECT_THAT(SCardConnectA(context, name.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &connected_, &length_),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, name.c_str(), &length_),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, wide.c_str(), &length_),
                Gives(SCARD_E_INVALID_VALUE));
    // What the daemon's record cannot hold the host may know.
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, name.c_str(), 1, nullptr, &length_),
                Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, wide.c_str(), 1, nullptr, &length_),
                Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_THAT(SCardIntroduceCardTypeA(0, name.c_str(), nullptr, nullptr, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardForgetCardTypeA(0, name.c_str()), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    // These have no field of a fixed length, and go out whole.
    EXPECT_THAT(SCardGetReaderIconA(context, name.c_str(), nullptr, &length_),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        SCardReadCacheA(context, &identifier_, 0, std::string(name).data(), nullptr, &length_),
        Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(daemon.requests(Command::kReadCache).back().body.size(), 36U + name.size() + 1);
}

}  // namespace
}  // namespace tez::test
