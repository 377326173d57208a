// SCardGetAttrib, in both forms that daemons know.
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "record_codec.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr DWORD kAttribute = SCARD_ATTR_VENDOR_NAME;
constexpr std::uint32_t kAttributeOnWire = 0x00010100;

class AttributeTest : public RemoteCardTest {
  protected:
    LONG get(const GuardedBuffer& value) {
        length = static_cast<DWORD>(value.size());
        return SCardGetAttrib(card.handle, kAttribute, value.data(), &length);
    }

    /// Asks for an allocated value, and frees it.
    void expectAllocated(const Bytes& expected) {
        BYTE* value = nullptr;
        length = SCARD_AUTOALLOCATE;
        ASSERT_THAT(
            SCardGetAttrib(card.handle, kAttribute, reinterpret_cast<LPBYTE>(&value), &length),
            Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(value, value + length), expected);
        EXPECT_THAT(SCardFreeMemory(context, value), Gives(SCARD_S_SUCCESS));
    }

    static RecordBytes record(std::uint32_t size) {
        return RecordBytes(AttributeLayout::kSize)
            .u64(AttributeLayout::kCard, kDaemonCard)
            .u32(AttributeLayout::kId, kAttributeOnWire)
            .u32(AttributeLayout::kLength, size);
    }

    /// Lets the daemon give a value in the fixed form, and say that it has `size` bytes.
    void answerInside(const Bytes& value, std::uint32_t size) {
        daemon.on(Command::kGetAttribute, [value, size](const Request& request) {
            Bytes answer = request.body;
            putBytes(answer, AttributeLayout::kValue, value);
            putU32(answer, AttributeLayout::kLength, size);
            return Reply::of({answer});
        });
    }

    /// Lets the daemon give a value in the newer form.
    void answerBehind(const Bytes& value) {
        daemon.on(Command::kGetAttribute, answering<AttributeLayout>(value));
    }

    DWORD length = 0;
};

TEST_F(AttributeTest, InTheNewerFormFollowsTheRecord) {
    connectCard(kNewerForm);
    answerBehind({1, 2, 3, 4, 5});
    const GuardedBuffer value(9);
    EXPECT_THAT(get(value), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kGetAttribute, record(9))));
    EXPECT_THAT(value.bytes().first(length), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_TRUE(value.untouchedFrom(5));
}

TEST_F(AttributeTest, IsLoggedWithItsLength) {
    connectCard();
    answerBehind({1, 2, 3, 4, 5});
    ASSERT_THAT(get(GuardedBuffer(9)), Gives(SCARD_S_SUCCESS));
    ASSERT_THAT(SCardGetAttrib(card.handle, kAttribute, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages("SCardGetAttrib"),
                ElementsAre("GET_ATTRIB IN-PARAMS: 1, 65792, " + logged(&length) + ", 9",
                            "GET_ATTRIB OUT-PARAMS: 5", "GET_ATTRIB RV: 0x00000000",
                            "GET_ATTRIB IN-PARAMS: 1, 65792, " + logged(nullptr) + ", 0",
                            "GET_ATTRIB RV: 0x80100004"));
}

TEST_F(AttributeTest, OfARemoteCardNeedsALength) {
    connectCard();
    const GuardedBuffer value(9);
    EXPECT_THAT(SCardGetAttrib(card.handle, kAttribute, value.data(), nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(AttributeTest, InTheNewerFormIsAllocatedForACallerWhoWantsThat) {
    connectCard(kNewerForm);
    answerBehind({1, 2, 3, 4, 5});
    expectAllocated({1, 2, 3, 4, 5});
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kGetAttribute, record(SCARD_AUTOALLOCATE))));
}

TEST_F(AttributeTest, InTheFixedFormIsAllocatedForACallerWhoWantsThat) {
    connectCard(kFixedForm);
    answerInside({1, 2, 3, 4, 5}, 5);
    expectAllocated({1, 2, 3, 4, 5});
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kGetAttribute, record(264))));
}

