// SCardReadCacheW, SCardWriteCacheW and SCardGetReaderIconW
#include "card_cache_test.h"
#include "core/reader_icon.h"
#include "heap_spy.h"
#include "wide_text.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StrEq;

class WideCacheTest : public CardCacheTest {
  protected:
    LONG read(std::wstring name, PBYTE data) {
        return SCardReadCacheW(context, &identifier, kCacheFreshness, name.data(), data, &length);
    }

    LONG write(std::wstring name, Bytes data) {
        return SCardWriteCacheW(context, &identifier, kCacheFreshness, name.data(), data.data(),
                                static_cast<DWORD>(data.size()));
    }

    std::wstring wideItem = L"item";
    DWORD length = 0;
};

TEST_F(WideCacheTest, ReadsFromTheHostUnderNamesInUtf8) {
    establishContext();
    const Bytes data = {0xDE, 0xAD, 0x01};
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        EXPECT_CALL(host, SCardWriteCacheA(kHostContext, &identifier, kCacheFreshness,
                                           StrEq(name.utf8), _, 3));
        EXPECT_THAT(write(name.wide, data), Gives(SCARD_S_SUCCESS));
        const GuardedBuffer buffer(3);
        length = 3;
        EXPECT_CALL(host, SCardReadCacheA(kHostContext, &identifier, kCacheFreshness,
                                          StrEq(name.utf8), buffer.data(), &length));
        EXPECT_THAT(read(name.wide, buffer.data()), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(buffer.data(), buffer.data() + 3), data);
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideCacheTest, ReadsFromTheDaemonUnderNamesInUtf8) {
    establishContext();
    daemon.on(Command::kReadCache, renamingCard({0xDE, 0xAD}));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        identifier = kCacheCard;
        const GuardedBuffer buffer(2);
        length = 2;
        EXPECT_THAT(read(name.wide, buffer.data()), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(buffer.data(), buffer.data() + 2), (Bytes{0xDE, 0xAD}));
        EXPECT_EQ(identifier, kRenamedCard);
        EXPECT_THAT(daemon.requests(Command::kReadCache),
                    ElementsAre(IsRequest(Command::kReadCache,
                                          cacheRecord(0).append(wireText(name.utf8)))));
    }
    EXPECT_THAT(log().messages("SCardReadCacheW"), IsEmpty());
}

TEST_F(WideCacheTest, WritesToTheDaemonUnderNamesInUtf8) {
    establishContext();
    ON_CALL(host, SCardWriteCacheA).WillByDefault(Return(SCARD_W_CACHE_ITEM_TOO_BIG));
    daemon.on(Command::kWriteCache, answering(kRecordSize, {}));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        EXPECT_THAT(write(name.wide, {0xDE, 0xAD}), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(Command::kWriteCache),
                    ElementsAre(IsRequest(
                        Command::kWriteCache,
                        cacheRecord(2).append({0xDE, 0xAD}).append(wireText(name.utf8)))));
    }
    EXPECT_THAT(log().messages("SCardWriteCacheW"), IsEmpty());
}

TEST_F(WideCacheTest, NeedsAName) {
    establishContext();
    EXPECT_CALL(host, SCardReadCacheA).Times(0);
    EXPECT_CALL(host, SCardWriteCacheA).Times(0);
    BYTE data[1] = {};
    EXPECT_THAT(SCardReadCacheW(context, nullptr, 0, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, nullptr, 0, nullptr, data, 1),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages("SCardReadCacheW", 'D'), ElementsAre("LookupName cannot be NULL"));
    EXPECT_THAT(log().messages("SCardWriteCacheW", 'D'), ElementsAre("LookupName cannot be NULL"));
    EXPECT_THAT(log().messages("SCardReadCacheA"), IsEmpty());
    EXPECT_THAT(log().messages("SCardWriteCacheA"), IsEmpty());
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideCacheTest, LeavesOtherMissingArgumentsToTheNarrowCall) {
    establishContext();
    EXPECT_THAT(SCardReadCacheW(context, nullptr, 0, wideItem.data(), nullptr, &length),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardWriteCacheW(context, &identifier, 0, wideItem.data(), nullptr, 1),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_EQ(log().count("SCardReadCacheA", "cardIdentifier cannot be NULL"), 1U);
    EXPECT_EQ(log().count("SCardWriteCacheA", "data cannot be NULL"), 1U);
}

TEST_F(WideCacheTest, WithoutMemoryForTheNameAsksNobody) {
    establishContext();
    EXPECT_CALL(host, SCardReadCacheA).Times(0);
    EXPECT_CALL(host, SCardWriteCacheA).Times(0);
    EXPECT_CALL(host, SCardGetReaderIconA).Times(0);
    const std::wstring name(1234, L'n');
    HeapSpy heap;
    heap.refuse(1235);
    EXPECT_THAT(read(name, nullptr), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(write(name, {1}), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardGetReaderIconW(context, name.c_str(), nullptr, &length),
                Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

class WideIconTest : public RemoteCardTest {
  protected:
    LONG getIcon(const wchar_t* reader, LPBYTE icon) {
        return SCardGetReaderIconW(context, reader, icon, &length);
    }

    void answerWith(const Bytes& icon) {
        daemon.on(Command::kGetReaderIcon, answering<ListLayout>(icon));
    }

    DWORD length = 0;
};

TEST_F(WideIconTest, WithoutAReaderNameIsAnUnknownReaderWhileTheNarrowCallTakesNone) {
    establishContext();
    answerWith(sampleBytes(5));
    EXPECT_THAT(getIcon(nullptr, nullptr), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(log().messages("SCardGetReaderIconW", 'D'),
                ElementsAre("szReaderName cannot be NULL"));
    EXPECT_THAT(log().messages("SCardGetReaderIconA"), IsEmpty());
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(SCardGetReaderIconA(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 5U);
}

TEST_F(WideIconTest, OfTheHostIsAskedForInUtf8) {
    establishContext();
    const auto icon = readerIcon();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        host.pcsc().addReader(name.utf8);
        const GuardedBuffer buffer(icon.size());
        length = static_cast<DWORD>(icon.size());
        EXPECT_CALL(host,
                    SCardGetReaderIconA(kHostContext, StrEq(name.utf8), buffer.data(), &length));
        EXPECT_THAT(getIcon(name.wide, buffer.data()), Gives(SCARD_S_SUCCESS));
        EXPECT_TRUE(std::ranges::equal(buffer.bytes(), icon));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideIconTest, OfTheDaemonIsAskedForInUtf8) {
    establishContext();
    answerWith(sampleBytes(5));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        Bytes text(name.utf8, name.utf8 + std::strlen(name.utf8) + 1);
        const GuardedBuffer buffer(5);
        length = 5;
        EXPECT_THAT(getIcon(name.wide, buffer.data()), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(buffer.data(), buffer.data() + 5), sampleBytes(5));
        EXPECT_THAT(daemon.requests(Command::kGetReaderIcon),
                    ElementsAre(IsRequest(Command::kGetReaderIcon,
                                          RecordBytes(ListLayout::kSize)
                                              .u64(ListLayout::kContext, kDaemonContext)
                                              .append(text))));
    }
    EXPECT_THAT(log().messages("SCardGetReaderIconW"), IsEmpty());
}

}  // namespace
}  // namespace tez::test
