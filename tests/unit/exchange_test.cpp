#include "daemon/exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "daemon/connection_pool.h"
#include "log_matchers.h"
#include "mock_daemon_connection.h"
#include "record_codec.h"
#include "record_layout.h"
#include "wire/card_records.h"

using namespace tez;
using test::Bytes;
using test::bytesOf;
using test::copyBytes;
using test::FreshLog;
using test::HandleLayout;
using test::LogLine;
using test::MockDaemonConnection;
using test::RecordBytes;
using testing::AnyNumber;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::NotNull;
using testing::Return;
using testing::StrictMock;

namespace {

using testing::_;

constexpr FunctionLog kCallLog("aCall");

MATCHER_P(PointsToBytes, expected, "") {
    return copyBytes(arg, expected.size()) == expected;
}

/// Answers a read with these bytes.
auto answer(const Bytes& bytes) {
    return [bytes](void* buffer, std::uint64_t size) -> LONG {
        EXPECT_EQ(size, bytes.size());
        std::memcpy(buffer, bytes.data(), bytes.size());
        return SCARD_S_SUCCESS;
    };
}

/// One connection in the pool, whose every step a test expects.
class ExchangeTest : public testing::Test {
  protected:
    void SetUp() override {
        setServiceState(ServiceState::RemoteOnly);
        auto made = std::make_unique<StrictMock<MockDaemonConnection>>();
        connection_ = made.get();
        expectPooling();
        releaseConnection(std::move(made));
    }

    /// Every test ends with the connection back in the pool, which is emptied then.
    void TearDown() override {
        EXPECT_CALL(*connection_, closeSocket());
        EXPECT_CALL(*connection_, destroyed());
        std::unique_ptr<DaemonConnection> back = acquireConnection();
        EXPECT_EQ(back.get(), connection_) << "the connection was not given back";
        releaseConnection(std::move(back));
        clearConnectionPool();
    }

    StrictMock<MockDaemonConnection>& connection() { return *connection_; }
    const FreshLog& log() const { return log_; }

    /// What was expected must have happened by now, not just at the end.
    void verifyUntilHere() {
        testing::Mock::VerifyAndClearExpectations(connection_);
        expectPooling();
    }

  private:
    /// What the pool asks of the connection.
    void expectPooling() {
        EXPECT_CALL(*connection_, serviceKind()).WillRepeatedly(Return(ServiceState::RemoteOnly));
        EXPECT_CALL(*connection_, connect()).WillRepeatedly(Return(true));
    }

    FreshLog log_;
    StrictMock<MockDaemonConnection>* connection_ = nullptr;
};

}  // namespace

TEST_F(ExchangeTest, SendsTheRecordAndReadsItBack) {
    const InSequence inOrder;
    EXPECT_CALL(
        connection(),
        sendRequest(
            CMD_BEGIN_TRANSACTION,
            PointsToBytes(
                RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 0x5000001).bytes()),
            12))
        .WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), readMessage(NotNull(), 12))
        .WillOnce(answer(RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, 7).bytes()));
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(exchangeRecord(kCallLog, CMD_BEGIN_TRANSACTION, record), SCARD_S_SUCCESS);
    EXPECT_EQ(std::uint64_t{record.handle}, 7U);  // a copy: the field may stand anywhere
    EXPECT_THAT(log().entries(), IsEmpty());
}

TEST_F(ExchangeTest, ReturnsTheDaemonsResult) {
    EXPECT_CALL(connection(), sendRequest(_, _, _)).WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), readMessage(_, _))
        .WillOnce(answer(RecordBytes(HandleLayout::kSize)
                             .u64(HandleLayout::kHandle, 7)
                             .u32(HandleLayout::kResult, 0x80100069)
                             .bytes()));
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(exchangeRecord(kCallLog, CMD_BEGIN_TRANSACTION, record), SCARD_W_REMOVED_CARD);
    EXPECT_THAT(log().entries(), IsEmpty());
}

