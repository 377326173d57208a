// A daemon that announces what nobody has room for, or leaves off in the middle: nothing is written
// outside of the caller's buffers, and no later call reads what was left over.
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using namespace std::string_literals;

constexpr std::size_t kListSize = 16;
constexpr std::size_t kTransmitSize = 28;
constexpr std::size_t kStatusSize = 288;
constexpr std::size_t kAttributeSize = 284;

class HostileDaemonTest : public RemoteCardTest {
  protected:
    LONG transmitTo(const GuardedBuffer& receive) {
        length = static_cast<DWORD>(receive.size());
        return SCardTransmit(card.handle, SCARD_PCI_T1, getChallenge().data(), 5, nullptr,
                             receive.data(), &length);
    }

    LONG controlTo(void* output, std::size_t room) {
        return SCardControl(card.handle, SCARD_CTL_CODE(kControlEcho), nullptr, 0, output,
                            static_cast<DWORD>(room), &length);
    }

    LONG getAttributeTo(const GuardedBuffer& value) {
        length = static_cast<DWORD>(value.size());
        return SCardGetAttrib(card.handle, SCARD_ATTR_VENDOR_NAME, value.data(), &length);
    }

    /// A call after another one's failure gets its own answer.
    void expectOrder() {
        EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardEndTransaction(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    }

    void announceNames(std::uint32_t size, const Bytes& names) {
        daemon.on(Command::kListReaders, answering(kListSize, {{8, size}}, names));
    }

    DWORD length = 0;
};

TEST_F(HostileDaemonTest, MoreReaderNamesThanThereIsRoomForAreLeftOut) {
    connectCard();
    announceNames(2049, Bytes(2049, 'R'));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().messages("SCardListReadersA", 'W'),
                ElementsAre("Received reader names of 2049 bytes, maximum value is 2048"));
    EXPECT_TRUE(hangsUpAfter(Command::kListReaders));
    expectOrder();
    daemon.restore(Command::kListReaders);
    EXPECT_THAT(listReaders(context), ElementsAre(kRemoteReader, kHostReader));
}

TEST_F(HostileDaemonTest, ReaderNamesOfAGiantLengthAreLeftOut) {
    connectCard();
    announceNames(0xFFFFFFFF, {});
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_TRUE(hangsUpAfter(Command::kListReaders));
    expectOrder();
}

TEST_F(HostileDaemonTest, AsManyReaderNamesAsThereIsRoomForAreTaken) {
    connectCard();
    Bytes names(2048, 'R');
    names[2046] = names[2047] = 0;
    announceNames(2048, names);
    EXPECT_THAT(listReaders(context), ElementsAre(std::string(2046, 'R'), kHostReader));
    expectOrder();
}

