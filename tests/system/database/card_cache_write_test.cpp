// SCardWriteCacheA: the host's cache first, the daemon's where the host does not take the item.
#include "card_cache_test.h"
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
using testing::Not;
using testing::Return;
using testing::StrEq;

constexpr const char* kWriteCache = "SCardWriteCacheA";
constexpr const char* kWriteFallback =
    "local call failed with 0x80100072, falling back to remote call";

class CardCacheWriteTest : public CardCacheTest {
  protected:
    /// A host that takes no item, and a daemon that takes each.
    void establishForTheDaemon(ProtocolVersion version = {}) {
        establishContext(version);
        letTheHostRefuse();
        daemon.on(Command::kWriteCache, renamingCardOnly());
    }

    void letTheHostRefuse() {
        ON_CALL(host, SCardWriteCacheA).WillByDefault(Return(SCARD_W_CACHE_ITEM_TOO_BIG));
    }

    /// The answer to a write is the record alone.
    static DaemonSimulator::Handler renamingCardOnly(std::uint32_t rv = 0) {
        return renamingCard({}, rv);
    }

    LONG write(Bytes data) {
        return SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(), data.data(),
                                static_cast<DWORD>(data.size()));
    }
};

TEST_F(CardCacheWriteTest, SendsTheDataFirstAndTheNameBehindIt) {
    establishForTheDaemon();
    EXPECT_THAT(write({0xCA, 0xFE, 0x00, 0x01}), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kWriteCache),
                ElementsAre(IsRequest(
                    Command::kWriteCache,
                    cacheRecord(4).append({0xCA, 0xFE, 0x00, 0x01}).append(wireText(kCacheItem)))));
    EXPECT_EQ(identifier, kRenamedCard);
}

TEST_F(CardCacheWriteTest, SendsTheHeaderAndTheRestInOnePieceEach) {
    connectCard();
    letTheHostRefuse();
    daemon.on(Command::kWriteCache, renamingCardOnly());
    std::vector<DWORD> sizes;
    const FailingWrites spy([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    EXPECT_THAT(write(sampleBytes(100)), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12U, 36U + 100U + item.size() + 1));
}

TEST_F(CardCacheWriteTest, SendsDataAndNamesOfAnyLength) {
    establishForTheDaemon();
    const std::pair<std::size_t, std::string> given[] = {
        {1, ""}, {100000, "Schl\u00FCssel \u9375 \U0001F511"}, {7, std::string(100000, 'n')}};
    for (const auto& [size, name] : given) {
        daemon.clearRecords();
        identifier = kCacheCard;
        item = name;
        EXPECT_THAT(write(sampleBytes(size)), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(
            daemon.requests(Command::kWriteCache),
            ElementsAre(IsRequest(Command::kWriteCache, cacheRecord(static_cast<DWORD>(size))
                                                            .append(sampleBytes(size))
                                                            .append(wireText(name)))));
    }
}

TEST_F(CardCacheWriteTest, ReadsNoMoreThanTheCallersData) {
    establishForTheDaemon();
    const GuardedBuffer data(33);
    EXPECT_THAT(
        SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(), data.data(), 33),
        Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(data.untouched());
}

TEST_F(CardCacheWriteTest, ThatTheHostTakesNeverReachesTheDaemon) {
    establishContext();
    Bytes data = {1, 2, 3};
    EXPECT_CALL(host, SCardWriteCacheA(kHostContext, &identifier, kCacheFreshness,
                                       StrEq(kCacheItem), data.data(), 3));
    EXPECT_THAT(
        SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(), data.data(), 3),
        Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kWriteCache),
                ElementsAre("WRITE_CACHE IN-PARAMS: 1, " + logged(&identifier) + ", 16909060, " +
                                logged(item.data()) + ", " + logged(data.data()) + ", 3",
                            "WRITE_CACHE RV: 0x00000000"));
}

TEST_F(CardCacheWriteTest, IsTheHostsAffairAloneWithoutADaemon) {
    context = establish();
    letTheHostRefuse();
    EXPECT_THAT(write({1, 2, 3}), Gives(SCARD_W_CACHE_ITEM_TOO_BIG));
    EXPECT_THAT(log().messages(kWriteCache), ElementsAre(_, "WRITE_CACHE RV: 0x80100072"));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_F(CardCacheWriteTest, LeavesAnEmptyItemToTheHost) {
    context = establish();
    EXPECT_THAT(write({}), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardCacheWriteTest, LogsWhatItWrites) {
    establishForTheDaemon();
    Bytes data = {0x0A, 0xFF, 0x00};
    EXPECT_THAT(
        SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(), data.data(), 3),
        Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kWriteCache),
                ElementsAre("WRITE_CACHE IN-PARAMS: 1, " + logged(&identifier) + ", 16909060, " +
                                logged(item.data()) + ", " + logged(data.data()) + ", 3",
                            kWriteFallback, "    LookupName is Cached_GeneralFile/cp",
                            "    Data 0aff00", "    dataLen 3", "WRITE_CACHE RV: 0x00000000"));
    EXPECT_THAT(log().messages(kWriteCache, 'D'), testing::SizeIs(6));
}