TEST_F(ExchangeTest, WarnsOfAFailedSend) {
    EXPECT_CALL(connection(), sendRequest(_, _, _)).WillOnce(Return(SCARD_E_NO_SERVICE));
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(exchangeRecord(kCallLog, CMD_CANCEL, record), SCARD_E_NO_SERVICE);
    EXPECT_THAT(log().entries(), ElementsAre(LogLine('W', "aCall", "Failed to send header")));
}

TEST_F(ExchangeTest, WarnsOfAFailedRead) {
    EXPECT_CALL(connection(), sendRequest(_, _, _)).WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), readMessage(_, _)).WillOnce(Return(SCARD_E_NO_SERVICE));
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(exchangeRecord(kCallLog, CMD_CANCEL, record), SCARD_E_NO_SERVICE);
    EXPECT_THAT(log().entries(), ElementsAre(LogLine('W', "aCall", "Failed to receive data")));
}

TEST_F(ExchangeTest, PassesTheFlagOfARedirectedRequestOn) {
    HandleRecord record = {0x5000001, 0};
    for (const bool flag : {true, false}) {
        EXPECT_CALL(connection(), sendRequestFlagged(CMD_CANCEL, _, 12, flag))
            .WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), readMessage(_, 12)).WillOnce(answer(bytesOf(record)));
        Exchange exchange(kCallLog);
        EXPECT_EQ(exchange.callFlagged(CMD_CANCEL, record, flag), SCARD_S_SUCCESS);
    }
}

TEST_F(ExchangeTest, WarnsOfAFailedSendOfAFlaggedRequest) {
    EXPECT_CALL(connection(), sendRequestFlagged(_, _, _, _)).WillOnce(Return(SCARD_E_NO_SERVICE));
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(Exchange(kCallLog).callFlagged(CMD_CANCEL, record, true), SCARD_E_NO_SERVICE);
    EXPECT_THAT(log().entries(), ElementsAre(LogLine('W', "aCall", "Failed to send header")));
}

TEST_F(ExchangeTest, AnnouncesRecordAndDataThenSendsEach) {
    const Bytes data = {1, 2, 3, 4, 5};
    TransmitRecord record = {0x5000001, 1, 5, 1, 258, 0};
    const Bytes sent = bytesOf(record);
    {
        const InSequence inOrder;
        EXPECT_CALL(connection(), sendHeader(CMD_TRANSMIT, 33)).WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), sendMessage(PointsToBytes(sent), 28))
            .WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), sendMessage(PointsToBytes(data), 5))
            .WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), readMessage(_, 28)).WillOnce(answer(sent));
    }
    EXPECT_EQ(Exchange(kCallLog).callWithData(CMD_TRANSMIT, record, data.data(), 5, "no data"),
              SCARD_S_SUCCESS);
}

TEST_F(ExchangeTest, WritesNoEmptyDataPhase) {
    TransmitRecord record = {0x5000001, 1, 0, 1, 258, 0};
    EXPECT_CALL(connection(), sendHeader(CMD_TRANSMIT, 28)).WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), sendMessage(_, 28)).WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), readMessage(_, 28)).WillOnce(answer(bytesOf(record)));
    EXPECT_EQ(Exchange(kCallLog).callWithData(CMD_TRANSMIT, record, nullptr, 0, "no data"),
              SCARD_S_SUCCESS);
}

TEST_F(ExchangeTest, RefusesASizeThatTheHeaderCannotHold) {
    TransmitRecord record = {};
    const char data = 0;
    EXPECT_EQ(
        Exchange(kCallLog).callWithData(CMD_TRANSMIT, record, &data, 0xFFFFFFFF - 27, "no data"),
        SCARD_E_INVALID_PARAMETER);
    EXPECT_CALL(connection(), sendHeader(CMD_TRANSMIT, 0xFFFFFFFF))
        .WillOnce(Return(SCARD_E_NO_SERVICE));
    EXPECT_EQ(
        Exchange(kCallLog).callWithData(CMD_TRANSMIT, record, &data, 0xFFFFFFFF - 28, "no data"),
        SCARD_E_NO_SERVICE);
}

