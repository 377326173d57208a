// SCardTransmit: its arguments, its records and what the caller gets.
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

class TransmitTest : public RemoteCardTest {
  protected:
    /// Transmits on `card`; the answer goes to `receive`, whose size is told as its room.
    LONG transmitTo(const GuardedBuffer& receive, const Bytes& send = getChallenge(),
                    SCARD_IO_REQUEST* receivePci = nullptr,
                    const SCARD_IO_REQUEST& sendPci = g_rgSCardT1Pci) {
        length = static_cast<DWORD>(receive.size());
        return SCardTransmit(card.handle, &sendPci, send.data(), static_cast<DWORD>(send.size()),
                             receivePci, receive.data(), &length);
    }

    /// Lets the daemon answer every transmit with these bytes, sent by this protocol.
    void answerWith(const Bytes& response, std::uint32_t protocol = 2) {
        daemon.on(Command::kTransmit,
                  answering(TransmitLayout::kSize,
                            {{16, protocol}, {20, static_cast<std::uint32_t>(response.size())}},
                            response));
    }

    static RecordBytes transmitRecord(const Bytes& send, std::size_t room,
                                      std::uint32_t sendProtocol = 2,
                                      std::uint32_t receiveProtocol = 0xFFFFFFFF) {
        return RecordBytes(TransmitLayout::kSize)
            .u64(TransmitLayout::kCard, kDaemonCard)
            .u32(TransmitLayout::kSendProtocol, sendProtocol)
            .u32(TransmitLayout::kSendLength, static_cast<std::uint32_t>(send.size()))
            .u32(TransmitLayout::kReceiveProtocol, receiveProtocol)
            .u32(TransmitLayout::kReceiveLength, static_cast<std::uint32_t>(room))
            .append(send);
    }

    DWORD length = 0;
};

TEST(ExportedProtocolControls, NameTheProtocolAndTheirSize) {
    EXPECT_EQ(g_rgSCardT0Pci.dwProtocol, 1U);
    EXPECT_EQ(g_rgSCardT0Pci.cbPciLength, 8U);
    EXPECT_EQ(g_rgSCardT1Pci.dwProtocol, 2U);
    EXPECT_EQ(g_rgSCardT1Pci.cbPciLength, 8U);
    EXPECT_EQ(g_rgSCardRawPci.dwProtocol, 0x10000U);
    EXPECT_EQ(g_rgSCardRawPci.cbPciLength, 8U);
}

TEST_F(TransmitTest, SendsHeaderRecordAndCommandAndReadsTheAnswerIntoTheCallersBuffer) {
    connectCard();
    answerWith({0xAA, 0xBB, 0x90, 0x00});
    const GuardedBuffer receive(258);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_S_SUCCESS));
    // The header announces 33: the record's 28 and the command's 5.
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kTransmit, transmitRecord(getChallenge(), 258))));
    EXPECT_THAT(receive.bytes().first(length), ElementsAre(0xAA, 0xBB, 0x90, 0x00));
    EXPECT_TRUE(receive.untouchedFrom(4));
}

TEST_F(TransmitTest, TakesNoMemory) {
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "error");  // lines of the log take some
    connectCard();
    const GuardedBuffer receive(258);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_S_SUCCESS));
    HeapSpy heap;
    heap.refuseNth(1);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_S_SUCCESS));
    EXPECT_FALSE(heap.stopRefusing());
}

TEST_F(TransmitTest, LogsItsParametersTheProtocolsAndItsResult) {
    connectCard();
    answerWith({0x90, 0x00}, 1);
    const GuardedBuffer receive(2);
    ASSERT_THAT(transmitTo(receive), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardTransmit"),
                ElementsAre("TRANSMIT IN-PARAMS: 1, " + logged(&g_rgSCardT1Pci) + ", " +
                                logged(nullptr) + " (4294967295)",
                            "Using receive protocol 4294967295", "Used receive protocol 1",
                            "TRANSMIT OUT-PARAMS: 1, 2", "TRANSMIT RV: 0x00000000"));
}