TEST_F(CardCacheWriteTest, OfADataLengthOfZeroFailsOnTheDaemonsSideAfterLoggingIt) {
    establishForTheDaemon();
    BYTE data[1] = {};
    EXPECT_THAT(SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(), data, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages(kWriteCache, 'D'),
                ElementsAre(_, kWriteFallback, "    LookupName is Cached_GeneralFile/cp",
                            "    Data ", "No data to write", "WRITE_CACHE RV: 0x80100004"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCacheWriteTest, JudgesItsArgumentsInOrderBeforeTheContext) {
    establishContext();
    EXPECT_CALL(host, SCardWriteCacheA).Times(0);
    constexpr SCARDCONTEXT stranger = 4711;
    BYTE data[1] = {0x7F};
    EXPECT_THAT(SCardWriteCacheA(stranger, nullptr, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(stranger, &identifier, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(stranger, &identifier, 0, item.data(), nullptr, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(stranger, &identifier, 0, item.data(), data, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheA(stranger, &identifier, 0, item.data(), data, 1),
                Gives(SCARD_E_INVALID_HANDLE));
    const std::string named = "    LookupName is Cached_GeneralFile/cp";
    EXPECT_THAT(log().messages(kWriteCache),
                ElementsAre(_, _, "cardIdentifier cannot be NULL", "WRITE_CACHE RV: 0x80100004",  //
                            _, _, "LookupName cannot be NULL", "WRITE_CACHE RV: 0x80100004",      //
                            _, _, named, "data cannot be NULL", "WRITE_CACHE RV: 0x80100004",     //
                            _, _, named, "    Data ", "No data to write",                         //
                            "WRITE_CACHE RV: 0x80100004",                                         //
                            _, _, named, "    Data 7f", "    dataLen 1", "Invalid context handle",
                            "WRITE_CACHE RV: 0x80100003"));
    EXPECT_THAT(log().messages(kWriteCache, 'W'), ElementsAre("Invalid context handle"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCacheWriteTest, IsForContextsOfTheLibrarysOwnWithoutADaemonToo) {
    context = establish();
    EXPECT_CALL(host, SCardWriteCacheA).Times(0);
    context = kHostContext;
    EXPECT_THAT(write({1}), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(CardCacheWriteTest, NeedsADaemonOfVersionOneTwo) {
    establishForTheDaemon({1, 1});
    EXPECT_THAT(write({1}), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(
        log().messages(kWriteCache, 'D'),
        Contains("SCardWriteCacheA is not compatible with the current negotiated protocol"));
    EXPECT_THAT(daemon.requests(Command::kWriteCache), IsEmpty());
    EXPECT_EQ(identifier, kCacheCard);
}

TEST_F(CardCacheWriteTest, GoesToADaemonOfVersionOneTwo) {
    establishForTheDaemon({1, 2});
    EXPECT_THAT(write({1}), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardCacheWriteTest, ReturnsTheDaemonsResultUnchangedAndLeavesTheIdentifier) {
    establishForTheDaemon();
    daemon.on(Command::kWriteCache, renamingCardOnly(0x12345678));
    EXPECT_THAT(write({1}), Gives(0x12345678));
    EXPECT_EQ(identifier, kCacheCard);
}

TEST_F(CardCacheWriteTest, HasNoDataBehindItsAnswerWhateverLengthThatNames) {
    establishForTheDaemon();
    daemon.on(Command::kWriteCache, answering(kRecordSize, {{28, 0xFFFFFFFF}}));
    EXPECT_THAT(write({1}), Gives(SCARD_S_SUCCESS));
    const std::size_t opens = transport().opens();
    EXPECT_THAT(write({2}), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(transport().opens(), opens) << "the connection is given back in order";
}

TEST_F(CardCacheWriteTest, ReturnsWhyTheDaemonGivesNoContext) {
    establishForTheDaemon();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    EXPECT_THAT(write({1}), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(Command::kWriteCache), IsEmpty());
}

TEST_F(CardCacheWriteTest, WarnsWhenTheDaemonHangsUpInsteadOfAnsweringOrInTheMiddle) {
    establishForTheDaemon();
    daemon.on(Command::kWriteCache, closing());
    EXPECT_THAT(write({1}), Gives(SCARD_E_NO_SERVICE));
    daemon.on(Command::kWriteCache, answeringAndClosing(kRecordSize - 1, {{8, 1}}));
    EXPECT_THAT(write({1}), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(identifier, kCacheCard);
    EXPECT_THAT(log().messages(kWriteCache, 'W'),
                ElementsAre("Failed to receive data", "Failed to receive data"));
    daemon.on(Command::kWriteCache, renamingCardOnly());
    EXPECT_THAT(write({1}), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardCacheWriteTest, WarnsWhenTheRequestCannotBeSent) {
    connectCard();
    letTheHostRefuse();
    {
        const FailingWrites broken([](DWORD size) { return size != 12; });
        EXPECT_THAT(write({1}), Gives(SCARD_E_NO_SERVICE));
    }
    EXPECT_THAT(log().messages(kWriteCache, 'W'), ElementsAre("Failed to send header"));
    EXPECT_EQ(identifier, kCacheCard);
}

TEST_F(CardCacheWriteTest, WithoutMemoryForTheRequestSendsNothing) {
    establishForTheDaemon();
    ASSERT_THAT(write({1}), Gives(SCARD_S_SUCCESS));
    daemon.clearRecords();
    const Bytes data = sampleBytes(54321);
    HeapSpy heap;
    heap.refuse(54322);  // a text of the data's size
    EXPECT_THAT(write(data), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kWriteCache, 'D'), Contains("WRITE_CACHE RV: 0x80100006"));
    EXPECT_THAT(log().messages(kWriteCache, 'W'), Not(Contains(_)));
}

}  // namespace
}  // namespace tez::test