namespace {

/// Which step of an exchange with data fails, and what is then told.
struct FailingStep {
    int failing;
    const char* warning;
};

void PrintTo(const FailingStep& step, std::ostream* stream) {
    *stream << step.warning;
}

class FailingStepTest : public ExchangeTest, public testing::WithParamInterface<FailingStep> {};

}  // namespace

TEST_P(FailingStepTest, EndsTheExchangeWithAWarning) {
    int step = 0;
    const auto next = [&step] {
        return step++ == GetParam().failing ? SCARD_E_NO_SERVICE : SCARD_S_SUCCESS;
    };
    EXPECT_CALL(connection(), sendHeader(_, _)).Times(AnyNumber()).WillRepeatedly(next);
    EXPECT_CALL(connection(), sendMessage(_, _)).Times(AnyNumber()).WillRepeatedly(next);
    EXPECT_CALL(connection(), readMessage(_, _)).Times(AnyNumber()).WillRepeatedly(next);
    TransmitRecord record = {0x5000001, 1, 3, 1, 258, 0};
    EXPECT_EQ(Exchange(kCallLog).callWithData(CMD_TRANSMIT, record, "abc", 3,
                                              "Failed to send data for send buffer"),
              SCARD_E_NO_SERVICE);
    EXPECT_EQ(step, GetParam().failing + 1) << "steps after the failing one were made";
    EXPECT_THAT(log().entries(), ElementsAre(LogLine('W', "aCall", GetParam().warning)));
}

INSTANTIATE_TEST_SUITE_P(Steps, FailingStepTest,
                         testing::Values(FailingStep{0, "Failed to send header"},
                                         FailingStep{1, "Failed to send data"},
                                         FailingStep{2, "Failed to send data for send buffer"},
                                         FailingStep{3, "Failed to receive data"}),
                         [](const auto& test) { return "Step" + std::to_string(test.index); });

TEST_F(ExchangeTest, ReadsWhatWasAnnouncedInPieces) {
    EXPECT_CALL(connection(), readMessage(_, 3)).WillOnce(answer({1, 2, 3}));
    EXPECT_CALL(connection(), readMessage(_, 2)).WillOnce(answer({4, 5}));
    Bytes bytes(5);
    Exchange exchange(kCallLog);
    exchange.announce(5);
    EXPECT_EQ(exchange.readAnnounced(bytes.data(), 3, "no data"), SCARD_S_SUCCESS);
    EXPECT_EQ(exchange.readAnnounced(bytes.data() + 3, 2, "no data"), SCARD_S_SUCCESS);
    EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4, 5}));
}

TEST_F(ExchangeTest, ClosesThePipeOverAnnouncedBytesThatWereNotRead) {
    {
        Exchange exchange(kCallLog);
        exchange.announce(5);
        EXPECT_CALL(connection(), closeSocket());
    }
    verifyUntilHere();
}

TEST_F(ExchangeTest, ClosesThePipeOverARestThatWasNotRead) {
    EXPECT_CALL(connection(), readMessage(_, 3)).WillOnce(answer({1, 2, 3}));
    {
        Bytes bytes(3);
        Exchange exchange(kCallLog);
        exchange.announce(5);
        EXPECT_EQ(exchange.readAnnounced(bytes.data(), 3, "no data"), SCARD_S_SUCCESS);
        EXPECT_CALL(connection(), closeSocket());
    }
    verifyUntilHere();
}

TEST_F(ExchangeTest, WarnsOfAFailedReadOfAnnouncedBytesInTheCallersWords) {
    EXPECT_CALL(connection(), readMessage(_, 5)).WillOnce(Return(SCARD_E_NO_SERVICE));
    {
        Bytes bytes(5);
        Exchange exchange(kCallLog);
        exchange.announce(5);
        EXPECT_EQ(exchange.readAnnounced(bytes.data(), 5, "Failed to read names"),
                  SCARD_E_NO_SERVICE);
        EXPECT_CALL(connection(), closeSocket());
    }
    EXPECT_THAT(log().entries(), ElementsAre(LogLine('W', "aCall", "Failed to read names")));
    verifyUntilHere();
}

