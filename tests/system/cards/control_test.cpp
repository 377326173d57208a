// SCardControl
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

class ControlTest : public RemoteCardTest {
  protected:
    LONG control(const Bytes& input, const GuardedBuffer& output,
                 DWORD code = SCARD_CTL_CODE(kControlEcho)) {
        return SCardControl(card.handle, code, input.data(), static_cast<DWORD>(input.size()),
                            output.data(), static_cast<DWORD>(output.size()), &returned);
    }

    static RecordBytes controlRecord(std::uint32_t function, const Bytes& input, std::size_t room) {
        return RecordBytes(ControlLayout::kSize)
            .u64(ControlLayout::kCard, kDaemonCard)
            .u32(ControlLayout::kFunction, function)
            .u32(ControlLayout::kInLength, static_cast<std::uint32_t>(input.size()))
            .u32(ControlLayout::kOutLength, static_cast<std::uint32_t>(room))
            .append(input);
    }

    /// Lets the daemon answer every control with these bytes.
    void answerWith(const Bytes& output) {
        daemon.on(Command::kControl,
                  answering(ControlLayout::kSize,
                            {{ControlLayout::kReturned, static_cast<std::uint32_t>(output.size())}},
                            output));
    }

    DWORD returned = kUntouched;
};

TEST_F(ControlTest, SendsHeaderRecordAndInputAndReadsTheOutput) {
    connectCard();
    answerWith({7, 8, 9});
    const GuardedBuffer output(10);
    EXPECT_THAT(control({1, 2, 3, 4}, output), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kControl, controlRecord(2048, {1, 2, 3, 4}, 10))));
    EXPECT_EQ(returned, 3U);
    EXPECT_THAT(output.bytes().first(3), ElementsAre(7, 8, 9));
    EXPECT_TRUE(output.untouchedFrom(3));
}

TEST_F(ControlTest, LogsItsParametersTheFunctionNumberAndItsResult) {
    connectCard();
    const GuardedBuffer output(10);
    ASSERT_THAT(control({1, 2}, output), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardControl"),
                ElementsAre("CONTROL IN-PARAMS: 1, 3219456, 2",
                            "Control code in input was 3219456, converted to 2048",
                            "CONTROL RV: 0x00000000"));
}

TEST_F(ControlTest, SendsTheFunctionNumberInsideTheControlCode) {
    connectCard();
    const std::pair<DWORD, std::uint32_t> codes[] = {
        {0x313520, 3400}, {0, 0}, {3, 0}, {0xFFFFFFFF, 0xFFF}, {0xFFFFC003, 0}, {0x3FFC, 0xFFF}};
    for (const auto& [code, function] : codes) {
        SCOPED_TRACE(code);
        answerWith({});
        daemon.clearRecords();
        EXPECT_THAT(control({}, GuardedBuffer(0), code), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(),
                    ElementsAre(IsRequest(Command::kControl, controlRecord(function, {}, 0))));
    }
}

