#include "guarded_buffer.h"
#include "remote_only_test.h"

using namespace tez;
using test::Bytes;
using test::Command;
using test::ControlLayout;
using test::GuardedBuffer;
using test::IsSent;
using test::LogLine;
using test::RecordBytes;
using test::TransmitLayout;
using testing::Contains;
using testing::IsEmpty;

namespace {

constexpr DWORD kLimit = 65548;

RecordBytes transmitRecord(std::uint32_t sendLength, std::uint32_t receiveProtocol,
                           std::uint32_t receiveLength, std::uint32_t rv = 0) {
    return RecordBytes(TransmitLayout::kSize)
        .u64(TransmitLayout::kCard, 0x6000001)
        .u32(TransmitLayout::kSendProtocol, 2)
        .u32(TransmitLayout::kSendLength, sendLength)
        .u32(TransmitLayout::kReceiveProtocol, receiveProtocol)
        .u32(TransmitLayout::kReceiveLength, receiveLength)
        .u32(TransmitLayout::kResult, rv);
}

RecordBytes controlRecord(std::uint32_t inLength, std::uint32_t outLength, std::uint32_t returned,
                          std::uint32_t rv = 0) {
    return RecordBytes(ControlLayout::kSize)
        .u64(ControlLayout::kCard, 0x6000001)
        .u32(ControlLayout::kFunction, 0xD48)
        .u32(ControlLayout::kInLength, inLength)
        .u32(ControlLayout::kOutLength, outLength)
        .u32(ControlLayout::kReturned, returned)
        .u32(ControlLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyTransfer : public test::RemoteOnlyTest {
  protected:
    /// Transmits so many bytes, with room for so many.
    LONG transmit(DWORD sendLength, DWORD receiveLength) {
        const Bytes command(sendLength, 0xA5);
        const GuardedBuffer response(receiveLength);
        receiveLength_ = receiveLength;
        return SCardTransmit(remoteCard(), &g_rgSCardT1Pci, command.data(), sendLength, nullptr,
                             response.data(), &receiveLength_);
    }
    DWORD receiveLength() const { return receiveLength_; }

  private:
    DWORD receiveLength_ = 0;
};

TEST_F(RemoteOnlyTransfer, TransmitsAtTheDaemon) {
    const SCARDHANDLE card = remoteCard();
    const Bytes command = {0x00, 0xA4, 0x04, 0x00, 0x00};
    const Bytes answer = {0x6F, 0x00, 0x90, 0x00};
    daemon().answers = {transmitRecord(5, 2, 4), answer};
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T1, 77};
    const GuardedBuffer response(258);
    DWORD length = 258;
    EXPECT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, command.data(), 5, &receivePci, response.data(),
                            &length),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kTransmit, transmitRecord(5, 2, 258).append(command)));
    EXPECT_EQ(test::copyBytes(response.data(), length), answer);
    EXPECT_TRUE(response.untouchedFrom(4));
    EXPECT_EQ(receivePci.dwProtocol, static_cast<DWORD>(SCARD_PROTOCOL_T1));
    EXPECT_EQ(receivePci.cbPciLength, 8U);
}

TEST_F(RemoteOnlyTransfer, ConvertsTheProtocolsOfATransmitWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDHANDLE card = remoteCard();
    daemon().answers = {transmitRecord(1, 4, 0), {}};
    SCARD_IO_REQUEST receivePci = g_rgSCardRawPci;
    BYTE response[2];
    DWORD length = sizeof(response);
    EXPECT_EQ(SCardTransmit(card, &g_rgSCardRawPci, response, 1, &receivePci, response, &length),
              SCARD_S_SUCCESS);
    const Bytes sent = takeRequest().body;
    ASSERT_EQ(sent.size(), TransmitLayout::kSize + 1);
    EXPECT_EQ(sent[TransmitLayout::kSendProtocol], 4);
    EXPECT_EQ(sent[TransmitLayout::kReceiveProtocol], 4);
    EXPECT_EQ(receivePci.dwProtocol, 0x10000U);
    EXPECT_EQ(length, 0U);
}

