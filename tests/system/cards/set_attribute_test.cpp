// SCardSetAttrib, in both forms that daemons know.
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

constexpr DWORD kSetAttribute = SCARD_ATTR_SUPRESS_T1_IFS_REQUEST;
constexpr std::uint32_t kSetAttributeOnWire = 0x7FFF0007;

class SetAttributeTest : public RemoteCardTest {
  protected:
    LONG set(const Bytes& value) {
        return SCardSetAttrib(card.handle, kSetAttribute, value.data(),
                              static_cast<DWORD>(value.size()));
    }

    static RecordBytes record(std::size_t size) {
        return RecordBytes(AttributeLayout::kSize)
            .u64(AttributeLayout::kCard, kDaemonCard)
            .u32(AttributeLayout::kId, kSetAttributeOnWire)
            .u32(AttributeLayout::kLength, static_cast<std::uint32_t>(size));
    }
};

TEST_F(SetAttributeTest, SendsTheValueBehindTheRecordInTheNewerForm) {
    connectCard(kNewerForm);
    EXPECT_THAT(set({1, 2, 3}), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kSetAttribute, record(3).append({1, 2, 3}))));
}

TEST_F(SetAttributeTest, SendsTheValueInsideTheRecordInTheFixedForm) {
    connectCard(kFixedForm);
    EXPECT_THAT(set({1, 2, 3}), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kSetAttribute,
                                      record(3).raw(AttributeLayout::kValue, {1, 2, 3}))));
}

TEST_F(SetAttributeTest, SendsValuesOfAnyLengthInTheNewerForm) {
    connectCard(kNewerForm);
    const Bytes value = sampleBytes(70'000);
    EXPECT_THAT(set(value), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kSetAttribute, record(70'000).append(value))));
}

TEST_F(SetAttributeTest, SendsUpTo264BytesInTheFixedForm) {
    connectCard(kFixedForm);
    EXPECT_THAT(set(sampleBytes(264)), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(Command::kSetAttribute,
                                      record(264).raw(AttributeLayout::kValue, sampleBytes(264)))));
}

TEST_F(SetAttributeTest, DoesNotSupportMoreThan264BytesInTheFixedForm) {
    connectCard(kFixedForm);
    EXPECT_THAT(set(sampleBytes(265)), Gives(kNotSupported));
    EXPECT_THAT(set(sampleBytes(1000)), Gives(kNotSupported));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetAttributeTest, SendsAnEmptyValueAsTheRecordAlone) {
    connectCard(kNewerForm);
    std::vector<DWORD> sizes;
    const FailingWrites writes([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    const BYTE value = 0;
    EXPECT_THAT(SCardSetAttrib(card.handle, kSetAttribute, &value, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sizes, ElementsAre(12, 284));
    EXPECT_THAT(daemon.requests(), ElementsAre(IsRequest(Command::kSetAttribute, record(0))));
}

TEST_F(SetAttributeTest, RefusesAMissingValueOfARemoteCard) {
    connectCard();
    EXPECT_THAT(SCardSetAttrib(card.handle, kSetAttribute, nullptr, 3),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetAttributeTest, RefusesAValueThatNoHeaderCanAnnounce) {
    connectCard();
    const BYTE value = 0;
    for (const DWORD size : {0xFFFFFFFFUL, 0xFFFFFFFFUL - 283}) {
        EXPECT_THAT(SCardSetAttrib(card.handle, kSetAttribute, &value, size),
                    Gives(SCARD_E_INVALID_PARAMETER));
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetAttributeTest, LogsItsParametersAndItsResultWithoutOutput) {
    connectCard();
    const Bytes value = {1, 2, 3};
    ASSERT_THAT(set(value), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("SCardSetAttrib"),
                ElementsAre("SET_ATTRIB IN-PARAMS: 1, 2147418119, " + logged(value.data()) + ", 3",
                            "SET_ATTRIB RV: 0x00000000"));
}

TEST_F(SetAttributeTest, WarnsWhenThePipeBreaksAtTheRecord) {
    connectCard();
    const FailingWrites broken([](DWORD size) { return size == AttributeLayout::kSize; });
    EXPECT_THAT(set({1, 2, 3}), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardSetAttrib", 'W'), ElementsAre("Failed to send data"));
}

TEST_F(SetAttributeTest, WarnsWhenThePipeBreaksAtTheValue) {
    connectCard();
    const FailingWrites broken([](DWORD size) { return size == 3; });
    EXPECT_THAT(set({1, 2, 3}), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardSetAttrib", 'W'), ElementsAre("Failed to send data"));
}

TEST_F(SetAttributeTest, OfAHostCardGoesToTheHostUnchanged) {
    establishContext();
    card = connect(context, kHostReader);
    EXPECT_CALL(host, SCardSetAttrib(kHostCard, kSetAttribute, nullptr, 99))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardSetAttrib(card.handle, kSetAttribute, nullptr, 99),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(SetAttributeTest, WithoutAConnectionIsNoService) {
    connectCard();
    // The idle connection breaks, and none can be opened in its place.
    daemon.on(Command::kBeginTransaction, closing());
    ASSERT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_E_NO_SERVICE));
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(set({1, 2, 3}), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardSetAttrib", 'W'), IsEmpty());
}

}  // namespace
}  // namespace tez::test