TEST_F(HostileDaemonTest, NoReaderNamesAtAllAreAnEmptyList) {
    connectCard();
    announceNames(0, {});
    const GuardedBuffer buffer(15);
    length = 15;
    EXPECT_THAT(SCardListReadersA(context, nullptr, buffer.as<char>(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(buffer.as<char>(), length), "Host Reader 0\0\0"s);
}

TEST_F(HostileDaemonTest, ReaderNamesWithoutAnEndAreGivenOne) {
    connectCard();
    for (const Bytes& names :
         {Bytes{'A', 0, 'B'}, Bytes{'A', 0, 'B', 0}, Bytes{'A', 0, 'B', 0, 0}}) {
        announceNames(static_cast<std::uint32_t>(names.size()), names);
        EXPECT_THAT(listReaders(context), ElementsAre("A", "B", kHostReader));
    }
}

TEST_F(HostileDaemonTest, AnAtrLongerThanItsFieldIsAnInternalError) {
    connectCard();
    const GuardedBuffer atr(1000);
    for (const std::uint32_t size : {265U, 1000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(size);
        daemon.on(Command::kStatus, answering(kStatusSize, {{280, size}, {284, 0}}));
        length = 1000;
        EXPECT_THAT(
            SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, atr.data(), &length),
            Gives(SCARD_F_INTERNAL_ERROR));
        EXPECT_TRUE(atr.untouched());
        EXPECT_EQ(length, 1000U);
    }
    EXPECT_THAT(log().messages("SCardStatusA", 'W'),
                Contains(StartsWith("Received an ATR length of 265")));
    expectOrder();
}

TEST_F(HostileDaemonTest, AnAtrThatFillsItsFieldIsHandedOut) {
    connectCard();
    daemon.on(Command::kStatus, answering(kStatusSize, {{280, 264}, {284, 0}}));
    const GuardedBuffer atr(264);
    length = 264;
    EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, atr.data(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(Bytes(atr.bytes().begin(), atr.bytes().end()), Bytes(264));
}

TEST_F(HostileDaemonTest, AnApduLongerThanTheCallersBufferIsNotWritten) {
    connectCard();
    daemon.on(Command::kTransmit, answering(kTransmitSize, {{16, 2}, {20, 11}}, sampleBytes(11)));
    const GuardedBuffer receive(10);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 11U);
    EXPECT_TRUE(receive.untouched());
    EXPECT_TRUE(hangsUpAfter(Command::kTransmit));
    expectOrder();
}

TEST_F(HostileDaemonTest, AnApduOfAGiantLengthIsNotWritten) {
    connectCard();
    daemon.on(Command::kTransmit, answering(kTransmitSize, {{16, 2}, {20, 0xFFFFFFFF}}));
    const GuardedBuffer receive(10);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 0xFFFFFFFFU);
    EXPECT_TRUE(receive.untouched());
    EXPECT_TRUE(hangsUpAfter(Command::kTransmit));
    expectOrder();
}

TEST_F(HostileDaemonTest, ControlOutputLongerThanTheCallersBufferIsNotWritten) {
    connectCard();
    daemon.on(Command::kControl, answering(kTransmitSize, {{20, 11}}, sampleBytes(11)));
    const GuardedBuffer output(10);
    EXPECT_THAT(controlTo(output.data(), 10), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 11U);
    EXPECT_TRUE(output.untouched());
    EXPECT_TRUE(hangsUpAfter(Command::kControl));
    expectOrder();
}

TEST_F(HostileDaemonTest, ControlOutputWithoutABufferIsNotWritten) {
    connectCard();
    daemon.on(Command::kControl, answering(kTransmitSize, {{20, 4}}, sampleBytes(4)));
    EXPECT_THAT(controlTo(nullptr, 4), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 4U);
    EXPECT_TRUE(hangsUpAfter(Command::kControl));
    expectOrder();
}

TEST_F(HostileDaemonTest, AnAttributeOfAGiantLengthIsTooMuchMemory) {
    connectCard();
    for (const std::uint32_t size : {16U * 1024 * 1024 + 1, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(size);
        daemon.on(Command::kGetAttribute, answering(kAttributeSize, {{276, size}}));
        const GuardedBuffer value(10);
        EXPECT_THAT(getAttributeTo(value), Gives(SCARD_E_NO_MEMORY));
        EXPECT_EQ(length, 10U);
        EXPECT_TRUE(value.untouched());
        EXPECT_TRUE(hangsUpAfter(Command::kGetAttribute));
        expectOrder();
    }
}

TEST_F(HostileDaemonTest, AnApduCutShortIsNoService) {
    connectCard();
    daemon.on(Command::kTransmit,
              answeringAndClosing(kTransmitSize, {{16, 2}, {20, 4}}, {0xAA, 0xBB, 0x90}));
    EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(length, 10U);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Failed to read data for recv buffer"));
    expectOrder();
}

TEST_F(HostileDaemonTest, ADaemonThatClosesBehindTheRecordGivesNoApdu) {
    connectCard();
    daemon.on(Command::kTransmit, answeringAndClosing(kTransmitSize, {{16, 2}, {20, 4}}));
    const GuardedBuffer receive(10);
    EXPECT_THAT(transmitTo(receive), Gives(SCARD_E_NO_SERVICE));
    EXPECT_TRUE(receive.untouched());
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Failed to read data for recv buffer"));
    expectOrder();
}

TEST_F(HostileDaemonTest, APipeThatBreaksAtTheTransmitRecordTakesNoCommand) {
    connectCard();
    {
        const FailingWrites broken([](DWORD size) { return size == kTransmitSize; });
        EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(SCARD_E_NO_SERVICE));
    }
    EXPECT_EQ(length, 10U);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'), ElementsAre("Failed to send data"));
    expectOrder();
}

TEST_F(HostileDaemonTest, APipeThatBreaksAtTheCommandTakesNoneOfIt) {
    connectCard();
    {
        const FailingWrites broken([](DWORD size) { return size == 5; });
        EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(SCARD_E_NO_SERVICE));
    }
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Failed to send data for send buffer"));
    expectOrder();
}

TEST_F(HostileDaemonTest, AWrongAnswerWithoutADataPhaseIsNotWaitedFor) {
    connectCard();
    // A result that is no success announces nothing, whatever the length says.
    daemon.on(Command::kTransmit, answering(kTransmitSize, {{20, 0xFFFF}, {24, 0xFFFFFFFF}}));
    EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(-1));
    EXPECT_EQ(length, 10U);
    daemon.on(Command::kGetAttribute, answering(kAttributeSize, {{276, 0xFFFF}, {280, 1}}));
    EXPECT_THAT(getAttributeTo(GuardedBuffer(10)), Gives(1));
    EXPECT_EQ(length, 10U);
    daemon.on(Command::kListReaders, answering(kListSize, {{8, 0xFFFF}, {12, 0x7FFFFFFF}}));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    const std::size_t opens = transport().opens();
    expectOrder();
    EXPECT_EQ(transport().opens(), opens);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'), IsEmpty());
}

}  // namespace
}  // namespace tez::test
