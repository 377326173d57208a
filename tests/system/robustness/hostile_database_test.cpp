// Applications that pass nonsense to the calls on the card database, the cache, the icon and the
// device type, and to the wide forms of the others.
#include "database_calls.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "strange_handles.h"

namespace tez::test {
namespace {

using testing::IsEmpty;

/// A call with arguments that are in order apart from the handle.
struct DatabaseHandleCall {
    std::string name;
    std::function<LONG(std::uint64_t handle)> make;
    LONG redirectedResult = SCARD_E_INVALID_HANDLE;  ///< with all calls redirected
};

void PrintTo(const DatabaseHandleCall& call, std::ostream* stream) {
    *stream << call.name;
}

std::vector<DatabaseHandleCall> databaseHandleCalls() {
    std::vector<DatabaseHandleCall> calls = {
        {"ConnectW",
         [](std::uint64_t handle) {
             SCARDHANDLE card = 0;
             DWORD protocol = 0;
             return SCardConnectW(handle, L"Host Reader 0", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                  &card, &protocol);
         }},
        {"ListReadersW",
         [](std::uint64_t handle) {
             DWORD length = 0;
             return SCardListReadersW(handle, nullptr, nullptr, &length);
         }},
        {"ListReaderGroupsW",
         [](std::uint64_t handle) {
             DWORD length = 0;
             return SCardListReaderGroupsW(handle, nullptr, &length);
         }},
        {"GetStatusChangeW",
         [](std::uint64_t handle) {
             SCARD_READERSTATEW state = {};
             state.szReader = L"Host Reader 0";
             return SCardGetStatusChangeW(handle, 0, &state, 1);
         }},
        {"StatusW",
         [](std::uint64_t handle) {
             return SCardStatusW(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
         }},
    };
    for (const DatabaseQuery& query : databaseQueries()) {
        calls.push_back({query.name,
                         [make = query.make](std::uint64_t handle) {
                             DWORD length = 0;
                             return make(handle, nullptr, &length);
                         },
                         query.command == Command::kGetCardTypeProviderName
                             ? SCARD_E_INVALID_PARAMETER
                             : SCARD_E_INVALID_HANDLE});
    }
    for (const DatabaseUpdate& update : databaseUpdates()) {
        calls.push_back({update.name, update.make});
    }
    return calls;
}

class HostileDatabaseHandleTest : public StrangeHandleTest,
                                  public testing::WithParamInterface<DatabaseHandleCall> {
  protected:
    static void expectRefused(LONG result = SCARD_E_INVALID_HANDLE) {
        for (const std::uint64_t handle : strangeHandles()) {
            SCOPED_TRACE(handle);
            EXPECT_THAT(GetParam().make(handle), Gives(result));
        }
    }

    void expectRefusedBesideADaemon(LONG result) {
        connectCard();
        expectRefused(result);
        EXPECT_THAT(daemon.requests(), IsEmpty());
        EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    }
};

TEST_P(HostileDatabaseHandleTest, IsRefusedWithoutADaemon) {
    context = establish();
    card = connect(context, kHostReader);
    expectRefused();
}

TEST_P(HostileDatabaseHandleTest, IsRefusedWithADaemonAndNotSentToIt) {
    expectRefusedBesideADaemon(SCARD_E_INVALID_HANDLE);
}

TEST_P(HostileDatabaseHandleTest, IsRefusedWithAllCallsRedirectedAndNotSentToTheDaemon) {
    redirectDatabaseCalls();
    expectRefusedBesideADaemon(GetParam().redirectedResult);
}

INSTANTIATE_TEST_SUITE_P(EveryCall, HostileDatabaseHandleTest,
                         testing::ValuesIn(databaseHandleCalls()), nameOfCall<DatabaseHandleCall>);

/// Makes the calls with both sides there and all calls redirected.
class HostileDatabaseTest : public RemoteCardTest {
  protected:
    void SetUp() override {
        redirectDatabaseCalls();
        connectCard();
        serveQueries(daemon, host);
        daemon.clearRecords();
    }

    /// Both sides still serve.
    void TearDown() override {
        for (const DatabaseQuery& query : databaseQueries()) {
            DWORD length = 0;
            EXPECT_THAT(query.make(context, nullptr, &length), Gives(SCARD_S_SUCCESS))
                << query.name;
        }
        EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    }

    /// Neither the daemon nor the host nor the system's memory should have to take such a length.
    static constexpr DWORD kAbsurd = 0xFFFFFFFF;

    UUID identifier_{};
    BYTE bytes_[8] = {0x3B, 0x02, 0x14, 0x50};
    DWORD length_ = 0;
    char narrowName_[8] = "a name";
    wchar_t wideName_[8] = L"a name";
};

TEST_F(HostileDatabaseTest, NullPointersToAListOfCards) {
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

TEST_F(HostileDatabaseTest, NullPointersToADeviceType) {
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, kRemoteReader, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, L"Remote Reader 0", nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileDatabaseTest, NullPointersToAProviderName) {
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, nullptr, 1, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, nullptr, 1, nullptr, &length_),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetCardTypeProviderNameA(context, "a card", 1, nullptr, nullptr),
                Gives(SCARD_E_UNKNOWN_CARD));  // the host's answer
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, L"a card", 1, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileDatabaseTest, NullPointersToACacheRead) {
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

TEST_F(HostileDatabaseTest, NullPointersToACacheWrite) {
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

TEST_F(HostileDatabaseTest, NullPointersToAnIcon) {
    EXPECT_THAT(SCardGetReaderIconA(context, kRemoteReader, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetReaderIconW(context, L"Remote Reader 0", nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetReaderIconW(context, nullptr, nullptr, &length_),
                Gives(SCARD_E_UNKNOWN_READER));
    // Without a name the daemon chooses.
    EXPECT_THAT(SCardGetReaderIconA(context, nullptr, nullptr, &length_), Gives(SCARD_S_SUCCESS));
}

TEST_F(HostileDatabaseTest, NullPointersToUpdates) {
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

TEST_F(HostileDatabaseTest, NullPointersToTheWideFormsOfTheOtherCalls) {
    SCARDHANDLE connected = 0;
    EXPECT_THAT(
        SCardConnectW(context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, nullptr, nullptr),
        Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardConnectW(context, L"Remote Reader 0", SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &connected, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListReadersW(context, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardListReaderGroupsW(context, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardStatusW(card.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    SCARD_READERSTATEW state = {};
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, &state, 1), Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(HostileDatabaseTest, AnAbsurdCountOfInterfaces) {
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

TEST_F(HostileDatabaseTest, AnAbsurdCountOfReaderStates) {
    SCARD_READERSTATEW state = {};
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, &state, kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileDatabaseTest, AnAbsurdLengthOfAnAtr) {
    const GuardedBuffer atr(4);
    for (const DWORD length : {DWORD{34}, kAbsurd}) {
        EXPECT_THAT(SCardIntroduceCardTypeA(0, "a card", nullptr, nullptr, 0, atr.data(),
                                            atr.data(), length),
                    Gives(SCARD_E_INVALID_PARAMETER));
    }
}

TEST_F(HostileDatabaseTest, AnAbsurdLengthOfDataForTheCache) {
    const GuardedBuffer data(5);
    EXPECT_THAT(SCardWriteCacheA(context, &identifier_, 0, narrowName_, data.data(), kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, &identifier_, 0, wideName_, data.data(), kAbsurd),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(HostileDatabaseTest, NamesLongerThanAnyRecordHolds) {
    const std::string name(100'000, 'n');
    const std::wstring wide(100'000, L'n');
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

class HostileBufferTest : public HostileDatabaseTest,
                          public testing::WithParamInterface<DatabaseQuery> {};

TEST_P(HostileBufferTest, IsNeverWrittenPastItsEnd) {
    const DatabaseQuery& query = GetParam();
    DWORD needed = 0;
    ASSERT_THAT(query.make(context, nullptr, &needed), Gives(SCARD_S_SUCCESS));
    ASSERT_GT(needed, 1U);
    for (const DWORD room : {DWORD{0}, DWORD{1}, needed - 1}) {
        SCOPED_TRACE(room);
        const GuardedBuffer buffer(room * query.unit);
        DWORD length = room;
        EXPECT_THAT(query.make(context, buffer.data(), &length),
                    Gives(SCARD_E_INSUFFICIENT_BUFFER));
        EXPECT_EQ(length, needed);
        EXPECT_TRUE(buffer.untouched());
    }
    const GuardedBuffer exact(needed * query.unit);
    DWORD length = needed;
    EXPECT_THAT(query.make(context, exact.data(), &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, needed);
    EXPECT_TRUE(exact.untouchedFrom(exact.size()));
    EXPECT_FALSE(exact.untouched());
}

INSTANTIATE_TEST_SUITE_P(EveryQuery, HostileBufferTest, testing::ValuesIn(queriesWithData()),
                         nameOfCall<DatabaseQuery>);

}  // namespace
}  // namespace tez::test
