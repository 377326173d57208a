// The card cache and the reader icon in the state in which every call goes to the daemon, and on a
// host that has no system library.
#include <string>

#include "guarded_buffer.h"
#include "import_patch.h"
#include "remote_only_test.h"

using namespace tez;
using test::Bytes;
using test::CacheLayout;
using test::Command;
using test::GuardedBuffer;
using test::IsSent;
using test::ListLayout;
using test::RecordBytes;
using test::terminated;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr UUID kAskedCard = {0x01010101, 0x0202, 0x0303, {4, 4, 4, 4, 4, 4, 4, 4}};
constexpr UUID kAnsweredCard = {0x05050505, 0x0606, 0x0707, {8, 8, 8, 8, 8, 8, 8, 8}};

RecordBytes cacheBytes(std::uint64_t context, const UUID& card, std::uint32_t length,
                       std::uint32_t rv = 0) {
    return RecordBytes(CacheLayout::kSize)
        .u64(CacheLayout::kContext, context)
        .raw(CacheLayout::kCard, test::bytesOf(card))
        .u32(CacheLayout::kFreshness, 7)
        .u32(CacheLayout::kLength, length)
        .u32(CacheLayout::kResult, rv);
}

RecordBytes iconBytes(std::uint64_t context, std::uint32_t length, std::uint32_t rv = 0) {
    return RecordBytes(ListLayout::kSize)
        .u64(ListLayout::kContext, context)
        .u32(ListLayout::kLength, length)
        .u32(ListLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyCache : public test::RemoteOnlyTest {
  protected:
    LONG read(SCARDCONTEXT context, PBYTE data) {
        return SCardReadCacheA(context, &card, 7, name.data(), data, &length);
    }
    LONG write(SCARDCONTEXT context, PBYTE data, DWORD size) {
        return SCardWriteCacheA(context, &card, 7, name.data(), data, size);
    }

    UUID card = kAskedCard;
    std::string name = "item";
    DWORD length = 0;
};

TEST_F(RemoteOnlyCache, ReadsAtTheDaemonWithoutTheSystemLibraryWhateverTheVersion) {
    const SCARDCONTEXT context = boundContext();
    daemon().versionMinor = 0;
    daemon().answers = {cacheBytes(kDaemonContext, kAnsweredCard, 3), {1, 2, 3}};
    const GuardedBuffer data(3);
    length = 3;
    EXPECT_EQ(read(context, data.data()), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kReadCache,
                       cacheBytes(kDaemonContext, kAskedCard, 0).append(terminated("item"))));
    EXPECT_EQ(test::copyBytes(data.data(), 3), (Bytes{1, 2, 3}));
    EXPECT_EQ(card, kAnsweredCard);
    EXPECT_THAT(log().text(), Not(HasSubstr("falling back")));
}

TEST_F(RemoteOnlyCache, WritesAtTheDaemonWithoutTheSystemLibraryWhateverTheVersion) {
    const SCARDCONTEXT context = boundContext();
    daemon().versionMinor = 0;
    daemon().answers = {cacheBytes(kDaemonContext, kAnsweredCard, 2)};
    BYTE data[] = {9, 8};
    EXPECT_EQ(write(context, data, 2), SCARD_S_SUCCESS);
    EXPECT_THAT(
        takeRequest(),
        IsSent(
            Command::kWriteCache,
            cacheBytes(kDaemonContext, kAskedCard, 2).append({9, 8}).append(terminated("item"))));
    EXPECT_EQ(card, kAnsweredCard);
}

TEST_F(RemoteOnlyCache, GetsIconsAtTheDaemonWithoutTheSystemLibraryWhateverTheVersion) {
    const SCARDCONTEXT context = boundContext();
    daemon().versionMinor = 0;
    daemon().answers = {iconBytes(kDaemonContext, 3), {1, 2, 3}};
    const GuardedBuffer icon(3);
    length = 3;
    EXPECT_EQ(SCardGetReaderIconA(context, "Reader A", icon.data(), &length), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kGetReaderIcon,
                                      iconBytes(kDaemonContext, 0).append(terminated("Reader A"))));
    EXPECT_EQ(test::copyBytes(icon.data(), 3), (Bytes{1, 2, 3}));
}

TEST_F(RemoteOnlyCache, ReturnsTheDaemonsFailures) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {cacheBytes(0, kAnsweredCard, 9, 0x80100070),
                        cacheBytes(0, kAnsweredCard, 9, 0x80100072), iconBytes(0, 9, 0x80100009)};
    BYTE data[] = {9, 8};
    length = 2;
    EXPECT_EQ(read(context, data), SCARD_W_CACHE_ITEM_NOT_FOUND);
    EXPECT_EQ(write(context, data, 2), SCARD_W_CACHE_ITEM_TOO_BIG);
    EXPECT_EQ(SCardGetReaderIconA(context, "Reader A", data, &length), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(length, 2U);
    EXPECT_EQ(card, kAskedCard);
}

TEST_F(RemoteOnlyCache, JudgesArgumentsAndContexts) {
    const SCARDCONTEXT context = boundContext();
    BYTE data[] = {9};
    EXPECT_EQ(SCardReadCacheA(context, nullptr, 7, name.data(), nullptr, &length),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(write(context, data, 0), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardGetReaderIconA(context, "Reader A", data, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(read(context + 1, nullptr), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(write(context + 1, data, 1), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardGetReaderIconA(context + 1, "Reader A", data, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST(CacheWithoutSystemLibrary, IsAnInternalError) {
    const test::ImportPatch<decltype(::LoadLibraryA)> load(
        GetModuleHandleA(nullptr), "KERNEL32.dll", "LoadLibraryA",
        [](LPCSTR) -> HMODULE { return nullptr; });
    const SCARDCONTEXT context = registerContext(0x7A, SCARD_SCOPE_SYSTEM);
    UUID card = kAskedCard;
    char name[] = "item";
    BYTE data[] = {9};
    DWORD length = 1;
    EXPECT_EQ(SCardReadCacheA(context, &card, 7, name, data, &length), SCARD_F_INTERNAL_ERROR);
    EXPECT_EQ(SCardWriteCacheA(context, &card, 7, name, data, 1), SCARD_F_INTERNAL_ERROR);
    EXPECT_EQ(SCardGetReaderIconA(context, "Reader A", data, &length), SCARD_F_INTERNAL_ERROR);
    EXPECT_EQ(length, 1U);
}
