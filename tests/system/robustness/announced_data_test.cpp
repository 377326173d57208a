// The cache read and the reader icon: calls that the host serves first, and whose answer from the
// daemon announces data of any length.
#include <cstring>
#include <functional>

#include "failing_writes.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

/// One of the calls, for something that the host does not have.
struct DataCall {
    const char* function;
    Command command;
    std::size_t recordSize;
    std::size_t lengthOffset;
    LONG hostsFailure;
    const char* fallback;
    const char* noMemory;  // a regular expression
    const char* cutShort;
    std::function<LONG(SCARDCONTEXT context, void* destination, DWORD* length)> make;
};

const DataCall kDataCalls[] = {
    {"SCardReadCacheA", Command::kReadCache, 36, 28, SCARD_W_CACHE_ITEM_NOT_FOUND,
     "local call failed with 0x80100070, falling back to remote call",
     "Error while allocating data: \\d+", "Failed to read data for cache data",
     [](SCARDCONTEXT context, void* destination, DWORD* length) {
         UUID card = {};
         char name[] = "item";
         return SCardReadCacheA(context, &card, 1, name, static_cast<PBYTE>(destination), length);
     }},
    {"SCardGetReaderIconA", Command::kGetReaderIcon, 16, 8, SCARD_E_UNKNOWN_READER,
     "local call failed with 0x80100009, falling back to remote call",
     "Error while allocating data for pbIcon: \\d+", "Failed to read data for icon",
     [](SCARDCONTEXT context, void* destination, DWORD* length) {
         return SCardGetReaderIconA(context, kRemoteReader, static_cast<LPBYTE>(destination),
                                    length);
     }},
};

void PrintTo(const DataCall& call, std::ostream* stream) {
    *stream << call.function;
}

class AnnouncedDataTest : public RemoteCardTest, public testing::WithParamInterface<DataCall> {
  protected:
    LONG call(void* destination) { return GetParam().make(context, destination, &length); }

    /// Lets the daemon announce so many bytes and send these.
    void announce(std::uint32_t size, const Bytes& data) {
        daemon.on(GetParam().command,
                  answering(GetParam().recordSize, {{GetParam().lengthOffset, size}}, data));
    }
    void answerWith(const Bytes& data) { announce(static_cast<std::uint32_t>(data.size()), data); }

    /// As announce, and the daemon hangs up behind it.
    void announceAndClose(std::uint32_t size, const Bytes& data) {
        daemon.on(GetParam().command, answeringAndClosing(GetParam().recordSize,
                                                          {{GetParam().lengthOffset, size}}, data));
    }

    std::vector<std::string> logged(char level) const {
        return log().messages(GetParam().function, level);
    }

    /// A call after another one's failure gets its own answer.
    void expectDataNow() {
        answerWith(sampleBytes(9));
        const GuardedBuffer buffer(9);
        length = 9;
        EXPECT_THAT(call(buffer.data()), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(buffer.data(), buffer.data() + 9), sampleBytes(9));
    }

    DWORD length = 0;
};

