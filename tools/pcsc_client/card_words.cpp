#include "card_words.h"

#include <windows.h>
#include <winscard.h>

#include "hex.h"

namespace tez::client {
namespace {

std::string unknown(DWORD value) {
    return "unknown value 0x" + formatDigits(value, 8);
}

}  // namespace

std::string describeCardState(DWORD state) {
    switch (state) {
        case SCARD_UNKNOWN:
            return "unknown";
        case SCARD_ABSENT:
            return "no card";
        case SCARD_PRESENT:
            return "card present, not in position";
        case SCARD_SWALLOWED:
            return "card in position, no power";
        case SCARD_POWERED:
            return "card has power, mode unknown";
        case SCARD_NEGOTIABLE:
            return "card was reset, protocol not negotiated yet";
        case SCARD_SPECIFIC:
            return "card ready, protocol negotiated";
        default:
            return unknown(state);
    }
}

std::string describeProtocol(DWORD protocol) {
    switch (protocol) {
        case SCARD_PROTOCOL_UNDEFINED:
            return "none";
        case SCARD_PROTOCOL_T0:
            return "T=0";
        case SCARD_PROTOCOL_T1:
            return "T=1";
        case SCARD_PROTOCOL_RAW:
            return "raw";
        default:
            return unknown(protocol);
    }
}

std::string describeReaderState(DWORD state) {
    static constexpr struct {
        DWORD bit;
        const char* text;
    } kBits[] = {
        {SCARD_STATE_IGNORE, "ignored"},
        {SCARD_STATE_UNKNOWN, "unknown reader"},
        {SCARD_STATE_UNAVAILABLE, "unavailable"},
        {SCARD_STATE_EMPTY, "no card"},
        {SCARD_STATE_PRESENT, "card present"},
        {SCARD_STATE_ATRMATCH, "ATR matches"},
        {SCARD_STATE_EXCLUSIVE, "in exclusive use"},
        {SCARD_STATE_INUSE, "in use"},
        {SCARD_STATE_MUTE, "card mute"},
        {SCARD_STATE_UNPOWERED, "no power"},
    };
    std::string text;
    for (const auto& [bit, words] : kBits) {
        if ((state & bit) != 0) {
            text.append(text.empty() ? "" : ", ").append(words);
        }
    }
    return text.empty() ? "nothing known" : text;
}

}  // namespace tez::client
