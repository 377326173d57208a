// SCardReadCacheA: what goes over the pipe, what is judged in which order, and what is logged.
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
using testing::StrEq;

constexpr const char* kReadCache = "SCardReadCacheA";
constexpr const char* kReadFallback =
    "local call failed with 0x80100070, falling back to remote call";

class CardCacheReadTest : public CardCacheTest {
  protected:
    LONG read(PBYTE data) {
        return SCardReadCacheA(context, &identifier, kCacheFreshness, item.data(), data, &length);
    }

    /// The first line of a call.
    static std::string inLine(const void* cardAddress, const void* name, const void* data,
                              const void* dataLength) {
        return "READ_CACHE IN-PARAMS: 1, " + logged(cardAddress) + ", 16909060, " + logged(name) +
               ", " + logged(data) + ", " + logged(dataLength);
    }

    /// Puts the item into the host's cache.
    void storeOnTheHost(Bytes data) {
        ASSERT_THAT(SCardWriteCacheA(context, &identifier, kCacheFreshness, item.data(),
                                     data.data(), static_cast<DWORD>(data.size())),
                    Gives(SCARD_S_SUCCESS));
    }

    DWORD length = 0;
};

TEST_F(CardCacheReadTest, SendsTheRecordAndBehindItTheName) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard(sampleBytes(3)));
    length = 4711;
    EXPECT_THAT(read(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(Command::kReadCache),
        ElementsAre(IsRequest(Command::kReadCache, cacheRecord(0).append(wireText(kCacheItem)))));
}

TEST_F(CardCacheReadTest, SendsTheHeaderAndTheRestInOnePieceEach) {
    connectCard();
    daemon.on(Command::kReadCache, renamingCard(sampleBytes(3)));
    std::vector<DWORD> sizes;
    const FailingWrites spy([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    EXPECT_THAT(read(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12U, 36U + item.size() + 1));
}

TEST_F(CardCacheReadTest, SendsNamesOfAnyLengthAsTheyAre) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard(sampleBytes(3)));
    for (const std::string& name : {std::string(), std::string("Schl\u00FCssel \u9375 \U0001F511"),
                                    std::string(100000, 'n')}) {
        daemon.clearRecords();
        identifier = kCacheCard;
        item = name;
        EXPECT_THAT(read(nullptr), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(
            daemon.requests(Command::kReadCache),
            ElementsAre(IsRequest(Command::kReadCache, cacheRecord(0).append(wireText(name)))));
    }
}

TEST_F(CardCacheReadTest, OfAnItemOnTheHostNeverReachesTheDaemon) {
    establishContext();
    const Bytes data = {0xDE, 0xAD, 0x01};
    storeOnTheHost(data);
    const GuardedBuffer buffer(3);
    length = 3;
    EXPECT_CALL(host, SCardReadCacheA(kHostContext, &identifier, kCacheFreshness, StrEq(kCacheItem),
                                      buffer.data(), &length));
    EXPECT_THAT(read(buffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(Bytes(buffer.data(), buffer.data() + length), data);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kReadCache, 'D'),
                ElementsAre(inLine(&identifier, item.data(), buffer.data(), &length),
                            "READ_CACHE OUT-PARAMS: dataLen 3", "    Data dead01",
                            "READ_CACHE RV: 0x00000000"));
}

TEST_F(CardCacheReadTest, OfAnItemOnTheHostMovesAnAllocatedBlock) {
    establishContext();
    storeOnTheHost({0xDE, 0xAD, 0x01});
    PBYTE block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(read(reinterpret_cast<PBYTE>(&block)), Gives(SCARD_S_SUCCESS));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Bytes(block, block + length), (Bytes{0xDE, 0xAD, 0x01}));
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_THAT(log().messages(kReadCache, 'D'), Contains("    Data dead01"));
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardCacheReadTest, FallsBackFromAnItemThatIsStaleOnTheHost) {
    establishContext();
    storeOnTheHost({0xDE, 0xAD, 0x01});
    daemon.on(Command::kReadCache, renamingCard({0xBE, 0xEF}));
    const GuardedBuffer buffer(2);
    length = 2;
    EXPECT_THAT(SCardReadCacheA(context, &identifier, kCacheFreshness + 1, item.data(),
                                buffer.data(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(Bytes(buffer.data(), buffer.data() + 2), (Bytes{0xBE, 0xEF}));
    EXPECT_THAT(log().messages(kReadCache, 'D'),
                Contains("local call failed with 0x80100071, falling back to remote call"));
}

TEST_F(CardCacheReadTest, LogsWhatItAskedAndWhatItGot) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({0x0A, 0xFF, 0x00}));
    const GuardedBuffer buffer(20);
    length = 20;
    EXPECT_THAT(read(buffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kReadCache),
                ElementsAre(inLine(&identifier, item.data(), buffer.data(), &length), kReadFallback,
                            "    lookupName is Cached_GeneralFile/cp", "    dataLen is 20",
                            "READ_CACHE OUT-PARAMS: dataLen 3", "    Data 0aff00",
                            "READ_CACHE RV: 0x00000000"));
    EXPECT_THAT(log().messages(kReadCache, 'D'), testing::SizeIs(7));
}

TEST_F(CardCacheReadTest, LogsNoDataWhenOnlyTheLengthWasAskedFor) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({0x0A, 0xFF, 0x00}));
    for (const DWORD given : {DWORD{0}, DWORD{SCARD_AUTOALLOCATE}}) {
        length = given;
        EXPECT_THAT(read(nullptr), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_THAT(log().messages(kReadCache, 'D'),
                ElementsAre(_, _, _, "    dataLen is 0", "READ_CACHE OUT-PARAMS: dataLen 3",
                            "READ_CACHE RV: 0x00000000", _, _, _, "    dataLen is 4294967295",
                            "READ_CACHE OUT-PARAMS: dataLen 3", "READ_CACHE RV: 0x00000000"));
}

TEST_F(CardCacheReadTest, LogsNoDataThatThereWasNoMemoryFor) {
    establishContext();
    daemon.on(Command::kReadCache, answering(kRecordSize, {{8, 0}, {28, 0xFFFFFFFF}}));
    const GuardedBuffer buffer(5);
    length = 5;
    EXPECT_THAT(read(buffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kReadCache, 'D'),
                ElementsAre(_, _, _, "    dataLen is 5",
                            testing::MatchesRegex("Error while allocating data: \\d+"),
                            "READ_CACHE OUT-PARAMS: dataLen 5", "READ_CACHE RV: 0x00000000"));
    EXPECT_EQ(identifier, kCacheCard);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(CardCacheReadTest, WithTheLengthAutoAllocateGivesANewBlockAndTheAnswersCardIdentifier) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({0x0A, 0xFF, 0x00}));
    PBYTE block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(read(reinterpret_cast<PBYTE>(&block)), Gives(SCARD_S_SUCCESS));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Bytes(block, block + length), (Bytes{0x0A, 0xFF, 0x00}));
    EXPECT_EQ(identifier, kRenamedCard);
    EXPECT_THAT(log().messages(kReadCache, 'D'), Contains("    Data 0aff00"));
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
}

