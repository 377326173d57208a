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