TEST_F(AttributeTest, OfAnyLengthPassesInTheNewerForm) {
    connectCard(kNewerForm);
    const Bytes content = sampleBytes(70'000);
    answerBehind(content);
    const GuardedBuffer value(70'000);
    EXPECT_THAT(get(value), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(Bytes(value.bytes().begin(), value.bytes().end()), content);
}

TEST_F(AttributeTest, WithoutBytesIsASuccess) {
    connectCard();
    answerBehind({});
    EXPECT_THAT(get(GuardedBuffer(0)), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 0U);
}

TEST_F(AttributeTest, ThatIsTheWideFriendlyNameIsPassedOnAsItIs) {
    connectCard();
    const Bytes name = {'A', 0, 'B', 0, 0, 0};
    answerBehind(name);
    const GuardedBuffer value(6);
    length = 6;
    EXPECT_THAT(
        SCardGetAttrib(card.handle, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, value.data(), &length),
        Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(Bytes(value.bytes().begin(), value.bytes().end()), name);
    EXPECT_EQ(u32At(daemon.requests().at(0).body, AttributeLayout::kId), 0x7FFF0005U);
}

TEST_F(AttributeTest, CutShortByTheDaemonIsNoService) {
    connectCard();
    daemon.on(
        Command::kGetAttribute,
        answeringAndClosing(AttributeLayout::kSize, {{AttributeLayout::kLength, 5}}, {1, 2, 3, 4}));
    const GuardedBuffer value(9);
    EXPECT_THAT(get(value), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(length, 9U);
    EXPECT_TRUE(value.untouched());
    EXPECT_THAT(log().messages("SCardGetAttrib", 'W'),
                ElementsAre("Failed to receive data for ATR string"));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(AttributeTest, ForWhichThereIsNoMemoryClosesThePipe) {
    connectCard();
    answerBehind(sampleBytes(54'321));
    HeapSpy heap;
    heap.refuse(54'322);  // the value and a terminator of the library's own
    EXPECT_THAT(get(GuardedBuffer(9)), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(length, 9U);
    // The unread value is not taken for the next call's answer.
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(AttributeTest, InTheFixedFormRidesInsideTheRecord) {
    connectCard(kFixedForm);
    answerInside({1, 2, 3, 4, 5}, 5);
    const GuardedBuffer value(5);
    EXPECT_THAT(get(value), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kGetAttribute, record(5))));
    EXPECT_THAT(value.bytes(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(AttributeTest, InTheFixedFormHasUpTo264Bytes) {
    connectCard(kFixedForm);
    answerInside(sampleBytes(264), 264);
    const GuardedBuffer value(264);
    EXPECT_THAT(get(value), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kGetAttribute, record(264))));
    EXPECT_EQ(Bytes(value.bytes().begin(), value.bytes().end()), sampleBytes(264));
}

TEST_F(AttributeTest, InTheFixedFormRefusesALargerBufferWithoutAsking) {
    connectCard(kFixedForm);
    for (const std::size_t size : {265U, 300U}) {
        const GuardedBuffer value(size);
        EXPECT_THAT(get(value), Gives(SCARD_E_INSUFFICIENT_BUFFER));
        EXPECT_EQ(length, size);
        EXPECT_TRUE(value.untouched());
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(AttributeTest, InTheFixedFormNeedsAPlaceForAnAllocatedValue) {
    connectCard(kFixedForm);
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(SCardGetAttrib(card.handle, kAttribute, nullptr, &length),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(AttributeTest, InTheFixedFormOfMoreThan264BytesIsNotSupported) {
    connectCard(kFixedForm);
    answerInside(sampleBytes(264), 265);
    const GuardedBuffer value(264);
    EXPECT_THAT(get(value), Gives(kNotSupported));
    EXPECT_TRUE(value.untouched());
    EXPECT_EQ(length, 264U);
}

TEST_F(AttributeTest, InTheFixedFormThatDoesNotFitIsRefusedWithItsLength) {
    connectCard(kFixedForm);
    answerInside({1, 2, 3, 4, 5}, 5);
    const GuardedBuffer value(4);
    EXPECT_THAT(get(value), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 5U);
    EXPECT_TRUE(value.untouched());
}

TEST_F(AttributeTest, OfAHostCardComesFromTheHost) {
    establishContext();
    card = connect(context, kHostReader);
    const GuardedBuffer value(100);
    EXPECT_CALL(host, SCardGetAttrib(kHostCard, kAttribute, value.data(), &length));
    EXPECT_THAT(get(value), Gives(SCARD_S_SUCCESS));
    EXPECT_STREQ(value.as<char>(), "Virtual Readers");
    EXPECT_EQ(length, 16U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardGetAttrib"),
                ElementsAre(_, "GET_ATTRIB OUT-PARAMS: 16", "GET_ATTRIB RV: 0x00000000"));
}

TEST_F(AttributeTest, OfAHostCardEndsWithItsContext) {
    establishContext();
    card = connect(context, kHostReader);
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_CALL(host, SCardGetAttrib(_, _, _, _)).Times(0);
    EXPECT_THAT(get(GuardedBuffer(9)), Gives(SCARD_E_INVALID_HANDLE));
}

}  // namespace
}  // namespace tez::test
