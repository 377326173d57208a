#include "card.h"

#include <utility>

#include "allocated_buffer.h"
#include "failure.h"

namespace tez::client {
namespace {

/// An extended answer APDU: 65536 bytes of data and the status bytes.
constexpr DWORD kLongestAnswer = 65538;
constexpr DWORD kLongestAtr = 36;

const SCARD_IO_REQUEST* pciOf(DWORD protocol) {
    switch (protocol) {
        case SCARD_PROTOCOL_T0:
            return SCARD_PCI_T0;
        case SCARD_PROTOCOL_T1:
            return SCARD_PCI_T1;
        default:
            return SCARD_PCI_RAW;
    }
}

DWORD shareModeOf(Access access) {
    switch (access) {
        case Access::kExclusive:
            return SCARD_SHARE_EXCLUSIVE;
        case Access::kDirect:
            return SCARD_SHARE_DIRECT;
        case Access::kShared:
            break;
    }
    return SCARD_SHARE_SHARED;
}

}  // namespace

Card::Card(SCARDCONTEXT context, std::string reader, Access access)
    : context_(context), reader_(std::move(reader)) {
    const DWORD protocols =
        access == Access::kDirect ? SCARD_PROTOCOL_UNDEFINED : SCARD_PROTOCOL_Tx;
    check("SCardConnect", SCardConnectA(context, reader_.c_str(), shareModeOf(access), protocols,
                                        &handle_, &protocol_));
}

Card::~Card() {
    if (handle_ != 0) {
        SCardDisconnect(handle_, SCARD_LEAVE_CARD);
    }
}

CardStatus Card::status() const {
    CardStatus status;
    status.atr.resize(kLongestAtr);
    DWORD atrLength = kLongestAtr;
    check("SCardStatus", SCardStatusA(handle_, nullptr, nullptr, &status.state, &status.protocol,
                                      status.atr.data(), &atrLength));
    status.atr.resize(atrLength);
    return status;
}

Bytes Card::transmit(ByteView command) const {
    Bytes answer(kLongestAnswer);
    DWORD length = kLongestAnswer;
    check("SCardTransmit",
          SCardTransmit(handle_, pciOf(protocol_), command.data(),
                        static_cast<DWORD>(command.size()), nullptr, answer.data(), &length));
    answer.resize(length);
    return answer;
}

Bytes Card::control(DWORD code, ByteView input) const {
    Bytes output(kLongestAnswer);
    DWORD length = 0;
    check("SCardControl",
          SCardControl(handle_, code, input.data(), static_cast<DWORD>(input.size()), output.data(),
                       kLongestAnswer, &length));
    output.resize(length);
    return output;
}

std::optional<Bytes> Card::attribute(DWORD id) const {
    // Allocated, as no length is right for every side: an old daemon refuses a buffer that is
    // larger than what it can send.
    AllocatedBuffer value(context_);
    const LONG result = SCardGetAttrib(handle_, id, value.byteDestination(), value.length());
    if (result == SCARD_E_UNSUPPORTED_FEATURE || result == ERROR_NOT_SUPPORTED) {
        return std::nullopt;
    }
    check("SCardGetAttrib", result);
    const ByteView bytes = value.bytes();
    return Bytes(bytes.begin(), bytes.end());
}

void Card::disconnect() {
    check("SCardDisconnect", SCardDisconnect(std::exchange(handle_, 0), SCARD_LEAVE_CARD));
}

}  // namespace tez::client