TEST_F(TransmitTest, LogsTheReceivePciAndItsProtocol) {
    connectCard();
    answerWith({0x90, 0x00});
    const GuardedBuffer receive(2);
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_RAW, 8};
    ASSERT_THAT(transmitTo(receive, getChallenge(), &receivePci), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardTransmit"),
                ElementsAre("TRANSMIT IN-PARAMS: 1, " + logged(&g_rgSCardT1Pci) + ", " +
                                logged(&receivePci) + " (65536)",
                            "Using receive protocol 4", "Used receive protocol 2",
                            "TRANSMIT OUT-PARAMS: 2, 2", "TRANSMIT RV: 0x00000000"));
}

TEST_F(TransmitTest, ConvertsTheProtocolsOfBothPcis) {
    connectCard();
    answerWith({0x90, 0x00}, 4);
    const GuardedBuffer receive(2);
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_RAW, 99};
    EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci, g_rgSCardRawPci),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kTransmit,
                                                         transmitRecord(getChallenge(), 2, 4, 4))));
    EXPECT_EQ(receivePci.dwProtocol, DWORD{SCARD_PROTOCOL_RAW});
    EXPECT_EQ(receivePci.cbPciLength, 8U);
}

TEST_F(TransmitTest, TellsTheProtocolOfTheAnswerRawFirstThenT0ThenT1) {
    connectCard();
    const std::pair<std::uint32_t, DWORD> protocols[] = {
        {1, 1}, {2, 2}, {3, 1}, {4, 0x10000}, {7, 0x10000}, {0x10001, 0x10000}, {0x80000002, 2}};
    for (const auto& [wire, platform] : protocols) {
        SCOPED_TRACE(wire);
        answerWith({0x90, 0x00}, wire);
        const GuardedBuffer receive(2);
        SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T1, 99};
        EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(receivePci.dwProtocol, platform);
        EXPECT_EQ(receivePci.cbPciLength, 8U);
    }
}

TEST_F(TransmitTest, DeliversAnAnswerWithoutAProtocolWithAWarning) {
    connectCard();
    for (const std::uint32_t wire : {0U, 8U}) {
        answerWith({0x61, 0x05}, wire);
        const GuardedBuffer receive(4);
        SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T1, 99};
        EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(length, 2U);
        EXPECT_THAT(receive.bytes().first(2), ElementsAre(0x61, 0x05));
        EXPECT_EQ(receivePci.dwProtocol, DWORD{SCARD_PROTOCOL_T1});
        EXPECT_EQ(receivePci.cbPciLength, 99U);
    }
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Received protocol 0 is not supported",
                            "Received protocol 8 is not supported"));
}

TEST_F(TransmitTest, AcceptsOneProtocolAndIgnoresTheOtherBits) {
    connectCard();
    const std::pair<DWORD, std::uint32_t> protocols[] = {
        {1, 1}, {2, 2}, {0x10000, 4}, {0x80000001, 0x80000001}, {0xFFFEFFFE, 0xFFFEFFFE}};
    for (const auto& [platform, wire] : protocols) {
        SCOPED_TRACE(platform);
        answerWith({0x90, 0x00});
        daemon.clearRecords();
        const GuardedBuffer receive(2);
        SCARD_IO_REQUEST receivePci = {platform, 8};
        EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci, {platform, 8}),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(),
                    ElementsAre(IsRequest(Command::kTransmit,
                                          transmitRecord(getChallenge(), 2, wire, wire))));
    }
}

