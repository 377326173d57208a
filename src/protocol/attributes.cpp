#include <cstring>
#include <string>

#include "common/copy_out.h"
#include "common/heap.h"
#include "common/scard_api.h"
#include "common/text_conversion.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/local_calls.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "protocol/card_routing.h"
#include "wire/attribute_records.h"

using namespace tez;

namespace {

/// The answer of the newer form: the bytes follow the record.
LONG receiveAttribute(Exchange& exchange, const RemoteCard& card, const AttribRecord& record,
                      LPBYTE value, LPDWORD length) {
    HeapPtr<char> data;
    const LONG rv =
        exchange.readBlock(record.cbAttrLen, data, "Failed to receive data for ATR string");
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    if (card.state == ServiceState::LocalFirst || !exchange.isMinorAtLeast(card.state, 2) ||
        record.dwAttrId != SCARD_ATTR_DEVICE_FRIENDLY_NAME_W) {
        return copyOutBuffer(data.get(), record.cbAttrLen, value, length, 1);
    }
    // The daemon knows the name as UTF-8. The length is that of the converted text, which for
    // anything but ASCII is not twice the received one.
    const HeapPtr<wchar_t> name = toWide(data.get());
    if (name == nullptr) {
        return SCARD_E_NO_MEMORY;
    }
    const std::size_t size = (std::wcslen(name.get()) + 1) * sizeof(wchar_t);
    return copyOutBuffer(name.get(), static_cast<DWORD>(size), value, length, 1);
}

/// The length to ask a daemon of the fixed form for.
LONG limitFixedLength(LPBYTE value, DWORD& length) {
    if (length == SCARD_AUTOALLOCATE) {
        if (value == nullptr) {
            return SCARD_E_INVALID_PARAMETER;
        }
        length = kWireAttributeSize;
    }
    // Refused before anything is sent, although the attribute itself may be short: the daemon could
    // not fill the buffer that the caller counts on.
    return length > kWireAttributeSize ? SCARD_E_INSUFFICIENT_BUFFER : SCARD_S_SUCCESS;
}

/// With a connection to a daemon of either form.
LONG getAttributeOn(Exchange& exchange, bool isBehindRecord, const RemoteCard& card,
                    DWORD attributeId, LPBYTE value, LPDWORD length) {
    AttribRecord record = {};
    record.hCard = card.target();
    record.dwAttrId = attributeId;
    DWORD wanted = *length;
    LONG rv = isBehindRecord ? SCARD_S_SUCCESS : limitFixedLength(value, wanted);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    record.cbAttrLen = wanted;
    rv = exchange.call(CMD_GET_ATTRIB, record);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    record.dwAttrId = attributeId;  // what was asked for decides, not what the daemon echoed
    if (isBehindRecord) {
        return receiveAttribute(exchange, card, record, value, length);
    }
    return record.cbAttrLen > kWireAttributeSize
               ? ERROR_NOT_SUPPORTED
               : copyOutBuffer(record.pbAttr, record.cbAttrLen, value, length, 1);
}

LONG getAttributeRemotely(const FunctionLog& log, const RemoteCard& card, DWORD attributeId,
                          LPBYTE value, LPDWORD length) {
    if (length == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    if (!card.hasContext()) {
        return SCARD_E_INVALID_HANDLE;
    }
    return exchange.adapt(card.state, kAttributesBehindRecord, [&](bool isBehindRecord) {
        return getAttributeOn(exchange, isBehindRecord, card, attributeId, value, length);
    });
}

/// With a connection to a daemon of either form.
LONG setAttributeOn(Exchange& exchange, bool isBehindRecord, const RemoteCard& card,
                    DWORD attributeId, LPCBYTE value, DWORD length) {
    AttribRecord record = {};
    record.hCard = card.target();
    record.dwAttrId = attributeId;
    record.cbAttrLen = length;
    if (!isBehindRecord) {
        if (length > kWireAttributeSize) {
            return ERROR_NOT_SUPPORTED;  // tells that the daemon is too old to carry it
        }
        std::memcpy(record.pbAttr, value, length);
    }
    if (!card.hasContext()) {
        return SCARD_E_INVALID_HANDLE;
    }
    return exchange.callWithData(CMD_SET_ATTRIB, record, value, isBehindRecord ? length : 0,
                                 "Failed to send data");
}

LONG setAttributeRemotely(const FunctionLog& log, const RemoteCard& card, DWORD attributeId,
                          LPCBYTE value, DWORD length) {
    if (value == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    Exchange exchange(log);
    if (!exchange.isConnected()) {
        return SCARD_E_NO_SERVICE;
    }
    return exchange.adapt(card.state, kAttributesBehindRecord, [&](bool isBehindRecord) {
        return setAttributeOn(exchange, isBehindRecord, card, attributeId, value, length);
    });
}

LONG getTransmitCountRemotely(const FunctionLog& log, const RemoteCard& card, LPDWORD count) {
    if (count == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!card.hasContext()) {
        return SCARD_E_INVALID_HANDLE;
    }
    Exchange exchange(log);
    if (!exchange.isConnected()) {
        return SCARD_E_NO_SERVICE;
    }
    return exchange.ifCompatible(card.state, [&] {
        TransmitCountRecord record = {card.target(), *count, 0};
        const LONG rv = exchange.call(CMD_GET_TRANSMIT_COUNT, record);
        if (rv == SCARD_S_SUCCESS) {
            *count = record.dwTransmitCount;
        }
        return rv;
    });
}

}  // namespace

LONG WINAPI SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen) {
    static constexpr CallFrame call("SCardGetAttrib", "GET_ATTRIB");
    call.in("%ld, %lu, %p, %lu", static_cast<long>(hCard), dwAttrId, static_cast<void*>(pcbAttrLen),
            valueOf(pcbAttrLen));
    return call.run(
        [&] {
            return routeCardCall(
                hCard,
                [&](SCARDHANDLE systemCard, SCARDCONTEXT context) -> LONG {
                    return withLocalContext(context, [&](SCARDCONTEXT systemContext) {
                        return LocalSCardGetAttrib(systemContext, systemCard, dwAttrId, pbAttr,
                                                   pcbAttrLen);
                    });
                },
                [&](const RemoteCard& card) {
                    return getAttributeRemotely(call.log(), card, dwAttrId, pbAttr, pcbAttrLen);
                });
        },
        [&] { call.out("%lu", valueOf(pcbAttrLen)); });
}

LONG WINAPI SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr, DWORD cbAttrLen) {
    static constexpr CallFrame call("SCardSetAttrib", "SET_ATTRIB");
    call.in("%ld, %lu, %p, %lu", static_cast<long>(hCard), dwAttrId,
            static_cast<const void*>(pbAttr), cbAttrLen);
    return call.run([&] {
        return routeCardCall(
            hCard,
            [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                return callSystem(&WinscardTable::SCardSetAttrib, systemCard, dwAttrId, pbAttr,
                                  cbAttrLen);
            },
            [&](const RemoteCard& card) {
                return setAttributeRemotely(call.log(), card, dwAttrId, pbAttr, cbAttrLen);
            });
    });
}

LONG WINAPI SCardGetTransmitCount(SCARDHANDLE hCard, LPDWORD pcTransmitCount) {
    static constexpr CallFrame call("SCardGetTransmitCount", "GET_TRANSMIT_COUNT");
    call.in("%ld, %p", static_cast<long>(hCard), static_cast<void*>(pcTransmitCount));
    return call.run(
        [&] {
            return routeCardCall(
                hCard,
                [&](SCARDHANDLE systemCard, SCARDCONTEXT /*context*/) {
                    return callSystem(&WinscardTable::SCardGetTransmitCount, systemCard,
                                      pcTransmitCount);
                },
                [&](const RemoteCard& card) {
                    return getTransmitCountRemotely(call.log(), card, pcTransmitCount);
                });
        },
        [&] { call.out("%lu", valueOf(pcTransmitCount)); });
}
