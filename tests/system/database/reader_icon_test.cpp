// SCardGetReaderIconA: what goes over the pipe, and what is logged.
#include "core/reader_icon.h"

#include "failing_writes.h"
#include "guarded_buffer.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;

constexpr const char* kGetIcon = "SCardGetReaderIconA";

class ReaderIconTest : public RemoteCardTest {
  protected:
    LONG getIcon(const char* reader, LPBYTE icon) {
        return SCardGetReaderIconA(context, reader, icon, &length);
    }

    void answerWith(const Bytes& icon) {
        daemon.on(Command::kGetReaderIcon, answering<ListLayout>(icon));
    }

    static testing::Matcher<const Request&> isIconRequest(const std::string& reader) {
        Bytes name(reader.begin(), reader.end());
        name.push_back(0);
        return IsRequest(
            Command::kGetReaderIcon,
            RecordBytes(ListLayout::kSize).u64(ListLayout::kContext, kDaemonContext).append(name));
    }

    std::string inLine(const void* reader, const void* icon) const {
        return "GET_READER_ICON IN-PARAMS: 1, " + logged(reader) + ", " + logged(icon) + ", " +
               logged(&length);
    }

    DWORD length = 0;
};

TEST_F(ReaderIconTest, IsAskedForWithTheRecordAndTheNameBehindIt) {
    establishContext();
    answerWith(sampleBytes(5));
    EXPECT_THAT(getIcon(kRemoteReader, nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kGetReaderIcon),
                ElementsAre(isIconRequest(kRemoteReader)));
}

TEST_F(ReaderIconTest, IsAskedForWithTheHeaderAndTheRestInOnePieceEach) {
    connectCard();
    answerWith(sampleBytes(5));
    std::vector<DWORD> sizes;
    const FailingWrites spy([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    EXPECT_THAT(getIcon(kRemoteReader, nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12U, 16U + std::string(kRemoteReader).size() + 1));
}

TEST_F(ReaderIconTest, WithoutANameIsAskedForWithAnEmptyOne) {
    establishContext();
    answerWith(sampleBytes(5));
    EXPECT_THAT(getIcon(nullptr, nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 5U);
    EXPECT_THAT(daemon.requests(Command::kGetReaderIcon), ElementsAre(isIconRequest("")));
    EXPECT_THAT(log().messages(kGetIcon),
                ElementsAre(inLine(nullptr, nullptr),
                            "local call failed with 0x80100009, falling back to remote call",
                            "GET_READER_ICON RV: 0x00000000"));
}

TEST_F(ReaderIconTest, IsAskedForWithNamesOfAnyLength) {
    establishContext();
    answerWith(sampleBytes(5));
    for (const std::string& name : {std::string(128, 'r'), std::string(100000, 'r'),
                                    std::string("Leseger\u00E4t \u8BFB\u5361\u5668 \U0001F4B3")}) {
        daemon.clearRecords();
        EXPECT_THAT(getIcon(name.c_str(), nullptr), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(Command::kGetReaderIcon), ElementsAre(isIconRequest(name)));
    }
}

TEST_F(ReaderIconTest, OfAHostsReaderNeverReachesTheDaemon) {
    establishContext();
    const auto expected = readerIcon();
    const GuardedBuffer icon(expected.size());
    length = static_cast<DWORD>(expected.size());
    EXPECT_CALL(host, SCardGetReaderIconA(kHostContext, StrEq(kHostReader), icon.data(), &length));
    EXPECT_THAT(getIcon(kHostReader, icon.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(std::ranges::equal(icon.bytes(), expected));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kGetIcon),
                ElementsAre(inLine(kHostReader, icon.data()), "GET_READER_ICON RV: 0x00000000"));
}

TEST_F(ReaderIconTest, IsNotShownInTheLog) {
    establishContext();
    answerWith(sampleBytes(5));
    const GuardedBuffer icon(5);
    length = 5;
    EXPECT_THAT(getIcon(kRemoteReader, icon.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kGetIcon, 'D'),
                ElementsAre(inLine(kRemoteReader, icon.data()),
                            "local call failed with 0x80100009, falling back to remote call",
                            "GET_READER_ICON RV: 0x00000000"));
}

TEST_F(ReaderIconTest, NeedsALengthBeforeAContext) {
    establishContext();
    EXPECT_THAT(SCardGetReaderIconA(4711, kRemoteReader, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages(kGetIcon, 'D'),
                ElementsAre(_, "local call failed with 0x80100003, falling back to remote call",
                            "pcbIcon cannot be NULL", "GET_READER_ICON RV: 0x80100004"));
    EXPECT_THAT(log().messages(kGetIcon, 'W'), IsEmpty());
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

}  // namespace
}  // namespace tez::test
