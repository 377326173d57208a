#include "wire/protocol_mask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_matchers.h"

using namespace tez;
using test::FreshLog;
using test::LogLine;
using testing::ElementsAre;

TEST(ProtocolMask, ExchangesTheRawBit) {
    EXPECT_EQ(convert_protocol_to_wire(0x10000), 4U);
    EXPECT_EQ(convert_protocol_from_wire(4), 0x10000U);
}

TEST(ProtocolMask, KeepsTheProtocolsBesideTheRawBit) {
    EXPECT_EQ(convert_protocol_to_wire(0x10002), 6U);
    EXPECT_EQ(convert_protocol_from_wire(6), 0x10002U);
}

TEST(ProtocolMask, LeavesBothCardProtocolsAlone) {
    EXPECT_EQ(convert_protocol_to_wire(3), 3U);
    EXPECT_EQ(convert_protocol_from_wire(3), 3U);
    EXPECT_EQ(convert_protocol_to_wire(0), 0U);
    EXPECT_EQ(convert_protocol_from_wire(0), 0U);
}

TEST(ProtocolMask, PassesEveryOtherBit) {
    EXPECT_EQ(convert_protocol_to_wire(0x80000001), 0x80000001U);
    EXPECT_EQ(convert_protocol_from_wire(0x80000001), 0x80000001U);
    EXPECT_EQ(convert_protocol_to_wire(0xFFFFFFFF), 0xFFFEFFFFU);
    EXPECT_EQ(convert_protocol_from_wire(0xFFFFFFFF), 0xFFFFFFFBU);
}

TEST(ProtocolMask, PassesTheOtherSidesRawBitToo) {
    EXPECT_EQ(convert_protocol_to_wire(4), 4U);
    EXPECT_EQ(convert_protocol_to_wire(0x10004), 4U);
    EXPECT_EQ(convert_protocol_from_wire(0x10000), 0x10000U);
}

TEST(ProtocolMask, TellsEachConversion) {
    const FreshLog log;
    convert_protocol_to_wire(0x10002);
    convert_protocol_from_wire(6);
    convert_protocol_to_wire(0x80000000);
    EXPECT_THAT(
        log.entries(),
        ElementsAre(
            LogLine('D', "convert_protocol_to_wire", "Protocol converted from 65538 to 6"),
            LogLine('D', "convert_protocol_from_wire", "Protocol converted from 6 to 65538"),
            LogLine('D', "convert_protocol_to_wire",
                    "Protocol converted from 2147483648 to 2147483648")));
}
