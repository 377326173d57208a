#include "simulated/virtual_card.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <stdexcept>
#include <string>

namespace tez::pcscd {
namespace {

using testing::ElementsAre;

constexpr std::uint8_t kAid[] = {0xF0, 0x00, 0x00, 0x00, 0x42};

Bytes numbered(std::size_t count) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

class VirtualCardTest : public testing::Test {
  protected:
    static VirtualCard makeCard() {
        CardApplication application;
        application.aid.assign(std::begin(kAid), std::end(kAid));
        application.files = {{0x0001, numbered(300), false},
                             {0x0002, {0xAA, 0xBB}, true},
                             {0x0003, numbered(70000), false}};
        application.pin = "0000";
        CardApplication other;
        other.aid = {0xF0, 0x11, 0x11, 0x11, 0x11};
        return {makeAtr(protocol::kT1, "TEST"), {application, other}};
    }

    /// The status word; the response data stay in data_.
    unsigned send(const Bytes& command) {
        data_ = card_.transmit(command);
        if (data_.size() < 2) {
            ADD_FAILURE() << "an answer of " << data_.size() << " bytes";
            return 0;
        }
        const unsigned status = static_cast<unsigned>(data_[data_.size() - 2]) << 8 | data_.back();
        data_.erase(data_.end() - 2, data_.end());
        return status;
    }

    void selectApplication() {
        ASSERT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x42}), 0x9000U);
    }

    void selectFile(std::uint8_t id) {
        ASSERT_NO_FATAL_FAILURE(selectApplication());
        ASSERT_EQ(send({0x00, 0xA4, 0x02, 0x0C, 0x02, 0x00, id}), 0x9000U);
    }

    unsigned verify(const std::string& pin) {
        Bytes command{0x00, 0x20, 0x00, 0x01, static_cast<std::uint8_t>(pin.size())};
        command.insert(command.end(), pin.begin(), pin.end());
        return send(command);
    }

    unsigned queryRetries() { return send({0x00, 0x20, 0x00, 0x01}); }

    VirtualCard card_ = makeCard();
    Bytes data_;
};

TEST(AtrTest, T0AloneHasNoCheckByte) {
    EXPECT_THAT(makeAtr(protocol::kT0, "AB"), ElementsAre(0x3B, 0x02, 'A', 'B'));
}

TEST(AtrTest, T1HasACheckByteThatMakesTheExclusiveOrZero) {
    const Bytes atr = makeAtr(protocol::kT1, "AB");
    EXPECT_THAT(atr, ElementsAre(0x3B, 0x82, 0x01, 'A', 'B', 0x82 ^ 0x01 ^ 'A' ^ 'B'));
}

TEST(AtrTest, OfferedProtocolsAreReadBackInOrder) {
    EXPECT_THAT(offeredProtocols(makeAtr(protocol::kT0, "X")), ElementsAre(protocol::kT0));
    EXPECT_THAT(offeredProtocols(makeAtr(protocol::kT1, "X")), ElementsAre(protocol::kT1));
    EXPECT_THAT(offeredProtocols(makeAtr(protocol::kT0 | protocol::kT1, "X")),
                ElementsAre(protocol::kT0, protocol::kT1));
}

TEST(AtrTest, InterfaceBytesBesideTheProtocolAreSkipped) {
    // TA1, TC1, TD1 (T=1, TB2 and TD2 follow), TB2, TD2 (T=15).
    const Bytes atr{0x3B, 0xD0, 0x11, 0x22, 0xA1, 0x45, 0x0F};
    EXPECT_THAT(offeredProtocols(atr), ElementsAre(protocol::kT1));
}

TEST(AtrTest, ImpossibleOnesAreRefused) {
    EXPECT_THROW(makeAtr(0, ""), std::invalid_argument);
    EXPECT_THROW(makeAtr(4, ""), std::invalid_argument);
    EXPECT_THROW(makeAtr(protocol::kT0, "sixteen letters!"), std::invalid_argument);
}

TEST_F(VirtualCardTest, SelectByAidReturnsControlInformationOnlyWhenAskedTo) {
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x00, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x42, 0x00}), 0x9000U);
    EXPECT_THAT(data_, ElementsAre(0x6F, 0x07, 0x84, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x42));
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x42}), 0x9000U);
    EXPECT_TRUE(data_.empty());
}

TEST_F(VirtualCardTest, SelectFindsAnApplicationByTheBeginningOfItsAid) {
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x00, 0x02, 0xF0, 0x11, 0x00}), 0x9000U);
    EXPECT_THAT(data_, ElementsAre(0x6F, 0x07, 0x84, 0x05, 0xF0, 0x11, 0x11, 0x11, 0x11));
}