TEST_F(ControlTest, NeedsNeitherBuffersNorAPlaceForTheCount) {
    connectCard();
    std::vector<DWORD> sizes;
    const FailingWrites writes([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    EXPECT_THAT(SCardControl(card.handle, SCARD_CTL_CODE(kControlFeatures), nullptr, 0, nullptr, 0,
                             nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kControl, controlRecord(kControlFeatures, {}, 0))));
    EXPECT_THAT(sizes, ElementsAre(12, 28));  // no empty piece behind the record
}

TEST_F(ControlTest, ReadsTheOutputWithoutAPlaceForTheCount) {
    connectCard();
    answerWith({7, 8, 9});
    const GuardedBuffer output(3);
    EXPECT_THAT(SCardControl(card.handle, 0, nullptr, 0, output.data(), 3, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(output.bytes(), ElementsAre(7, 8, 9));
}

TEST_F(ControlTest, RefusesAnInputLengthWithoutAnInput) {
    connectCard();
    EXPECT_THAT(SCardControl(card.handle, 0, nullptr, 1, nullptr, 0, &returned),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ControlTest, RefusesAnInputThatNoHeaderCanAnnounce) {
    connectCard();
    const Bytes input = {1};
    for (const DWORD size : {0xFFFFFFFFUL, 0xFFFFFFFFUL - 27}) {
        EXPECT_THAT(SCardControl(card.handle, 0, input.data(), size, nullptr, 0, &returned),
                    Gives(SCARD_E_INVALID_PARAMETER));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ControlTest, ClearsTheCountWhenTheDaemonRefuses) {
    connectCard();
    daemon.on(Command::kControl,
              answering(ControlLayout::kSize,
                        {{ControlLayout::kReturned, 3}, {ControlLayout::kResult, 0x80100022}}));
    const GuardedBuffer output(10);
    EXPECT_THAT(control({1}, output), Gives(SCARD_E_UNSUPPORTED_FEATURE));
    EXPECT_EQ(returned, 0U);
    EXPECT_TRUE(output.untouched());
    EXPECT_THAT(log().messages("SCardControl"), ElementsAre(_, _, "CONTROL RV: 0x80100022"));
}

TEST_F(ControlTest, CarriesAsMuchAsAnOldDaemonTakes) {
    connectCard({1, 2});
    const Bytes input = sampleBytes(kOldDaemonsLimit);
    const GuardedBuffer output(kOldDaemonsLimit);
    EXPECT_THAT(control(input, output), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(returned, kOldDaemonsLimit);
    EXPECT_EQ(Bytes(output.bytes().begin(), output.bytes().end()), input);
}

TEST_F(ControlTest, RefusesMoreThanAnOldDaemonTakes) {
    connectCard({1, 2});
    EXPECT_THAT(control({1}, GuardedBuffer(kOldDaemonsLimit + 1)),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(control(sampleBytes(kOldDaemonsLimit + 1), GuardedBuffer(3)),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_THAT(log().messages("SCardControl", 'W'),
                ElementsAre("Provided buffers are too big: cbSendLength is 1 and cbRecvLength is "
                            "65549, maximum value is 65548",
                            "Provided buffers are too big: cbSendLength is 65549 and cbRecvLength "
                            "is 3, maximum value is 65548"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ControlTest, HasNoLimitWithADaemonOfVersion13) {
    connectCard({1, 3});
    const Bytes input = sampleBytes(100'000);
    const GuardedBuffer output(100'000);
    EXPECT_THAT(control(input, output), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(returned, 100'000U);
    EXPECT_EQ(Bytes(output.bytes().begin(), output.bytes().end()), input);
}

TEST_F(ControlTest, WarnsWhenThePipeBreaksAtTheRecord) {
    connectCard();
    const FailingWrites broken([](DWORD size) { return size == ControlLayout::kSize; });
    EXPECT_THAT(control({1, 2}, GuardedBuffer(2)), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(log().messages("SCardControl", 'W'), ElementsAre("Failed to send data"));
}

TEST_F(ControlTest, WarnsWhenThePipeBreaksAtTheInput) {
    connectCard();
    const FailingWrites broken([](DWORD size) { return size == 2; });
    EXPECT_THAT(control({1, 2}, GuardedBuffer(2)), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardControl", 'W'),
                ElementsAre("Failed to send data for send buffer"));
}

TEST_F(ControlTest, WarnsWhenThePipeBreaksInTheMiddleOfTheOutput) {
    connectCard();
    daemon.on(Command::kControl, answeringAndClosing(ControlLayout::kSize,
                                                     {{ControlLayout::kReturned, 4}}, {1, 2, 3}));
    const GuardedBuffer output(4);
    EXPECT_THAT(control({1}, output), Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(log().messages("SCardControl", 'W'),
                ElementsAre("Failed to read data for recv buffer"));
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
}

TEST_F(ControlTest, OnAHostCardGoesToTheHostUnchanged) {
    establishContext();
    card = connect(context, kHostReader);
    const Bytes input = {1, 2, 3};
    const GuardedBuffer output(5);
    const LPCVOID in = input.data();
    const LPVOID out = output.data();
    EXPECT_CALL(host, SCardControl(kHostCard, 0x313520, in, 3, out, 5, &returned))
        .WillOnce(Return(SCARD_E_UNSUPPORTED_FEATURE));
    EXPECT_THAT(control(input, output, 0x313520), Gives(SCARD_E_UNSUPPORTED_FEATURE));
    EXPECT_EQ(returned, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardControl"),
                ElementsAre("CONTROL IN-PARAMS: 1, 3224864, 3", "CONTROL RV: 0x80100022"));
}

}  // namespace
}  // namespace tez::test
