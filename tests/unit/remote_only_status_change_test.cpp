#include <string>

#include "remote_only_test.h"
#include "state/reader_names.h"

using namespace tez;
using namespace std::string_literals;
using test::Bytes;
using test::ByteString;
using test::LogLine;
using test::SentRequest;
using testing::Contains;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* kPnpReader = R"(\\?PnP?\Notification)";

Bytes changeRecord(std::uint32_t timeout, std::uint32_t readers, std::uint32_t rv = 0) {
    return ByteString().u64(0x5000001).u32(timeout).u32(readers).u32(rv).bytes();
}

Bytes stateRecord(const std::string& reader, std::uint32_t current, std::uint32_t event) {
    return ByteString().text(reader, 128).u32(current).u32(event).u32(0).fill(0, 33).bytes();
}

SCARD_READERSTATEA stateOf(const char* reader, DWORD current) {
    SCARD_READERSTATEA state = {};
    state.szReader = reader;
    state.dwCurrentState = current;
    return state;
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
    daemon().answers = {changeRecord(500, 2), stateRecord("Reader A", 0x10, 0x10022),
                        stateRecord("Reader B", 0x20, 0x20)};
    SCARD_READERSTATEA states[] = {stateOf("Reader A", 0x10), stateOf("Reader B", 0x20)};
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, states, 2), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest(), (SentRequest{12, 20 + 2 * 173,
                                          ByteString()
                                              .append(changeRecord(500, 2))
                                              .append(stateRecord("Reader A", 0x10, 0))
                                              .append(stateRecord("Reader B", 0x20, 0))
                                              .bytes(),
                                          std::nullopt}));
    EXPECT_EQ(states[0].dwEventState, 0x10022U);
    EXPECT_EQ(states[1].dwEventState, 0x20U);
}

TEST_F(RemoteOnlyStatusChange, ReturnsTheDaemonsResult) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(500, 0, 0x8010000A)};
    SCARD_READERSTATEA state = stateOf("Reader A", 0x10);
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, &state, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(state.dwEventState, 0U);
}

TEST_F(RemoteOnlyStatusChange, ReadsTheStatesOfAFailureWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(500, 1, 0x8010000A), stateRecord("Reader A", 0x10, 0x10)};
    SCARD_READERSTATEA state = stateOf("Reader A", 0x10);
    EXPECT_EQ(SCardGetStatusChangeA(context, 500, &state, 1), SCARD_E_TIMEOUT);
    EXPECT_EQ(state.dwEventState, 0x10U);
    EXPECT_THAT(daemon().answers, IsEmpty());
}

TEST_F(RemoteOnlyStatusChange, CountsNobodyElsesReadersForThePseudoReader) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(0, 1), stateRecord(kPnpReader, 0x50000, 0)};
    SCARD_READERSTATEA state = stateOf(kPnpReader, 0x50000);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest().bytes, ByteString()
                                       .append(changeRecord(0, 1))
                                       .append(stateRecord(kPnpReader, 0x50000, 0))
                                       .bytes());
    EXPECT_EQ(state.dwEventState, 0x50000U) << "an answer without an event is the current state";
}

TEST_F(RemoteOnlyStatusChange, NeverAsksTheHostWhoseReadersAreNotServed) {
    const SCARDCONTEXT context = boundContext();
    setLocalReaderNames("Host Reader\0\0"s);
    SCARD_READERSTATEA state = stateOf("Host Reader", 0);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_THAT(daemon().requests, IsEmpty());
    EXPECT_EQ(state.dwEventState, 0U);
}

TEST_F(RemoteOnlyStatusChange, ListsTheReadersWhenNobodyDidBefore) {
    forgetLocalReaderNames();
    setRemoteReaderNames("\0"s);
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {ByteString().u64(0).u32(10).u32(0).bytes(),
                        ByteString().text("Reader A", 10).bytes(), changeRecord(0, 0)};
    SCARD_READERSTATEA state = stateOf("Reader A", 0);
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, &state, 1), SCARD_S_SUCCESS);
    EXPECT_THAT(daemon().requests, SizeIs(2));
    EXPECT_THAT(log().entries(), Contains(LogLine('D', "SCardGetStatusChangeA",
                                                  "List readers was never called, let's call it to "
                                                  "update the list of local and remote readers")));
}

TEST_F(RemoteOnlyStatusChange, RefusesMoreStatesThanItAskedForAndClosesThePipe) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {changeRecord(0, 2), stateRecord("Reader A", 0, 0x22),
                        stateRecord("Reader B", 0, 0x22)};
    SCARD_READERSTATEA state = stateOf("Reader A", 0);
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
    daemon().answers = {changeRecord(0, 2, 0x8010000A), stateRecord("Reader A", 0x10, 0x22),
                        stateRecord(kPnpReader, 0x10000, 0x10000)};
    SCARD_READERSTATEA states[] = {stateOf("Host Reader", 0x10), stateOf("Reader A", 0x10),
                                   stateOf(kPnpReader, 0x20000)};
    EXPECT_EQ(SCardGetStatusChangeA(context, 0, states, 3), SCARD_E_TIMEOUT);
    // One of the two readers in the call is the host's all the same.
    EXPECT_EQ(takeRequest().bytes, ByteString()
                                       .append(changeRecord(0, 2))
                                       .append(stateRecord("Reader A", 0x10, 0))
                                       .append(stateRecord(kPnpReader, 0x10000, 0))
                                       .bytes());
    EXPECT_EQ(states[0].dwEventState, 0U) << "there is no copy that could be read";
    EXPECT_EQ(states[1].dwEventState, 0x22U);
    EXPECT_EQ(states[2].dwEventState, 0x10000U) << "nothing is added to the daemon's count";
    setServiceState(ServiceState::RemoteOnly);
}