TEST_P(AnnouncedDataTest, OfNoBytesIsASuccess) {
    establishContext();
    announce(0, {});
    const GuardedBuffer buffer(10);
    length = 10;
    EXPECT_THAT(call(buffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 0U);
    EXPECT_TRUE(buffer.untouched());
    void* block = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(call(static_cast<void*>(&block)), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 0U);
    ASSERT_NE(block, nullptr);
    EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
    expectDataNow();
}

TEST_P(AnnouncedDataTest, WithoutMemoryToReadItIntoIsNotHandedOut) {
    establishContext();
    answerWith(sampleBytes(12345));
    void* block = &length;
    length = SCARD_AUTOALLOCATE;
    {
        HeapSpy heap;
        heap.refuse(12346);
        EXPECT_THAT(call(static_cast<void*>(&block)), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_EQ(block, &length);
    EXPECT_EQ(length, DWORD{SCARD_AUTOALLOCATE});
    EXPECT_THAT(logged('D'), Contains(MatchesRegex(GetParam().noMemory)));
    EXPECT_TRUE(hangsUpAfter(GetParam().command));
    expectDataNow();
}

TEST_P(AnnouncedDataTest, ThatCannotBeHadIsToldInTheLog) {
    connectCard();  // leaves an open connection in the pool
    {
        const FailingWrites broken([](DWORD /*size*/) { return true; });
        EXPECT_THAT(call(nullptr), Gives(SCARD_E_NO_SERVICE));
    }
    daemon.on(GetParam().command, answeringAndClosing(GetParam().recordSize - 1, {}));
    EXPECT_THAT(call(nullptr), Gives(SCARD_E_NO_SERVICE));
    daemon.on(GetParam().command, closing());
    EXPECT_THAT(call(nullptr), Gives(SCARD_E_NO_SERVICE));
    const GuardedBuffer buffer(10);
    length = 10;
    announceAndClose(10, sampleBytes(9));
    EXPECT_THAT(call(buffer.data()), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(length, 10U);
    EXPECT_THAT(logged('W'), ElementsAre("Failed to send header", "Failed to receive data",
                                         "Failed to receive data", GetParam().cutShort));
    expectDataNow();
}

TEST_P(AnnouncedDataTest, OfAHostThatNeedsMoreRoomIsNotTakenForRoomAtTheDaemons) {
    establishContext();
    answerWith(sampleBytes(12));
    const auto needMore = [](DWORD* needed) {
        *needed = 100;
        return SCARD_E_INSUFFICIENT_BUFFER;
    };
    ON_CALL(host, SCardReadCacheA).WillByDefault(testing::WithArg<5>(needMore));
    ON_CALL(host, SCardGetReaderIconA).WillByDefault(testing::WithArg<3>(needMore));
    const GuardedBuffer buffer(11);
    length = 11;
    EXPECT_THAT(call(buffer.data()), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 12U);
    EXPECT_TRUE(buffer.untouched());
}

TEST_P(AnnouncedDataTest, IsTheHostsAffairAloneWithoutADaemon) {
    context = establish();
    length = 5;
    EXPECT_THAT(call(GuardedBuffer(5).data()), Gives(GetParam().hostsFailure));
    EXPECT_EQ(length, 5U);
    EXPECT_THAT(GetParam().make(kHostContext, nullptr, &length), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(logged('W'), IsEmpty());
    EXPECT_THAT(logged('D'), Not(Contains(GetParam().fallback)));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_P(AnnouncedDataTest, NeedsADaemonOfVersionOneTwo) {
    establishContext({1, 1});
    answerWith(sampleBytes(9));
    EXPECT_THAT(call(nullptr), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(logged('D'), Contains(std::string(GetParam().function) +
                                      " is not compatible with the current negotiated protocol"));
    EXPECT_THAT(daemon.requests(GetParam().command), IsEmpty());
}

TEST_P(AnnouncedDataTest, IsSentByADaemonOfVersionOneTwo) {
    establishContext({1, 2});
    expectDataNow();
}

TEST_P(AnnouncedDataTest, NeedsALengthOnBothSides) {
    establishContext();
    answerWith(sampleBytes(9));
    const GuardedBuffer buffer(9);
    EXPECT_THAT(GetParam().make(context, buffer.data(), nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(daemon.requests(GetParam().command), IsEmpty());
}

TEST_P(AnnouncedDataTest, IsForContextsOfTheLibrarysOwn) {
    establishContext();
    EXPECT_CALL(host, SCardReadCacheA).Times(0);
    EXPECT_CALL(host, SCardGetReaderIconA).Times(0);
    for (const SCARDCONTEXT stranger : {SCARDCONTEXT{0}, kHostContext, SCARDCONTEXT{2}}) {
        SCOPED_TRACE(stranger);
        EXPECT_THAT(GetParam().make(stranger, nullptr, &length), Gives(SCARD_E_INVALID_HANDLE));
    }
    EXPECT_THAT(
        logged('D'),
        Contains("local call failed with 0x80100003, falling back to remote call").Times(3));
    EXPECT_THAT(logged('W'), ElementsAre("Invalid context handle", "Invalid context handle",
                                         "Invalid context handle"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_P(AnnouncedDataTest, IsNotAskedForWhenTheDaemonGivesNoContext) {
    establishContext();
    daemon.on(Command::kEstablishContext, answering(16, {{12, 0x80100006}}));
    EXPECT_THAT(call(nullptr), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(GetParam().command), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EachCall, AnnouncedDataTest, testing::ValuesIn(kDataCalls),
                         [](const auto& given) { return std::string(given.param.function); });

}  // namespace
}  // namespace tez::test
