#include <gtest/gtest.h>

#include "byte_string.h"
#include "wire/card_records.h"
#include "wire/command_codes.h"
#include "wire/context_records.h"
#include "wire/message_header.h"

using namespace tez;
using test::bytesOf;
using test::ByteString;

TEST(WireRecords, HeaderHoldsSizeCommandAndZero) {
    const MessageHeader header = {0x01020304, CMD_GET_TRANSMIT_COUNT, 0};
    EXPECT_EQ(bytesOf(header), (test::Bytes{4, 3, 2, 1, 1, 8, 0, 0, 0, 0, 0, 0}));
}

TEST(WireRecords, EstablishHasItsContextUnaligned) {
    const EstablishRecord record = {0x11121314, 0x2122232425262728, 0x31323334};
    EXPECT_EQ(bytesOf(record), (test::Bytes{0x14, 0x13, 0x12, 0x11, 0x28, 0x27, 0x26, 0x25, 0x24,
                                            0x23, 0x22, 0x21, 0x34, 0x33, 0x32, 0x31}));
}

TEST(WireRecords, ReleaseHoldsContextAndResult) {
    const ReleaseRecord record = {0x2122232425262728, 0x31323334};
    EXPECT_EQ(bytesOf(record), ByteString().u64(0x2122232425262728).u32(0x31323334).bytes());
}

TEST(WireRecords, ListReadersHoldsContextLengthAndResult) {
    const ListReadersRecord record = {0x2122232425262728, 0x41424344, 0x31323334};
    EXPECT_EQ(bytesOf(record),
              ByteString().u64(0x2122232425262728).u32(0x41424344).u32(0x31323334).bytes());
}

TEST(WireRecords, ConnectHoldsItsNameInAFixedField) {
    ConnectRecord record = {};
    record.hContext = 0x0102030405060708;
    const char name[] = "Reader A";
    std::memcpy(record.szReader, name, sizeof(name));
    record.dwShareMode = 0x11;
    record.dwPreferredProtocols = 0x22;
    record.hCard = 0x3333333344444444;
    record.dwActiveProtocol = 0x55;
    record.rv = 0x80100066;
    EXPECT_EQ(bytesOf(record), ByteString()
                                   .u64(0x0102030405060708)
                                   .text("Reader A", 128)
                                   .u32(0x11)
                                   .u32(0x22)
                                   .u64(0x3333333344444444)
                                   .u32(0x55)
                                   .u32(0x80100066)
                                   .bytes());
    EXPECT_EQ(bytesOf(record).size(), 160U);
}

TEST(WireRecords, ReconnectIsSixFields) {
    const ReconnectRecord record = {0x0102030405060708, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(bytesOf(record), ByteString()
                                   .u64(0x0102030405060708)
                                   .u32(0x11)
                                   .u32(0x22)
                                   .u32(0x33)
                                   .u32(0x44)
                                   .u32(0x55)
                                   .bytes());
}

TEST(WireRecords, DisconnectIsThreeFields) {
    const DisconnectRecord record = {0x0102030405060708, 0x11, 0x22};
    EXPECT_EQ(bytesOf(record), ByteString().u64(0x0102030405060708).u32(0x11).u32(0x22).bytes());
}

TEST(WireRecords, HandleIsTwoFields) {
    const HandleRecord record = {0x0102030405060708, 0x11};
    EXPECT_EQ(bytesOf(record), ByteString().u64(0x0102030405060708).u32(0x11).bytes());
}

TEST(WireRecords, StatusHoldsItsAtrInAFixedField) {
    StatusRecord record = {};
    record.hCard = 0x0102030405060708;
    record.dwState = 0x11;
    record.dwProtocol = 0x22;
    std::memset(record.pbAtr, 0x3B, sizeof(record.pbAtr));
    record.cbAtrLen = 264;
    record.rv = 0x8010001D;
    EXPECT_EQ(bytesOf(record), ByteString()
                                   .u64(0x0102030405060708)
                                   .u32(0x11)
                                   .u32(0x22)
                                   .fill(0x3B, 264)
                                   .u32(264)
                                   .u32(0x8010001D)
                                   .bytes());
    EXPECT_EQ(bytesOf(record).size(), 288U);
}

TEST(WireRecords, TransmitIsSixFields) {
    const TransmitRecord record = {0x0102030405060708, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(bytesOf(record), ByteString()
                                   .u64(0x0102030405060708)
                                   .u32(0x11)
                                   .u32(0x22)
                                   .u32(0x33)
                                   .u32(0x44)
                                   .u32(0x55)
                                   .bytes());
}

TEST(WireRecords, ControlIsSixFields) {
    const ControlRecord record = {0x0102030405060708, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(bytesOf(record), ByteString()
                                   .u64(0x0102030405060708)
                                   .u32(0x11)
                                   .u32(0x22)
                                   .u32(0x33)
                                   .u32(0x44)
                                   .u32(0x55)
                                   .bytes());
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