TEST_F(RemoteOnlyTransfer, TransmitsUpToTheLimitOfAnOldDaemon) {
    daemon().versionMinor = 2;
    daemon().answers = {};
    EXPECT_EQ(transmit(kLimit, kLimit), SCARD_E_NO_SERVICE) << "no answer, but sent";
    EXPECT_THAT(takeRequest().body, SizeIs(TransmitLayout::kSize + kLimit));
}

TEST_F(RemoteOnlyTransfer, RefusesMoreThanTheLimitOfAnOldDaemon) {
    daemon().versionMinor = 2;
    EXPECT_EQ(transmit(kLimit + 1, 2), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(transmit(5, kLimit + 1), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', "SCardTransmit",
                                 "Provided buffers are too big: cbSendLength is 65549 and "
                                 "cbRecvLength is 2, maximum value is 65548")));
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyTransfer, HasNoLimitFromVersionThreeOn) {
    daemon().versionMinor = 3;
    EXPECT_EQ(transmit(kLimit + 1, kLimit + 1), SCARD_E_NO_SERVICE) << "no answer, but sent";
    EXPECT_THAT(takeRequest().body, SizeIs(TransmitLayout::kSize + kLimit + 1));
}

TEST_F(RemoteOnlyTransfer, ClosesThePipeOverAnAnswerThatDoesNotFit) {
    const SCARDHANDLE card = remoteCard();
    daemon().answers = {transmitRecord(1, 2, 3)};
    const GuardedBuffer response(2);
    DWORD length = 2;
    const BYTE command = 0;
    EXPECT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, &command, 1, nullptr, response.data(), &length),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(response.untouched());
    EXPECT_EQ(daemon().timesClosed, 1);
}

TEST_F(RemoteOnlyTransfer, LeavesTheLengthOfARefusedTransmit) {
    daemon().answers = {};
    const SCARDHANDLE card = remoteCard();
    daemon().answers = {transmitRecord(1, 0, 0, 0x80100069)};
    BYTE response[9];
    DWORD length = sizeof(response);
    EXPECT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, response, 1, nullptr, response, &length),
              SCARD_W_REMOVED_CARD);
    EXPECT_EQ(length, 9U);
}

TEST_F(RemoteOnlyTransfer, DoesNotTransmitToACardOfTheHost) {
    const SCARDHANDLE card = registerCardHandle(0x7B000001, boundContext(), "Host", true);
    BYTE response[2];
    DWORD length = sizeof(response);
    EXPECT_EQ(SCardTransmit(card, &g_rgSCardT1Pci, response, 1, nullptr, response, &length),
              SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyTransfer, ControlsAtTheDaemon) {
    const SCARDHANDLE card = remoteCard();
    const Bytes input = {1, 2, 3};
    const Bytes output = {9, 8};
    daemon().answers = {controlRecord(3, 4, 2), output};
    const GuardedBuffer out(4);
    DWORD returned = 77;
    EXPECT_EQ(SCardControl(card, 0x313520, input.data(), 3, out.data(), 4, &returned),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kControl, controlRecord(3, 4, 0).append(input)));
    EXPECT_EQ(returned, 2U);
    EXPECT_EQ(test::copyBytes(out.data(), 2), output);
    EXPECT_TRUE(out.untouchedFrom(2));
}

TEST_F(RemoteOnlyTransfer, ControlsWithoutInputOutputOrCount) {
    const SCARDHANDLE card = remoteCard();
    daemon().answers = {controlRecord(0, 0, 0), {}};
    EXPECT_EQ(SCardControl(card, 0x313520, nullptr, 0, nullptr, 0, nullptr), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kControl, controlRecord(0, 0, 0)));
}

TEST_F(RemoteOnlyTransfer, HoldsControlToTheSameLimits) {
    daemon().versionMinor = 2;
    const SCARDHANDLE card = remoteCard();
    const Bytes input(kLimit + 1);
    DWORD returned = 77;
    EXPECT_EQ(SCardControl(card, 0x313520, input.data(), kLimit + 1, nullptr, 0, &returned),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', "SCardControl",
                                 "Provided buffers are too big: cbSendLength is 65549 and "
                                 "cbRecvLength is 0, maximum value is 65548")));
    EXPECT_THAT(daemon().requests, IsEmpty());
}