TEST_F(VirtualCardTest, SelectWithTooSmallALeTellsTheRightOne) {
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x00, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x42, 0x04}), 0x6C09U);
}

TEST_F(VirtualCardTest, SelectOfAnUnknownApplicationOrFileIs6A82) {
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x05, 0xF0, 0x00, 0x00, 0x00, 0x43}), 0x6A82U);
    EXPECT_EQ(send({0x00, 0xA4, 0x02, 0x0C, 0x02, 0x00, 0x01}), 0x6A82U) << "no application yet";
    selectApplication();
    EXPECT_EQ(send({0x00, 0xA4, 0x02, 0x0C, 0x02, 0x00, 0x09}), 0x6A82U);
}

TEST_F(VirtualCardTest, SelectByFileIdentifierTellsSizeAndIdentifier) {
    selectApplication();
    for (const std::uint8_t p1 : Bytes{0x00, 0x02}) {
        EXPECT_EQ(send({0x00, 0xA4, p1, 0x00, 0x02, 0x00, 0x01, 0x00}), 0x9000U);
        EXPECT_THAT(data_, ElementsAre(0x6F, 0x08, 0x80, 0x02, 0x01, 0x2C, 0x83, 0x02, 0x00, 0x01));
    }
}

TEST_F(VirtualCardTest, SelectOfTheMasterFileLeavesTheApplication) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xA4, 0x00, 0x0C, 0x02, 0x3F, 0x00}), 0x9000U);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x6986U);
}

TEST_F(VirtualCardTest, WrongParametersAre6A86) {
    EXPECT_EQ(send({0x00, 0xA4, 0x01, 0x00, 0x02, 0x3F, 0x00}), 0x6A86U);
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x04, 0x02, 0xF0, 0x00}), 0x6A86U);
    EXPECT_EQ(send({0x00, 0x84, 0x00, 0x01, 0x08}), 0x6A86U);
    EXPECT_EQ(send({0x00, 0x20, 0x01, 0x01}), 0x6A86U);
    EXPECT_EQ(send({0x00, 0xB0, 0x81, 0x00, 0x00}), 0x6A86U) << "short file identifier";
}

TEST_F(VirtualCardTest, UnknownClassIs6E00AndUnknownInstruction6D00) {
    EXPECT_EQ(send({0x80, 0xA4, 0x04, 0x00, 0x02, 0xF0, 0x00}), 0x6E00U);
    EXPECT_EQ(send({0x00, 0xCA, 0x00, 0x00, 0x00}), 0x6D00U);
    EXPECT_EQ(send({0x80, 0xCA, 0x00, 0x00, 0x00}), 0x6E00U) << "the class is looked at first";
}

TEST_F(VirtualCardTest, LengthsThatDoNotAgreeAre6700) {
    EXPECT_EQ(send({}), 0x6700U);
    EXPECT_EQ(send({0x00, 0xA4, 0x04}), 0x6700U);
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x05, 0xF0, 0x00}), 0x6700U) << "data cut short";
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x01, 0xF0, 0x00, 0x00}), 0x6700U) << "a byte too many";
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x00, 0x00, 0x05, 0xF0}), 0x6700U) << "extended, short";
    EXPECT_EQ(send({0x00, 0xA4, 0x04, 0x0C}), 0x6700U) << "no AID";
    EXPECT_EQ(send({0x00, 0xA4, 0x00, 0x0C, 0x01, 0x3F}), 0x6700U) << "half a file identifier";
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00}), 0x6700U) << "no Le";
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x01, 0xFF, 0x00}), 0x6700U) << "data where none go";
    EXPECT_EQ(send({0x00, 0x84, 0x00, 0x00}), 0x6700U) << "no Le";
}

TEST_F(VirtualCardTest, ReadWithoutACurrentFileIs6986) {
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x01}), 0x6986U);
    selectApplication();
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x01}), 0x6986U);
}

TEST_F(VirtualCardTest, ReadReturnsWhatStandsAtTheOffset) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xB0, 0x01, 0x02, 0x03}), 0x9000U);
    EXPECT_THAT(data_, ElementsAre(0x02, 0x03, 0x04));
}

TEST_F(VirtualCardTest, ReadWithLeZeroReturnsAtMost256BytesAndAsManyAsThereAre) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x9000U);
    EXPECT_EQ(data_.size(), 256U);
    EXPECT_EQ(send({0x00, 0xB0, 0x01, 0x00, 0x00}), 0x9000U);
    EXPECT_EQ(data_.size(), 44U);
}