TEST_F(CardCacheReadTest, GivesTheAnswersCardIdentifierToACallerWithoutEnoughRoom) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({0x0A, 0xFF, 0x00}));
    const GuardedBuffer buffer(2);
    length = 2;
    EXPECT_THAT(read(buffer.data()), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 3U);
    EXPECT_EQ(identifier, kRenamedCard);
    EXPECT_THAT(log().messages(kReadCache, 'D'),
                testing::Not(Contains(testing::HasSubstr("OUT-PARAMS"))));
}

TEST_F(CardCacheReadTest, GivesTheAnswersCardIdentifierWithoutDataOrMemoryForTheCallersBlock) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({}));
    EXPECT_THAT(read(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(identifier, kRenamedCard);

    identifier = kCacheCard;
    daemon.on(Command::kReadCache, renamingCard(sampleBytes(12345)));
    HeapSpy heap;
    heap.refuse(12345);
    PBYTE block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(read(reinterpret_cast<PBYTE>(&block)), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(identifier, kRenamedCard);
}

TEST_F(CardCacheReadTest, LeavesTheCallersCardIdentifierWhenTheDaemonFailsOrLeavesOff) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({}, 0x80100070));
    EXPECT_THAT(read(nullptr), Gives(SCARD_W_CACHE_ITEM_NOT_FOUND));
    EXPECT_EQ(identifier, kCacheCard);
    daemon.on(Command::kReadCache, answeringAndClosing(kRecordSize, {{8, 1}, {28, 4}}, {1, 2, 3}));
    EXPECT_THAT(read(nullptr), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(identifier, kCacheCard);
}

TEST_F(CardCacheReadTest, JudgesItsArgumentsInOrderBeforeTheContext) {
    establishContext();
    EXPECT_CALL(host, SCardReadCacheA).Times(0);
    constexpr SCARDCONTEXT stranger = 4711;
    EXPECT_THAT(SCardReadCacheA(stranger, nullptr, 0, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheA(stranger, &identifier, 0, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheA(stranger, &identifier, 0, item.data(), nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardReadCacheA(stranger, &identifier, 0, item.data(), nullptr, &length),
                Gives(SCARD_E_INVALID_HANDLE));
    const std::string named = "    lookupName is Cached_GeneralFile/cp";
    EXPECT_THAT(log().messages(kReadCache),
                ElementsAre(_, _, "cardIdentifier cannot be NULL", "READ_CACHE RV: 0x80100004",  //
                            _, _, "LookupName cannot be NULL", "READ_CACHE RV: 0x80100004",      //
                            _, _, named, "dataLen cannot be NULL", "READ_CACHE RV: 0x80100004",  //
                            _, _, named, "    dataLen is 0", "Invalid context handle",
                            "READ_CACHE RV: 0x80100003"));
    EXPECT_THAT(log().messages(kReadCache, 'W'), ElementsAre("Invalid context handle"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(CardCacheReadTest, LeavesMissingArgumentsToTheHostWithoutADaemon) {
    context = establish();
    EXPECT_CALL(host, SCardReadCacheA(kHostContext, nullptr, 7, nullptr, nullptr, nullptr))
        .WillOnce(testing::Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardReadCacheA(context, nullptr, 7, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(
        log().messages(kReadCache),
        ElementsAre(testing::StartsWith("READ_CACHE IN-PARAMS: "), "READ_CACHE RV: 0x80100011"));
}

}  // namespace
}  // namespace tez::test
