#include <string>

#include "reader_states.h"
#include "remote_only_test.h"
#include "state/reader_names.h"

using namespace tez;
using namespace std::string_literals;
using test::Bytes;
using test::Command;
using test::count;
using test::IsSent;
using test::kChanged;
using test::kFirstCard;
using test::ListLayout;
using test::LogLine;
using test::multiString;
using test::readerState;
using test::ReaderStateLayout;
using test::RecordBytes;
using test::StatusChangeLayout;
using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* kPnpReader = R"(\\?PnP?\Notification)";

RecordBytes changeRecord(std::uint32_t timeout, std::uint32_t readers, std::uint32_t rv = 0) {
    return RecordBytes(StatusChangeLayout::kSize)
        .u64(StatusChangeLayout::kContext, 0x5000001)
        .u32(StatusChangeLayout::kTimeout, timeout)
        .u32(StatusChangeLayout::kReaders, readers)
        .u32(StatusChangeLayout::kResult, rv);
}

RecordBytes stateRecord(const std::string& reader, std::uint32_t current, std::uint32_t event) {
    return RecordBytes(ReaderStateLayout::kSize)
        .text(ReaderStateLayout::kReader, reader)
        .u32(ReaderStateLayout::kCurrent, current)
        .u32(ReaderStateLayout::kEvent, event);
}

}  // namespace

/// Status changes with two readers, both of them the daemon's.
class RemoteOnlyStatusChange : public test::RemoteOnlyTest {
  protected:
    RemoteOnlyStatusChange() {
        setRemoteReaderNames("Reader A\0Reader B\0\0"s);
        markListReadersCalled(currentReaderListing());
    }
};

TEST_F(RemoteOnlyStatusChange, AsksTheDaemonAndStoresItsStates) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(500, 2),
                        stateRecord("Reader A", SCARD_STATE_EMPTY, kFirstCard | kChanged),
                        stateRecord("Reader B", SCARD_STATE_PRESENT, SCARD_STATE_PRESENT)};
    SCARD_READERSTATEA states[] = {readerState("Reader A", SCARD_STATE_EMPTY),
                                   readerState("Reader B", SCARD_STATE_PRESENT)};
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, states, 2), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kGetStatusChange,
                       changeRecord(500, 2)
                           .append(stateRecord("Reader A", SCARD_STATE_EMPTY, 0))
                           .append(stateRecord("Reader B", SCARD_STATE_PRESENT, 0))));
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);
    EXPECT_EQ(states[1].dwEventState, DWORD{SCARD_STATE_PRESENT});
}

TEST_F(RemoteOnlyStatusChange, ReturnsTheDaemonsResult) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(500, 0, 0x8010000A)};
    SCARD_READERSTATEA state = readerState("Reader A", SCARD_STATE_EMPTY);
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, &state, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(state.dwEventState, 0U);
}

TEST_F(RemoteOnlyStatusChange, ReadsTheStatesOfAFailureWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(500, 1, 0x8010000A),
                        stateRecord("Reader A", SCARD_STATE_EMPTY, SCARD_STATE_EMPTY)};
    SCARD_READERSTATEA state = readerState("Reader A", SCARD_STATE_EMPTY);
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, &state, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(state.dwEventState, DWORD{SCARD_STATE_EMPTY});
    EXPECT_THAT(daemon().answers, IsEmpty());
}

TEST_F(RemoteOnlyStatusChange, CountsNobodyElsesReadersForThePseudoReader) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(0, 1), stateRecord(kPnpReader, count(5), 0)};
    SCARD_READERSTATEA state = readerState(kPnpReader, count(5));
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest().body,
              changeRecord(0, 1).append(stateRecord(kPnpReader, count(5), 0)).bytes());
    EXPECT_EQ(state.dwEventState, count(5)) << "an answer without an event is the current state";
}

TEST_F(RemoteOnlyStatusChange, NeverAsksTheHostWhoseReadersAreNotServed) {
    const SCARDCONTEXT context = boundContext();
    setLocalReaderNames("Host Reader\0\0"s);
    SCARD_READERSTATEA state = readerState("Host Reader", 0);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_THAT(daemon().requests, IsEmpty());
    EXPECT_EQ(state.dwEventState, 0U);
}

TEST_F(RemoteOnlyStatusChange, ListsTheReadersWhenNobodyDidBefore) {
    forgetLocalReaderNames();
    setRemoteReaderNames("\0"s);
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {RecordBytes(ListLayout::kSize).u32(ListLayout::kLength, 10),
                        multiString({"Reader A"}), changeRecord(0, 0)};
    SCARD_READERSTATEA state = readerState("Reader A", 0);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_THAT(daemon().requests, SizeIs(2));
    EXPECT_THAT(log().entries(), Contains(LogLine('D', "SCardGetStatusChangeA",
                                                  "List readers was never called, let's call it to "
                                                  "update the list of local and remote readers")));
}

TEST_F(RemoteOnlyStatusChange, RefusesMoreStatesThanItAskedForAndClosesThePipe) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(0, 2),
                        stateRecord("Reader A", 0, SCARD_STATE_PRESENT | kChanged),
                        stateRecord("Reader B", 0, SCARD_STATE_PRESENT | kChanged)};
    SCARD_READERSTATEA state = readerState("Reader A", 0);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_F_INTERNAL_ERROR);
    EXPECT_EQ(state.dwEventState, 0U);
    EXPECT_EQ(daemon().timesClosed, 1);
}

/// The daemon has come, but the context has no counterpart at the host.
TEST_F(RemoteOnlyStatusChange, LetsTheRemoteResultStandForAContextWithoutAHostSide) {
    const SCARDCONTEXT context = boundContext();
    setLocalReaderNames("Host Reader\0\0"s);
    setServiceState(ServiceState::LocalFirst);
    daemon().versionMajor = 1;
    daemon().answers = {changeRecord(0, 2, 0x8010000A),
                        stateRecord("Reader A", SCARD_STATE_EMPTY, SCARD_STATE_PRESENT | kChanged),
                        stateRecord(kPnpReader, count(1), count(1))};
    SCARD_READERSTATEA states[] = {readerState("Host Reader", SCARD_STATE_EMPTY),
                                   readerState("Reader A", SCARD_STATE_EMPTY),
                                   readerState(kPnpReader, count(2))};
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, states, 3), SCARD_E_TIMEOUT);
    // One of the two readers in the call is the host's all the same.
    EXPECT_EQ(takeRequest().body, changeRecord(0, 2)
                                      .append(stateRecord("Reader A", SCARD_STATE_EMPTY, 0))
                                      .append(stateRecord(kPnpReader, count(1), 0))
                                      .bytes());
    EXPECT_EQ(states[0].dwEventState, 0U) << "there is no copy that could be read";
    EXPECT_EQ(states[1].dwEventState, SCARD_STATE_PRESENT | kChanged);
    EXPECT_EQ(states[2].dwEventState, count(1)) << "nothing is added to the daemon's count";
    setServiceState(ServiceState::RemoteOnly);
}