TEST_F(VirtualCardTest, ReadPastTheEndReturnsTheRestWithAWarning) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xB0, 0x01, 0x2A, 0x03}), 0x6282U);
    EXPECT_THAT(data_, ElementsAre(0x2A, 0x2B));
    EXPECT_EQ(send({0x00, 0xB0, 0x01, 0x2A, 0x02}), 0x9000U) << "exactly to the end";
}

TEST_F(VirtualCardTest, ReadFromOutsideTheFileIs6B00) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xB0, 0x01, 0x2C, 0x01}), 0x6B00U);
}

TEST_F(VirtualCardTest, ReadWithExtendedLeReturnsMoreThan256Bytes) {
    selectFile(1);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00, 0x01, 0x2C}), 0x9000U);
    EXPECT_EQ(data_, numbered(300));
    selectFile(3);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00, 0x00, 0x00}), 0x9000U);
    EXPECT_EQ(data_, numbered(65536));
}

TEST_F(VirtualCardTest, ProtectedFileNeedsThePin) {
    selectFile(2);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x6982U);
    EXPECT_EQ(verify("0000"), 0x9000U);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x9000U);
    EXPECT_THAT(data_, ElementsAre(0xAA, 0xBB));
}

TEST_F(VirtualCardTest, ResetAndLeavingTheApplicationForgetThePin) {
    selectFile(2);
    ASSERT_EQ(verify("0000"), 0x9000U);
    card_.reset();
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x6986U) << "nothing is selected";
    selectFile(2);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x6982U);
    ASSERT_EQ(verify("0000"), 0x9000U);
    ASSERT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x02, 0xF0, 0x11}), 0x9000U);
    selectFile(2);
    EXPECT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x6982U);
}

TEST_F(VirtualCardTest, WrongPinsCountDownAndThenBlock) {
    selectApplication();
    EXPECT_EQ(queryRetries(), 0x63C3U);
    EXPECT_EQ(verify("1111"), 0x63C2U);
    EXPECT_EQ(queryRetries(), 0x63C2U) << "asking costs no try";
    EXPECT_EQ(verify("00000"), 0x63C1U);
    card_.reset();
    selectApplication();
    EXPECT_EQ(verify("1"), 0x63C0U) << "a reset gives no tries back";
    EXPECT_EQ(verify("0000"), 0x6983U);
    EXPECT_EQ(queryRetries(), 0x6983U);
}

TEST_F(VirtualCardTest, RightPinGivesTheTriesBack) {
    selectApplication();
    EXPECT_EQ(verify("1111"), 0x63C2U);
    EXPECT_EQ(verify("0000"), 0x9000U);
    EXPECT_EQ(queryRetries(), 0x9000U) << "verified: nothing to ask for";
    EXPECT_EQ(verify("1111"), 0x63C2U);
}

TEST_F(VirtualCardTest, VerifyOfAPinThatDoesNotExistIs6A88) {
    EXPECT_EQ(verify("0000"), 0x6A88U) << "no application";
    selectApplication();
    EXPECT_EQ(send({0x00, 0x20, 0x00, 0x02}), 0x6A88U) << "another reference";
    ASSERT_EQ(send({0x00, 0xA4, 0x04, 0x0C, 0x02, 0xF0, 0x11}), 0x9000U);
    EXPECT_EQ(verify("0000"), 0x6A88U) << "an application without a PIN";
}

TEST_F(VirtualCardTest, ChallengesHaveTheLengthAskedForAndDiffer) {
    EXPECT_EQ(send({0x00, 0x84, 0x00, 0x00, 0x08}), 0x9000U);
    const Bytes first = data_;
    EXPECT_EQ(first.size(), 8U);
    EXPECT_EQ(send({0x00, 0x84, 0x00, 0x00, 0x08}), 0x9000U);
    EXPECT_NE(data_, first);
}

TEST_F(VirtualCardTest, DemoCardShowsItsHolder) {
    card_ = makeDemoCard("Ada");
    Bytes select{0x00, 0xA4, 0x04, 0x0C, static_cast<std::uint8_t>(std::size(kDemoAid))};
    select.insert(select.end(), std::begin(kDemoAid), std::end(kDemoAid));
    ASSERT_EQ(send(select), 0x9000U);
    ASSERT_EQ(send({0x00, 0xA4, 0x02, 0x0C, 0x02, 0x01, 0x01}), 0x9000U);
    ASSERT_EQ(send({0x00, 0xB0, 0x00, 0x00, 0x00}), 0x9000U);
    EXPECT_EQ(std::string(data_.begin(), data_.end()), "Card holder: Ada\n");
    EXPECT_EQ(verify(std::string(kDemoPin)), 0x9000U);
}

}  // namespace
}  // namespace tez::pcscd
