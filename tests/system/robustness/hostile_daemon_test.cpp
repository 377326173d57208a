// What becomes of single answers of a daemon that announces what nobody has room for, or leaves off
// in the middle.
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::ElementsAre;
using testing::StartsWith;
using namespace std::string_literals;

constexpr std::size_t kListSize = 16;
constexpr std::size_t kTransmitSize = 28;

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

TEST_F(HostileDaemonTest, AnAtrLongerThanItsFieldIsToldInTheLog) {
    connectCard();
    daemon.on(Command::kStatus, answering(288, {{280, 265}, {284, 0}}));
    const GuardedBuffer atr(1000);
    length = 1000;
    EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, atr.data(), &length),
                Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(length, 1000U);
    EXPECT_THAT(log().messages("SCardStatusA", 'W'),
                ElementsAre(StartsWith("Received an ATR length of 265")));
}

TEST_F(HostileDaemonTest, ControlOutputWithoutABufferIsNotWritten) {
    connectCard();
    daemon.on(Command::kControl, answering(kTransmitSize, {{20, 4}}, sampleBytes(4)));
    EXPECT_THAT(controlTo(nullptr, 4), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 4U);
    EXPECT_TRUE(hangsUpAfter(Command::kControl));
    expectOrder();
}

TEST_F(HostileDaemonTest, ATransmitThatBreaksOffIsToldInTheLogWithThePlace) {
    connectCard();
    for (const std::size_t piece : {kTransmitSize, getChallenge().size()}) {
        const FailingWrites broken([piece](DWORD size) { return size == piece; });
        EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(SCARD_E_NO_SERVICE));
        EXPECT_EQ(length, 10U);
    }
    daemon.on(Command::kTransmit,
              answeringAndClosing(kTransmitSize, {{16, 2}, {20, 4}}, {0xAA, 0xBB, 0x90}));
    EXPECT_THAT(transmitTo(GuardedBuffer(10)), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(length, 10U);
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre("Failed to send data", "Failed to send data for send buffer",
                            "Failed to read data for recv buffer"));
    expectOrder();
}

}  // namespace
}  // namespace tez::test
