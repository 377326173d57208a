// SCardGetStatusChangeA: the remote half as it stands on the pipe, and answers of every kind.
#include <algorithm>
#include <cstring>

#include "daemon_records.h"
#include "failing_writes.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

constexpr auto kNoService = SCARD_E_NO_SERVICE;

class StatusChangeRecord : public StatusChangeTest {
  protected:
    /// Waits on the remote reader alone and forces the remote result out: with a local result that
    /// is no success it stands.
    LONG remoteResultFor(SCARDCONTEXT context, std::vector<SCARD_READERSTATEA>& states,
                         DWORD timeout = 0) {
        ON_CALL(host, SCardGetStatusChangeA).WillByDefault(testing::Return(SCARD_E_TIMEOUT));
        states.push_back(unchangedHost());
        return SCardGetStatusChangeA(context, timeout, states.data(),
                                     static_cast<DWORD>(states.size()));
    }

    /// An answer that echoes the request with a result, a count and event states of the test's own.
    static Reply answer(const Request& request, LONG result, std::uint32_t count,
                        std::size_t records) {
        Bytes record = bytesAt(request.body, 0, StatusChangeLayout::kSize);
        putU32(record, StatusChangeLayout::kReaders, count);
        putU32(record, StatusChangeLayout::kResult, static_cast<std::uint32_t>(result));
        Bytes readers = bytesAt(request.body, StatusChangeLayout::kSize,
                                request.body.size() - StatusChangeLayout::kSize);
        readers.resize(records * ReaderStateLayout::kSize);
        return Reply::of({record, readers});
    }
};

TEST_F(StatusChangeRecord, StandsOnThePipeByteForByte) {
    const SCARDCONTEXT context = establishAndList();
    SCARD_READERSTATEA state = readerState(kRemoteReader, count(1) | SCARD_STATE_EMPTY, 0xA1B2C3D4);
    state.cbAtr = 36;
    for (std::size_t i = 0; i < sizeof state.rgbAtr; ++i) {
        state.rgbAtr[i] = static_cast<BYTE>(0x80 + i);
    }
    std::vector states{state, state};
    states[1].dwCurrentState = SCARD_STATE_UNAWARE;
    EXPECT_THAT(SCardGetStatusChangeA(context, 0x01020304, states.data(), 2),
                Gives(SCARD_S_SUCCESS));
    const std::vector<Request> requests = daemon.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].header, statusChangeHeader(2));
    std::vector sent{state, state};
    sent[1].dwCurrentState = SCARD_STATE_UNAWARE;
    EXPECT_EQ(requests[0].body, statusChangeBody(kFirstRemoteContext, 0x01020304, sent));
}

TEST_F(StatusChangeRecord, IsNotSentWhileTheDaemonIsAway) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    std::vector states{unchangedHost()};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 1), Gives(SCARD_E_TIMEOUT));
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x8010001D"));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_F(StatusChangeRecord, LogsEachReaderGoingOutAndComingBack) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{unchangedHost(), readerState(kRemoteReader, SCARD_STATE_EMPTY, 0x30001)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    const std::string atrLength = std::to_string(states[1].cbAtr);
    const std::vector<LogEntry> entries = log().entries();
    for (const std::string& line :
         {std::string("REMOTE READER STATE 1: Remote Reader 0, curr:EMPTY:0 (0x10), "
                      "event::30001 (0x30001), 0"),
          "NEW REMOTE READER STATE 1: Remote Reader 0, curr:EMPTY:0 (0x10), "
          "event:CHANGED|PRESENT:10000 (0x10022), " +
              atrLength,
          std::string("intermediate rv: 0x00000000"), std::string("localRv: 0x8010000A"),
          "NEW READER STATE 1: Remote Reader 0, curr:EMPTY:0 (16), "
          "event:CHANGED|PRESENT:10000 (65570), " +
              atrLength,
          std::string("GET_STATUS_CHANGE RV: 0x00000000")}) {
        EXPECT_THAT(entries, Contains(LogLine('D', kStatusChange, line)));
    }
}

TEST_F(StatusChangeRecord, LogsEachLocalReaderBeforeAndAfterTheWait) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT),
                       readerState(kHostReader, SCARD_STATE_EMPTY, SCARD_STATE_UNKNOWN)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    const std::string atrLength = std::to_string(states[1].cbAtr);
    EXPECT_THAT(log().messages("LocalSCardGetStatusChange", 'D'),
                ElementsAre("LOCAL READER STATE 1: Host Reader 0, curr:EMPTY:0 (0x10), "
                            "event:UNKNOWN:0 (0x4), 0",
                            "NEW LOCAL READER STATE 1: Host Reader 0, curr:EMPTY:0 (0x10), "
                            "event:CHANGED|PRESENT:10000 (0x10022), " +
                                atrLength));
}

