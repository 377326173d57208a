// SCardConnectA: the host first, the daemon where the host fails.
#include "failing_writes.h"
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::DoAll;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Return;
using testing::SetArgPointee;
using testing::StrEq;

class ConnectTest : public RemoteCardTest {
  protected:
    LONG connectTo(const std::string& reader, DWORD protocols = SCARD_PROTOCOL_Tx) {
        return SCardConnectA(context, reader.c_str(), SCARD_SHARE_SHARED, protocols, &handle,
                             &protocol);
    }

    static RecordBytes connectRecord(const std::string& reader, std::uint32_t shareMode,
                                     std::uint32_t protocols) {
        return RecordBytes(ConnectLayout::kSize)
            .u64(ConnectLayout::kContext, kDaemonContext)
            .text(ConnectLayout::kReader, reader)
            .u32(ConnectLayout::kShareMode, shareMode)
            .u32(ConnectLayout::kProtocols, protocols);
    }

    SCARDHANDLE handle = kUntouched;
    DWORD protocol = kUntouched;
};

TEST_F(ConnectTest, SendsOneRecordAndHandsOutTheDaemonsConnectionAsAHandleOfItsOwn) {
    establishContext();
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_EXCLUSIVE, SCARD_PROTOCOL_Tx,
                              &handle, &protocol),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(handle, 1U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_THAT(daemon.requests(Command::kConnect),
                ElementsAre(IsRequest(Command::kConnect, connectRecord(kRemoteReader, 1, 3))));
}

TEST_F(ConnectTest, LogsItsParametersTheFallbackAndItsResult) {
    establishContext();
    ASSERT_THAT(connectTo(kRemoteReader), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardConnectA", 'D'),
                ElementsAre("SCARD_CONNECT IN-PARAMS: 1, Remote Reader 0, 2, 3, " +
                                logged(&handle) + ", " + logged(&protocol),
                            "local call failed with 0x80100009, falling back to remote call",
                            "SCARD_CONNECT OUT-PARAMS: 1, 2", "SCARD_CONNECT RV: 0x00000000"));
}

TEST_F(ConnectTest, ConnectsToAHostCardWithoutAskingTheDaemon) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(kHostContext, StrEq(kHostReader), DWORD{SCARD_SHARE_SHARED},
                                    DWORD{SCARD_PROTOCOL_T1}, _, _));
    EXPECT_THAT(connectTo(kHostReader, SCARD_PROTOCOL_T1), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(handle, 1U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardConnectA", 'D'),
                ElementsAre(_, "SCARD_CONNECT OUT-PARAMS: 1, 2", "SCARD_CONNECT RV: 0x00000000"));
}

TEST_F(ConnectTest, FallsBackWhateverTheHostsErrorIs) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, StrEq(kRemoteReader), _, _, _, _))
        .WillOnce(Return(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(log().count("SCardConnectA",
                          "local call failed with 0x8010000B, falling back to remote call"),
              1U);
}

TEST_F(ConnectTest, ReturnsTheHostsErrorWithoutADaemon) {
    context = establish();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, _)).WillOnce(Return(SCARD_E_SHARING_VIOLATION));
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_SHARING_VIOLATION));
    EXPECT_EQ(daemon.acceptedConnections(), 0U);
}

TEST_F(ConnectTest, RefusesAMissingHandlePointerOnBothSides) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, _)).Times(0);
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              nullptr, &protocol),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().entries(), Contains(LogLine('W', "SCardConnectA", "phCard cannot be NULL")));
    EXPECT_THAT(log().messages("SCardConnectA", 'D'), Contains("SCARD_CONNECT RV: 0x80100004"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ConnectTest, NeedsAPlaceForTheProtocolOfARemoteCard) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, nullptr))
        .WillOnce(Return(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &handle, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', "SCardConnectA", "pdwActiveProtocol cannot be NULL")));
    EXPECT_EQ(handle, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ConnectTest, LeavesAMissingPlaceForTheProtocolToTheHostsJudgement) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, nullptr))
        .WillOnce(DoAll(SetArgPointee<4>(kHostCard), Return(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardConnectA(context, kHostReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &handle,
                              nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(handle, 1U);
    EXPECT_THAT(log().messages("SCardConnectA", 'D'), Contains("SCARD_CONNECT OUT-PARAMS: 1, 0"));
}

TEST_F(ConnectTest, KnowsNoReaderWithoutAName) {
    establishContext();
    EXPECT_THAT(
        SCardConnectA(context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &handle, &protocol),
        Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardConnectA", 'D'),
                Contains("SCARD_CONNECT IN-PARAMS: 1, (null), 2, 3, " + logged(&handle) + ", " +
                         logged(&protocol)));
}

TEST_F(ConnectTest, SendsTheLongestNameThatFitsWithItsEnd) {
    const std::string reader(127, 'R');
    remote.addReader(reader);
    remote.insertCard(reader, makeDemoCard(kRemoteCardHolder));
    establishContext();
    EXPECT_THAT(connectTo(reader), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kConnect),
                ElementsAre(IsRequest(Command::kConnect, connectRecord(reader, 2, 3))));
}

TEST_F(ConnectTest, RefusesALongerNameBeforeItTakesAConnection) {
    establishContext();
    const std::size_t opens = transport().opens();
    for (const std::size_t length : {128U, 129U, 4096U}) {
        SCOPED_TRACE(length);
        EXPECT_THAT(connectTo(std::string(length, 'R')), Gives(SCARD_E_INVALID_VALUE));
        EXPECT_EQ(handle, kUntouched);
        EXPECT_EQ(protocol, kUntouched);
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(transport().opens(), opens);
}

TEST_F(ConnectTest, KnowsOnlyContextsOfItsOwn) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(_, _, _, _, _, _)).Times(0);
    context = kHostContext;
    EXPECT_THAT(connectTo(kHostReader), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardConnectA", 'D'),
                Not(Contains(testing::HasSubstr("falling back"))));
}

TEST_F(ConnectTest, ReturnsTheDaemonsResultUnchanged) {
    establishContext();
    daemon.on(Command::kConnect,
              answering(ConnectLayout::kSize, {{ConnectLayout::kCard, 5},
                                               {ConnectLayout::kActiveProtocol, 2},
                                               {ConnectLayout::kResult, 0x12345678}}));
    EXPECT_THAT(connectTo(kRemoteReader), Gives(0x12345678));
    EXPECT_EQ(handle, 0U);
    EXPECT_EQ(protocol, kUntouched);
    EXPECT_THAT(log().messages("SCardConnectA", 'D'),
                ElementsAre(_, _, "SCARD_CONNECT RV: 0x12345678"));
}

TEST_F(ConnectTest, ReturnsWhyTheDaemonGivesNoContext) {
    establishContext();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(handle, 0U);
    EXPECT_THAT(daemon.requests(Command::kConnect), IsEmpty());
}

TEST_F(ConnectTest, ConvertsTheRawProtocolInBothDirections) {
    establishContext();
    daemon.on(Command::kConnect,
              answering(ConnectLayout::kSize,
                        {{ConnectLayout::kCard, 5}, {ConnectLayout::kActiveProtocol, 6}}));
    EXPECT_THAT(connectTo(kRemoteReader, SCARD_PROTOCOL_RAW | SCARD_PROTOCOL_T1),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kConnect),
                ElementsAre(IsRequest(Command::kConnect, connectRecord(kRemoteReader, 2, 6))));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_RAW | SCARD_PROTOCOL_T1});
    EXPECT_THAT(log().entries(), Contains(LogLine('D', "convert_protocol_to_wire",
                                                  "Protocol converted from 65538 to 6")));
    EXPECT_THAT(log().entries(), Contains(LogLine('D', "convert_protocol_from_wire",
                                                  "Protocol converted from 6 to 65538")));
}