TEST_F(ExchangeTest, AsksForTheMinorVersionUnderTheMajorOfTheState) {
    EXPECT_CALL(connection(), isProtocolAtLeast(1, 3)).WillOnce(Return(true));
    EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(false));
    const Exchange exchange(kCallLog);
    EXPECT_TRUE(exchange.isMinorAtLeast(ServiceState::LocalFirst, 3));
    EXPECT_FALSE(exchange.isMinorAtLeast(ServiceState::RemoteOnly, 3));
}

TEST_F(ExchangeTest, BeginsAnewWhenTheHeaderWasCarriedOverToTheOtherSideOfAGate) {
    HandleRecord record = {0x5000001, 0};
    {
        const InSequence inOrder;
        EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(true));
        EXPECT_CALL(connection(), sendHeader(CMD_TRANSMIT, 12)).WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(false));
        EXPECT_CALL(connection(), closeSocket());
        EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(false));
        EXPECT_CALL(connection(), sendHeader(CMD_TRANSMIT, 12)).WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(false));
        EXPECT_CALL(connection(), sendMessage(PointsToBytes(bytesOf(record)), 12))
            .WillOnce(Return(SCARD_S_SUCCESS));
        EXPECT_CALL(connection(), readMessage(_, 12)).WillOnce(answer(bytesOf(record)));
    }
    Exchange exchange(kCallLog);
    std::vector<bool> attempts;
    EXPECT_EQ(exchange.adapt(ServiceState::RemoteOnly, kUnlimitedData,
                             [&](bool isMet) {
                                 attempts.push_back(isMet);
                                 return exchange.call(CMD_TRANSMIT, record);
                             }),
              SCARD_S_SUCCESS);
    EXPECT_THAT(attempts, ElementsAre(true, false));
    EXPECT_THAT(log().entries(), IsEmpty());
}

TEST_F(ExchangeTest, DoesNotAskForAVersionWhereThereIsNoGate) {
    HandleRecord record = {0x5000001, 0};
    EXPECT_CALL(connection(), sendRequestFlagged(CMD_AUDIT, _, 12, false))
        .WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_CALL(connection(), readMessage(_, 12)).WillOnce(answer(bytesOf(record)));
    Exchange exchange(kCallLog);
    EXPECT_EQ(exchange.ifCompatible(ServiceState::RemoteOnly,
                                    [&] { return exchange.callFlagged(CMD_AUDIT, record, false); }),
              SCARD_S_SUCCESS);
}

TEST_F(ExchangeTest, ForgetsAGateThatAnExchangeHasPassed) {
    HandleRecord record = {0x5000001, 0};
    EXPECT_CALL(connection(), isProtocolAtLeast(0, 3)).WillOnce(Return(true));
    Exchange exchange(kCallLog);
    EXPECT_EQ(exchange.adapt(ServiceState::RemoteOnly, kUnlimitedData,
                             [](bool) { return SCARD_S_SUCCESS; }),
              SCARD_S_SUCCESS);
    EXPECT_CALL(connection(), sendRequest(CMD_DISCONNECT, _, 12))
        .WillOnce(Return(SCARD_E_NO_SERVICE));
    EXPECT_EQ(exchange.call(CMD_DISCONNECT, record), SCARD_E_NO_SERVICE);
}

TEST(ExchangeWithoutAConnection, AnswersNoService) {
    setServiceState(ServiceState::LocalOnly);
    Exchange exchange(kCallLog);
    EXPECT_FALSE(exchange.hasConnection());
    EXPECT_FALSE(exchange.isConnected());
    HandleRecord record = {0x5000001, 0};
    EXPECT_EQ(exchangeRecord(kCallLog, CMD_CANCEL, record), SCARD_E_NO_SERVICE);
}