TEST_F(StatusChangeRecord, TakesStateAtrLengthAnd33BytesFromTheAnswer) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Reply reply = answer(request, SCARD_S_SUCCESS, 1, 1);
        Bytes& reader = reply.blocks[1];
        putU32(reader, ReaderStateLayout::kCurrent, 0x11111111);
        putU32(reader, ReaderStateLayout::kEvent,
               static_cast<std::uint32_t>(count(5) | SCARD_STATE_PRESENT | kChanged));
        putU32(reader, ReaderStateLayout::kAtrLength, 33);
        for (std::size_t i = 0; i < 33; ++i) {
            reader[ReaderStateLayout::kAtr + i] = static_cast<std::uint8_t>(0xC0 + i);
        }
        return reply;
    });
    SCARD_READERSTATEA state = unchangedRemote();
    std::memset(state.rgbAtr, 0x5A, sizeof state.rgbAtr);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwCurrentState, static_cast<DWORD>(SCARD_STATE_PRESENT));
    EXPECT_EQ(state.dwEventState, count(5) | SCARD_STATE_PRESENT | kChanged);
    EXPECT_EQ(state.cbAtr, 33U);
    for (std::size_t i = 0; i < 33; ++i) {
        EXPECT_EQ(state.rgbAtr[i], 0xC0 + i);
    }
    EXPECT_EQ(state.rgbAtr[33], 0x5A);
    EXPECT_EQ(state.rgbAtr[35], 0x5A);
}

TEST_F(StatusChangeRecord, MatchesTheAnswerByPositionNotByName) {
    remote.addReader("Another Reader");
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Reply reply = answer(request, SCARD_S_SUCCESS, 2, 2);
        Bytes& readers = reply.blocks[1];
        std::swap_ranges(readers.begin(), readers.begin() + ReaderStateLayout::kCurrent,
                         readers.begin() + ReaderStateLayout::kSize);
        putU32(readers, ReaderStateLayout::kEvent, static_cast<std::uint32_t>(count(1) | kChanged));
        putU32(readers, ReaderStateLayout::kSize + ReaderStateLayout::kEvent,
               static_cast<std::uint32_t>(count(2) | kChanged));
        return reply;
    });
    std::vector states{unchangedRemote(), readerState("Another Reader", SCARD_STATE_EMPTY)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, count(1) | kChanged);
    EXPECT_EQ(states[1].dwEventState, count(2) | kChanged);
    EXPECT_STREQ(states[0].szReader, kRemoteReader);
    EXPECT_THAT(log().messages(kStatusChange),
                Contains("NEW REMOTE READER STATE 0: Another Reader, curr:PRESENT:0 (0x20), "
                         "event:CHANGED:10000 (0x10002), 0"));
}

TEST_F(StatusChangeRecord, OfNoReadersLeavesTheEntriesAndTheResultStands) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        return answer(request, SCARD_E_READER_UNAVAILABLE, 0, 0);
    });
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_E_READER_UNAVAILABLE));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
}

TEST_F(StatusChangeRecord, OfMoreReadersThanAskedForIsRefusedAndThePipeClosed) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange,
              [](const Request& request) { return answer(request, SCARD_S_SUCCESS, 2, 2); });
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x80100001"));
    const std::uint64_t used = daemon.requests().back().connection;
    EXPECT_TRUE(daemon.waitUntil(
        [&] { return !testing::Value(daemon.openConnections(), Contains(used)); }, kPatience));
    // The next call has a connection to itself.
    daemon.restore(Command::kGetStatusChange);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 1), Gives(SCARD_S_SUCCESS));
    EXPECT_NE(daemon.requests().back().connection, used);
}

TEST_F(StatusChangeRecord, OfManyMoreReadersThanAskedForIsRefusedToo) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        return answer(request, SCARD_S_SUCCESS, 0xFFFFFFFF, 3);
    });
    std::vector states{unchangedRemote()};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_F_INTERNAL_ERROR));
}

TEST_F(StatusChangeRecord, OfFewerReadersThanAskedForFillsTheFirstEntries) {
    remote.addReader("Another Reader");
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Reply reply = answer(request, SCARD_S_SUCCESS, 1, 1);
        putU32(reply.blocks[1], ReaderStateLayout::kEvent,
               static_cast<std::uint32_t>(count(1) | kChanged));
        return reply;
    });
    std::vector states{unchangedRemote(),
                       readerState("Another Reader", SCARD_STATE_EMPTY, kUntouched)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 2), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, count(1) | kChanged);
    EXPECT_EQ(states[1].dwEventState, kUntouched);
}

TEST_F(StatusChangeRecord, KeepsAnAtrLengthToWhatTheEntryHolds) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Reply reply = answer(request, SCARD_S_SUCCESS, 1, 1);
        putU32(reply.blocks[1], ReaderStateLayout::kAtrLength, 0x7FFFFFFF);
        return reply;
    });
    SCARD_READERSTATEA state = unchangedRemote();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_LE(state.cbAtr, sizeof state.rgbAtr);
}

TEST_F(StatusChangeRecord, OfAFailureHasNoReadersBeforeVersion11) {
    daemon.setVersion({1, 0});
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
    // The connection stays in step.
    states.pop_back();
    states[0].dwCurrentState = SCARD_STATE_UNAWARE;
    const std::uint64_t used = daemon.requests().back().connection;
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(daemon.requests().back().connection, used);
}