TEST_F(TransmitTest, RefusesAnyOtherNumberOfProtocols) {
    connectCard();
    const GuardedBuffer receive(2);
    for (const DWORD protocol : {0UL, 3UL, 4UL, 0x10001UL, 0x10003UL, 0x80000000UL}) {
        SCOPED_TRACE(protocol);
        EXPECT_THAT(transmitTo(receive, getChallenge(), nullptr, {protocol, 8}),
                    Gives(SCARD_E_INVALID_PARAMETER));
        EXPECT_THAT(log().messages("SCardTransmit", 'W').back(),
                    "Protocol " + logged(protocol) + " for pioSendPci is not supported");
        SCARD_IO_REQUEST receivePci = {protocol, 99};
        EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci),
                    Gives(SCARD_E_INVALID_PARAMETER));
        EXPECT_THAT(log().messages("SCardTransmit", 'W').back(),
                    "Protocol " + logged(protocol) + " for pioRecvPci is not supported");
        EXPECT_EQ(receivePci.cbPciLength, 99U);
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_TRUE(receive.untouched());
    EXPECT_EQ(length, 2U);
}

TEST_F(TransmitTest, RefusesNullPointersOfARemoteCard) {
    connectCard();
    const GuardedBuffer receive(2);
    length = 2;
    const BYTE* const send = getChallenge().data();
    const auto refuse = [&](const SCARD_IO_REQUEST* sendPci, const BYTE* sendBuffer,
                            BYTE* receiveBuffer, DWORD* receiveLength) {
        EXPECT_THAT(SCardTransmit(card.handle, sendPci, sendBuffer, 5, nullptr, receiveBuffer,
                                  receiveLength),
                    Gives(SCARD_E_INVALID_PARAMETER));
        EXPECT_THAT(log().messages("SCardTransmit", 'W').back(),
                    "pbSendBuffer (" + logged(sendBuffer) + "), pbRecvBuffer(" +
                        logged(receiveBuffer) + "), pcbRecvLength(" + logged(receiveLength) +
                        "), pioSendPci(" + logged(sendPci) + ") cannot be NULL");
    };
    refuse(nullptr, send, receive.data(), &length);
    refuse(SCARD_PCI_T1, nullptr, receive.data(), &length);
    refuse(SCARD_PCI_T1, send, nullptr, &length);
    refuse(SCARD_PCI_T1, send, receive.data(), nullptr);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(TransmitTest, WritesHeaderRecordAndCommandAsOnePieceEach) {
    connectCard();
    answerWith({0x90, 0x00});
    std::vector<DWORD> sizes;
    const FailingWrites writes([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    EXPECT_THAT(transmitTo(GuardedBuffer(2)), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12, 28, 5));
}

TEST_F(TransmitTest, WritesNoEmptyPieceForAnEmptyCommand) {
    connectCard();
    answerWith({0x67, 0x00});
    std::vector<DWORD> sizes;
    const FailingWrites writes([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    const GuardedBuffer receive(2);
    length = 2;
    EXPECT_THAT(SCardTransmit(card.handle, SCARD_PCI_T1, getChallenge().data(), 0, nullptr,
                              receive.data(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12, 28));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kTransmit, transmitRecord({}, 2))));
}

TEST_F(TransmitTest, CarriesAsMuchAsAnOldDaemonTakes) {
    connectCard({1, 2});
    const Bytes command = sampleBytes(kOldDaemonsLimit);
    answerWith(sampleBytes(kOldDaemonsLimit));
    const GuardedBuffer receive(kOldDaemonsLimit);
    EXPECT_THAT(transmitTo(receive, command), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        daemon.requests(),
        ElementsAre(IsRequest(Command::kTransmit, transmitRecord(command, kOldDaemonsLimit))));
    EXPECT_EQ(length, kOldDaemonsLimit);
    EXPECT_EQ(Bytes(receive.bytes().begin(), receive.bytes().end()), command);
}

TEST_F(TransmitTest, RefusesMoreThanAnOldDaemonTakes) {
    connectCard({1, 2});
    const GuardedBuffer receive(kOldDaemonsLimit + 1);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, kOldDaemonsLimit + 1);
    EXPECT_THAT(transmitTo(GuardedBuffer(2), sampleBytes(kOldDaemonsLimit + 1)),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 2U);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Provided buffers are too big: cbSendLength is 5 and cbRecvLength is "
                            "65549, maximum value is 65548",
                            "Provided buffers are too big: cbSendLength is 65549 and cbRecvLength "
                            "is 2, maximum value is 65548"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(TransmitTest, HasNoLimitWithADaemonOfVersion13) {
    connectCard({1, 3});
    const Bytes command = sampleBytes(100'000);
    answerWith(sampleBytes(100'000));
    const GuardedBuffer receive(100'000);
    EXPECT_THAT(transmitTo(receive, command), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kTransmit, transmitRecord(command, 100'000))));
    EXPECT_EQ(length, 100'000U);
    EXPECT_EQ(Bytes(receive.bytes().begin(), receive.bytes().end()), command);
}

TEST_F(TransmitTest, RefusesACommandThatNoHeaderCanAnnounce) {
    connectCard();
    const GuardedBuffer receive(2);
    length = 2;
    for (const DWORD size : {0xFFFFFFFFUL, 0xFFFFFFFFUL - 27}) {
        // The command is not looked at: it could not be that long.
        EXPECT_THAT(SCardTransmit(card.handle, SCARD_PCI_T1, getChallenge().data(), size, nullptr,
                                  receive.data(), &length),
                    Gives(SCARD_E_INVALID_PARAMETER));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(TransmitTest, AllocatesNoAnswer) {
    connectCard({1, 3});
    answerWith(sampleBytes(100));
    const GuardedBuffer place(sizeof(BYTE*));
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(SCardTransmit(card.handle, SCARD_PCI_T1, getChallenge().data(), 5, nullptr,
                              place.data(), &length),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_TRUE(place.untouched());
    EXPECT_EQ(length, SCARD_AUTOALLOCATE);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("pcbRecvLength cannot be SCARD_AUTOALLOCATE"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(TransmitTest, LeavesTheCallersLengthAndBufferWhenTheDaemonRefuses) {
    connectCard();
    daemon.on(Command::kTransmit,
              answering(TransmitLayout::kSize, {{TransmitLayout::kReceiveProtocol, 1},
                                                {TransmitLayout::kReceiveLength, 1},
                                                {TransmitLayout::kResult, 0x80100069}}));
    const GuardedBuffer receive(20);
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T1, 99};
    EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci), Gives(SCARD_W_REMOVED_CARD));
    EXPECT_EQ(length, 20U);
    EXPECT_TRUE(receive.untouched());
    EXPECT_EQ(receivePci.dwProtocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_EQ(receivePci.cbPciLength, 99U);
    EXPECT_THAT(log().messages("SCardTransmit"),
                ElementsAre(_, "Using receive protocol 2", "TRANSMIT RV: 0x80100069"));
}

TEST_F(TransmitTest, AcceptsAnAnswerOfNoBytes) {
    connectCard();
    answerWith({});
    const GuardedBuffer receive(0);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 0U);
}

TEST_F(TransmitTest, OnAHostCardGoesToTheHostWithAllTheCallersPointers) {
    establishContext();
    card = connect(context, kHostReader);
    const GuardedBuffer receive(258);
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T0, 8};
    const BYTE* const send = getChallenge().data();
    EXPECT_CALL(host, SCardTransmit(kHostCard, SCARD_PCI_T1, send, 5, &receivePci, receive.data(),
                                    &length));
    EXPECT_THAT(transmitTo(receive, getChallenge(), &receivePci), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 10U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardTransmit"),
                ElementsAre(_, "TRANSMIT OUT-PARAMS: 2, 10", "TRANSMIT RV: 0x00000000"));
}

TEST_F(TransmitTest, OnAHostCardLeavesAllArgumentsToTheHostsJudgement) {
    establishContext();
    card = connect(context, kHostReader);
    EXPECT_CALL(host, SCardTransmit(kHostCard, nullptr, nullptr, 99, nullptr, nullptr, nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE))
        .WillOnce(Return(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardTransmit(card.handle, nullptr, nullptr, 99, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardTransmit(card.handle, nullptr, nullptr, 99, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardTransmit", 'W'), IsEmpty());
    EXPECT_THAT(log().messages("SCardTransmit"), Contains("TRANSMIT OUT-PARAMS: 4294967295, 0"));
}

}  // namespace
}  // namespace tez::test
