// Connections to cards.
#include <iterator>

#include "system_library/host_service.h"

namespace tez::test {
namespace {

// The platform numbers the states of a card; its header has no names for them that fit C++.
enum class CardState : DWORD { kAbsent = 1, kPresent = 2, kNegotiable = 5, kSpecific = 6 };

CardState stateOf(const CardStatus& status) {
    if (!status.present) {
        return CardState::kAbsent;
    }
    if (!status.powered) {
        return CardState::kPresent;
    }
    return status.negotiable ? CardState::kNegotiable : CardState::kSpecific;
}

/// The function number within a control code.
std::uint32_t functionOf(DWORD controlCode) {
    return (controlCode >> 2U) & 0xFFFU;
}

std::span<const std::uint8_t> asBytes(LPCVOID data, DWORD size) {
    return {static_cast<const std::uint8_t*>(data), data == nullptr ? 0 : size};
}

}  // namespace

LONG HostService::SCardConnectA(SCARDCONTEXT context, LPCSTR reader, DWORD shareMode,
                                DWORD preferredProtocols, LPSCARDHANDLE card,
                                LPDWORD activeProtocol) {
    if (reader == nullptr || card == nullptr || activeProtocol == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Card connected = 0;
    std::uint32_t active = SCARD_PROTOCOL_UNDEFINED;
    const LONG result =
        pcsc_.connect(context, reader, shareMode, preferredProtocols, connected, active);
    if (result == SCARD_S_SUCCESS) {
        *card = connected;
        *activeProtocol = active;
    }
    return result;
}

LONG HostService::SCardReconnect(SCARDHANDLE card, DWORD shareMode, DWORD preferredProtocols,
                                 DWORD initialization, LPDWORD activeProtocol) {
    std::uint32_t active = SCARD_PROTOCOL_UNDEFINED;
    const LONG result =
        pcsc_.reconnect(card, shareMode, preferredProtocols, initialization, active);
    if (result == SCARD_S_SUCCESS && activeProtocol != nullptr) {
        *activeProtocol = active;
    }
    return result;
}

LONG HostService::SCardDisconnect(SCARDHANDLE card, DWORD disposition) {
    return pcsc_.disconnect(card, disposition);
}

LONG HostService::SCardBeginTransaction(SCARDHANDLE card) {
    return pcsc_.beginTransaction(card);
}

LONG HostService::SCardEndTransaction(SCARDHANDLE card, DWORD disposition) {
    return pcsc_.endTransaction(card, disposition);
}

LONG HostService::SCardStatusA(SCARDHANDLE card, LPSTR readers, LPDWORD readersLength,
                               LPDWORD state, LPDWORD protocol, LPBYTE atr, LPDWORD atrLength) {
    CardStatus status;
    if (const LONG result = pcsc_.status(card, status); result != SCARD_S_SUCCESS) {
        return result;
    }
    if (state != nullptr) {
        *state = static_cast<DWORD>(stateOf(status));
    }
    if (protocol != nullptr) {
        *protocol = status.protocol;
    }
    Bytes names(status.reader.begin(), status.reader.end());
    names.insert(names.end(), 2, 0);
    const bool namesAllocated =
        readers != nullptr && readersLength != nullptr && *readersLength == SCARD_AUTOALLOCATE;
    // Unlike elsewhere, a caller may leave either length out.
    LONG result =
        readersLength == nullptr ? SCARD_S_SUCCESS : heap_.deliver(names, readers, readersLength);
    if (result == SCARD_S_SUCCESS && atrLength != nullptr) {
        result = heap_.deliver(status.atr, atr, atrLength);
        if (result != SCARD_S_SUCCESS && namesAllocated) {
            // address
            heap_.free(*reinterpret_cast<void**>(readers));
        }
    }
    return result;
}

LONG HostService::SCardTransmit(SCARDHANDLE card, LPCSCARD_IO_REQUEST sendPci, LPCBYTE send,
                                DWORD sendLength, LPSCARD_IO_REQUEST receivePci, LPBYTE receive,
                                LPDWORD receiveLength) {
    if (sendPci == nullptr || send == nullptr || receive == nullptr || receiveLength == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Bytes response;
    const LONG result = pcsc_.transmit(card, sendPci->dwProtocol, asBytes(send, sendLength),
                                       *receiveLength, response);
    if (result != SCARD_S_SUCCESS) {
        return result;
    }
    if (receivePci != nullptr) {
        receivePci->dwProtocol = sendPci->dwProtocol;
    }
    return heap_.deliver(response, receive, receiveLength);
}

LONG HostService::SCardControl(SCARDHANDLE card, DWORD code, LPCVOID input, DWORD inputSize,
                               LPVOID output, DWORD outputSize, LPDWORD returned) {
    if (returned == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Bytes answer;
    const LONG result = pcsc_.control(card, functionOf(code), asBytes(input, inputSize),
                                      output == nullptr ? 0 : outputSize, answer);
    *returned = 0;
    if (result == SCARD_S_SUCCESS && !answer.empty()) {
        *returned = outputSize;
        return heap_.deliver(answer, output, returned);
    }
    return result;
}

LONG HostService::SCardGetAttrib(SCARDHANDLE card, DWORD attribute, LPBYTE value, LPDWORD length) {
    Bytes stored;
    const LONG result = pcsc_.getAttribute(card, attribute, stored);
    return result == SCARD_S_SUCCESS ? heap_.deliver(stored, value, length) : result;
}

LONG HostService::SCardSetAttrib(SCARDHANDLE card, DWORD attribute, LPCBYTE value, DWORD length) {
    return pcsc_.setAttribute(card, attribute, asBytes(value, length));
}

LONG HostService::SCardGetTransmitCount(SCARDHANDLE card, LPDWORD count) {
    if (count == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    std::uint32_t counted = *count;
    const LONG result = pcsc_.transmitCount(card, counted);
    *count = counted;
    return result;
}

}  // namespace tez::test