TEST_F(StatusChangeRecord, OfASuccessHasReadersBeforeVersion11Too) {
    daemon.setVersion({1, 0});
    const SCARDCONTEXT context = establishAndList();
    SCARD_READERSTATEA state = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kFirstCard | kChanged);
}

TEST_F(StatusChangeRecord, OfAFailureHasReadersFromVersion11On) {
    daemon.setVersion({1, 1});
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState, kFirstCard);
    EXPECT_GT(states[0].cbAtr, 0U);
}

TEST_F(StatusChangeRecord, OfATooLongNameIsNotSent) {
    const std::string name(128, 'n');
    remote.addReader(name);
    const SCARDCONTEXT context = establishAndList();
    std::vector states{unchangedRemote(),
                       readerState(name.c_str(), SCARD_STATE_UNAWARE, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_EQ(states[1].dwEventState, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kStatusChange), Contains("intermediate rv: 0x80100011"));
}

TEST_F(StatusChangeRecord, OfTheLongestNameThatFitsIsSentWhole) {
    const std::string name(127, 'n');
    remote.addReader(name);
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(name.c_str(), SCARD_STATE_UNAWARE)};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, static_cast<DWORD>(SCARD_STATE_EMPTY | SCARD_STATE_CHANGED));
    ASSERT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(
        textAt(daemon.requests()[0].body, StatusChangeLayout::kSize, ReaderStateLayout::kCurrent),
        name);
}

TEST_F(StatusChangeRecord, ThatIsNotAnsweredGivesNoService) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, closing());
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(kNoService));
    EXPECT_THAT(log().entries(), Contains(LogLine('W', kStatusChange, "Failed to receive data")));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
}

TEST_F(StatusChangeRecord, ThatIsAnsweredInPartGivesNoService) {
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Bytes record = bytesAt(request.body, 0, 16);
        putU32(record, StatusChangeLayout::kReaders, 200);  // a count that nobody asked for
        return Reply::closePipe({record});
    });
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(kNoService));
    EXPECT_THAT(log().messages(kStatusChange, 'W'), ElementsAre("Failed to receive data"));
}

TEST_F(StatusChangeRecord, WhoseReadersBreakOffGivesNoService) {
    remote.addReader("Another Reader");
    const SCARDCONTEXT context = establishAndList();
    daemon.on(Command::kGetStatusChange, [](const Request& request) {
        Reply reply = answer(request, SCARD_S_SUCCESS, 2, 1);
        putU32(reply.blocks[1], ReaderStateLayout::kEvent,
               static_cast<std::uint32_t>(count(1) | kChanged));
        reply.close = true;
        return reply;
    });
    std::vector states{unchangedRemote(),
                       readerState("Another Reader", SCARD_STATE_EMPTY, kUntouched)};
    EXPECT_THAT(remoteResultFor(context, states), Gives(kNoService));
    EXPECT_THAT(log().messages(kStatusChange, 'W'),
                ElementsAre("Failed to receive data with reader state"));
    EXPECT_EQ(states[0].dwEventState, count(1) | kChanged);
    EXPECT_EQ(states[1].dwEventState, kUntouched);
}

TEST_F(StatusChangeRecord, GoesOnAFreshConnectionWhenTheOldOneIsStale) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    const std::uint64_t stale = daemon.requests().back().connection;
    ASSERT_TRUE(daemon.closeConnection(stale));
    SCARD_READERSTATEA state = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(state.dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(daemon.requests().back().command, Command::kGetStatusChange);
    EXPECT_NE(daemon.requests().back().connection, stale);
}

struct BrokenWrite {
    std::size_t first;  ///< the first write of the call that fails; 1 is the header's
    const char* warning;
};

void PrintTo(const BrokenWrite& write, std::ostream* stream) {
    *stream << "from write " << write.first;
}

class StatusChangeBrokenWrite : public StatusChangeRecord,
                                public testing::WithParamInterface<BrokenWrite> {};

TEST_P(StatusChangeBrokenWrite, EndsTheRemoteHalfWithNoService) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_PRESENT, kUntouched)};
    std::size_t writes = 0;
    const FailingWrites broken([&](DWORD /*size*/) { return ++writes >= GetParam().first; });
    EXPECT_THAT(remoteResultFor(context, states), Gives(kNoService));
    EXPECT_THAT(log().messages(kStatusChange, 'W'), ElementsAre(GetParam().warning));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
}

INSTANTIATE_TEST_SUITE_P(Each, StatusChangeBrokenWrite,
                         testing::Values(BrokenWrite{1, "Failed to send header"},
                                         BrokenWrite{2, "Failed to send data"},
                                         BrokenWrite{3, "Failed to send data with reader state"}),
                         [](const auto& test) {
                             return "FromWrite" + std::to_string(test.param.first);
                         });

}  // namespace
}  // namespace tez::test