TEST_F(ConnectTest, PassesTheOtherProtocolsAsTheyAre) {
    establishContext();
    daemon.on(Command::kConnect,
              answering(ConnectLayout::kSize,
                        {{ConnectLayout::kCard, 5}, {ConnectLayout::kActiveProtocol, 0x80000003}}));
    EXPECT_THAT(connectTo(kRemoteReader, SCARD_PROTOCOL_DEFAULT | SCARD_PROTOCOL_Tx),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(Command::kConnect),
        ElementsAre(IsRequest(Command::kConnect, connectRecord(kRemoteReader, 2, 0x80000003))));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_DEFAULT | SCARD_PROTOCOL_Tx});
    EXPECT_THAT(log().messages("convert_protocol_to_wire"),
                ElementsAre("Protocol converted from 2147483651 to 2147483651"));
    EXPECT_THAT(log().messages("convert_protocol_from_wire"),
                ElementsAre("Protocol converted from 2147483651 to 2147483651"));
}

TEST_F(ConnectTest, ConvertsProtocolsForTheOldestDaemonToo) {
    establishContext({0, 0});
    daemon.on(Command::kConnect,
              answering(ConnectLayout::kSize,
                        {{ConnectLayout::kCard, 5}, {ConnectLayout::kActiveProtocol, 4}}));
    EXPECT_THAT(connectTo(kRemoteReader, SCARD_PROTOCOL_RAW), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kConnect),
                ElementsAre(IsRequest(Command::kConnect, connectRecord(kRemoteReader, 2, 4))));
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_RAW});
}

TEST_F(ConnectTest, WarnsWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishContext();
    daemon.on(Command::kConnect, closing());
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(handle, 0U);
    EXPECT_THAT(log().messages("SCardConnectA", 'W'), ElementsAre("Failed to receive data"));
    daemon.restore(Command::kConnect);
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_S_SUCCESS));
}

TEST_F(ConnectTest, WarnsWhenTheRequestCannotBeSent) {
    establishContext();
    connect(context, kRemoteReader);  // leaves an open connection in the pool
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(connectTo(kRemoteReader), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardConnectA", 'W'), ElementsAre("Failed to send header"));
}

/// Readers whose name's copy, and nothing else that a connect needs, has a size of its own.
class UnregisteredCardTest : public ConnectTest {
  protected:
    void SetUp() override { establishContext(); }

    static void giveCard(SimulatedService& side) {
        side.addReader(kReader);
        side.insertCard(kReader, makeDemoCard("Anyone"));
    }

    LONG connectWithoutMemoryForTheName() {
        HeapSpy heap;
        heap.refuse(kReader.size() + 1);
        const LONG rv = connectTo(kReader);
        EXPECT_TRUE(heap.stopRefusing());
        return rv;
    }

    static inline const std::string kReader = std::string(83, 'R');
};

TEST_F(UnregisteredCardTest, OfTheHostIsDisconnectedAsItIs) {
    giveCard(host.pcsc());
    EXPECT_CALL(host, SCardDisconnect(kHostCard, DWORD{SCARD_LEAVE_CARD}));
    EXPECT_THAT(connectWithoutMemoryForTheName(), Gives(SCARD_E_NO_MEMORY));
}

TEST_F(UnregisteredCardTest, OfTheDaemonIsDisconnectedAsItIs) {
    giveCard(remote);
    EXPECT_THAT(connectWithoutMemoryForTheName(), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(Command::kDisconnect),
                ElementsAre(IsRequest(Command::kDisconnect,
                                      disconnectRecord(kDaemonCard, SCARD_LEAVE_CARD))));
}

}  // namespace
}  // namespace tez::test
