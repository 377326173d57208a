#pragma once

#include <cstdint>

namespace tez {

/// What a request asks of the daemon. 1 to 16 stand for what every PC/SC daemon serves; the 0x800
/// range carries the calls that exist only in the Windows interface. 14 and 17 to 0x800 are not
/// sent.
enum CommandCode : std::uint32_t {
    CMD_ESTABLISH_CONTEXT = 1,
    CMD_RELEASE_CONTEXT = 2,
    CMD_LIST_READERS = 3,
    CMD_SCARD_CONNECT = 4,
    CMD_RECONNECT = 5,
    CMD_DISCONNECT = 6,
    CMD_BEGIN_TRANSACTION = 7,
    CMD_END_TRANSACTION = 8,
    CMD_TRANSMIT = 9,
    CMD_CONTROL = 10,
    CMD_STATUS = 11,
    CMD_GET_STATUS_CHANGE = 12,
    CMD_CANCEL = 13,
    CMD_GET_ATTRIB = 15,
    CMD_SET_ATTRIB = 16,
    CMD_GET_TRANSMIT_COUNT = 0x801,
    CMD_LIST_CARDS = 0x802,
    CMD_GET_DEVICE_TYPE_ID = 0x803,
    CMD_GET_CARD_TYPE_PROVIDER_NAME = 0x804,
    CMD_READ_CACHE = 0x805,
    CMD_WRITE_CACHE = 0x806,
    CMD_GET_READER_ICON = 0x807,
    CMD_AUDIT = 0x808,
    CMD_SET_CARD_TYPE_PROVIDER_NAME = 0x809,
    CMD_INTRODUCE_CARD_TYPE = 0x80A,
    CMD_FORGET_CARD_TYPE = 0x80B,
};

}  // namespace tez
