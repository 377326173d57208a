#include <gtest/gtest.h>

#include "record_codec.h"
#include "wire/command_codes.h"
#include "wire/context_records.h"
#include "wire/message_header.h"

using namespace tez;
using test::bytesOf;

TEST(WireRecords, HeaderHoldsSizeCommandAndZero) {
    const MessageHeader header = {0x01020304, CMD_GET_TRANSMIT_COUNT, 0};
    EXPECT_EQ(bytesOf(header), (test::Bytes{4, 3, 2, 1, 1, 8, 0, 0, 0, 0, 0, 0}));
}

TEST(WireRecords, EstablishHasItsContextUnaligned) {
    const EstablishRecord record = {0x11121314, 0x2122232425262728, 0x31323334};
    EXPECT_EQ(bytesOf(record), (test::Bytes{0x14, 0x13, 0x12, 0x11, 0x28, 0x27, 0x26, 0x25, 0x24,
                                            0x23, 0x22, 0x21, 0x34, 0x33, 0x32, 0x31}));
}

TEST(WireRecords, CommandsHaveTheirCodes) {
    EXPECT_EQ(CMD_ESTABLISH_CONTEXT, 1U);
    EXPECT_EQ(CMD_RELEASE_CONTEXT, 2U);
    EXPECT_EQ(CMD_LIST_READERS, 3U);
    EXPECT_EQ(CMD_SCARD_CONNECT, 4U);
    EXPECT_EQ(CMD_RECONNECT, 5U);
    EXPECT_EQ(CMD_DISCONNECT, 6U);
    EXPECT_EQ(CMD_BEGIN_TRANSACTION, 7U);
    EXPECT_EQ(CMD_END_TRANSACTION, 8U);
    EXPECT_EQ(CMD_TRANSMIT, 9U);
    EXPECT_EQ(CMD_CONTROL, 10U);
    EXPECT_EQ(CMD_STATUS, 11U);
    EXPECT_EQ(CMD_GET_STATUS_CHANGE, 12U);
    EXPECT_EQ(CMD_CANCEL, 13U);
    EXPECT_EQ(CMD_GET_ATTRIB, 15U);
    EXPECT_EQ(CMD_SET_ATTRIB, 16U);
    EXPECT_EQ(CMD_GET_TRANSMIT_COUNT, 0x801U);
    EXPECT_EQ(CMD_LIST_CARDS, 0x802U);
    EXPECT_EQ(CMD_GET_DEVICE_TYPE_ID, 0x803U);
    EXPECT_EQ(CMD_GET_CARD_TYPE_PROVIDER_NAME, 0x804U);
    EXPECT_EQ(CMD_READ_CACHE, 0x805U);
    EXPECT_EQ(CMD_WRITE_CACHE, 0x806U);
    EXPECT_EQ(CMD_GET_READER_ICON, 0x807U);
    EXPECT_EQ(CMD_AUDIT, 0x808U);
    EXPECT_EQ(CMD_SET_CARD_TYPE_PROVIDER_NAME, 0x809U);
    EXPECT_EQ(CMD_INTRODUCE_CARD_TYPE, 0x80AU);
    EXPECT_EQ(CMD_FORGET_CARD_TYPE, 0x80BU);
}
