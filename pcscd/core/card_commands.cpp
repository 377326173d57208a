#include "core/card_commands.h"

#include <algorithm>
#include <string>

#include "core/text.h"
#include "wire/attribute_records.h"
#include "wire/card_records.h"
#include "wire/context_records.h"
#include "wire/protocol_mask.h"
#include "wire/reader_records.h"

namespace tez::pcscd {
namespace {

// Versions from which the attribute's bytes follow the record, and from which reader states follow
// a failed status change.
constexpr ProtocolVersion kLongAttributes{1, 2};
constexpr ProtocolVersion kStatesAfterFailure{1, 1};

// The library asks for 64 at most. A wait keeps its entries for as long as it takes, and looks at
// all of them, with the service's lock held, whenever anything changes.
constexpr std::size_t kMostReaderStates = 256;

std::uint32_t toWire(std::uint32_t protocol) {
    return (protocol & protocol::kRaw) != 0 ? (protocol & ~protocol::kRaw) | kWireRaw : protocol;
}

std::uint32_t fromWire(std::uint32_t protocol) {
    return (protocol & kWireRaw) != 0 ? (protocol & ~kWireRaw) | protocol::kRaw : protocol;
}

/// Fills a field with the bytes, as far as it reaches, and with zeros behind them.
void fill(std::span<std::uint8_t> field, std::span<const std::uint8_t> bytes) {
    const std::size_t count = std::min(field.size(), bytes.size());
    std::ranges::copy(bytes.first(count), field.begin());
    std::ranges::fill(field.subspan(count), std::uint8_t{0});
}

Reply establish(const Call& call, EstablishRecord& record) {
    Context context = 0;
    const Result result = call.service.establishContext(record.dwScope, context);
    if (result == result::kSuccess) {
        call.clients.hold(call.process, context);
    }
    record.hContext = context;
    return answered(record, result);
}

Reply release(const Call& call, ReleaseRecord& record) {
    const Context context = record.hContext;
    call.clients.letGo(call.process, context);
    return answered(record, call.service.releaseContext(context));
}

Reply listReaders(const Call& call, ListReadersRecord& record) {
    std::vector<std::string> names;
    const Result result = call.service.listReaders(record.hContext, names);
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    Bytes list = multiString(names);
    record.cchReaders = sizeOf(list);
    return answered(record, result, std::move(list));
}

Reply connect(const Call& call, ConnectRecord& record) {
    const std::optional<std::string> reader = textIn(record.szReader);
    if (!reader) {
        return Reply::closePipe();
    }
    Card card = 0;
    std::uint32_t active = protocol::kUndefined;
    const Result result = call.service.connect(record.hContext, *reader, record.dwShareMode,
                                               fromWire(record.dwPreferredProtocols), card, active);
    record.hCard = card;
    record.dwActiveProtocol = toWire(active);
    return answered(record, result);
}

Reply reconnect(const Call& call, ReconnectRecord& record) {
    std::uint32_t active = protocol::kUndefined;
    const Result result = call.service.reconnect(record.hCard, record.dwShareMode,
                                                 fromWire(record.dwPreferredProtocols),
                                                 record.dwInitialization, active);
    record.dwActiveProtocol = toWire(active);
    return answered(record, result);
}

Reply disconnect(const Call& call, DisconnectRecord& record) {
    return answered(record, call.service.disconnect(record.hCard, record.dwDisposition));
}

Reply endTransaction(const Call& call, DisconnectRecord& record) {
    return answered(record, call.service.endTransaction(record.hCard, record.dwDisposition));
}

Reply beginTransaction(const Call& call, HandleRecord& record) {
    return answered(record, call.service.beginTransaction(record.handle));
}

Reply cancel(const Call& call, HandleRecord& record) {
    return answered(record, call.service.cancel(record.handle));
}

std::uint32_t wireStateOf(const CardStatus& status) {
    std::uint32_t state = status.present ? kWirePresent : kWireAbsent;
    if (status.swallowed) {
        state |= kWireSwallowed;
    }
    if (status.powered) {
        state |= kWirePowered | (status.negotiable ? kWireNegotiable : kWireSpecific);
    }
    return state;
}

Reply status(const Call& call, StatusRecord& record) {
    CardStatus status;
    const Result result = call.service.status(record.hCard, status);
    if (result == result::kSuccess) {
        record.dwState = wireStateOf(status);
        record.dwProtocol = toWire(status.protocol);
        fill(record.pbAtr, status.atr);
        record.cbAtrLen = sizeOf(status.atr);
    }
    return answered(record, result);
}

Reply transmit(const Call& call, TransmitRecord& record) {
    if (record.cbSendLength != call.data.size()) {
        return Reply::closePipe();
    }
    Bytes response;
    const Result result = call.service.transmit(record.hCard, fromWire(record.ioSendPciProtocol),
                                                call.data, record.pcbRecvLength, response);
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    record.ioRecvPciProtocol = record.ioSendPciProtocol;
    record.pcbRecvLength = sizeOf(response);
    return answered(record, result, std::move(response));
}

Reply control(const Call& call, ControlRecord& record) {
    if (record.cbInBufferSize != call.data.size()) {
        return Reply::closePipe();
    }
    Bytes output;
    const Result result = call.service.control(record.hCard, record.dwControlCode, call.data,
                                               record.cbOutBufferSize, output);
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    record.dwBytesReturned = sizeOf(output);
    return answered(record, result, std::move(output));
}

Reply getAttribute(const Call& call, AttribRecord& record) {
    Bytes value;
    const Result result = call.service.getAttribute(record.hCard, record.dwAttrId, value);
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    // The client judges whether its buffer holds the value, from the length alone if need be.
    record.cbAttrLen = sizeOf(value);
    if (call.version.isAtLeast(kLongAttributes)) {
        return answered(record, result, std::move(value));
    }
    fill(record.pbAttr, value);
    return answered(record, result);
}

Reply setAttribute(const Call& call, AttribRecord& record) {
    const bool follows = call.version.isAtLeast(kLongAttributes);
    const std::uint32_t length = record.cbAttrLen;
    if (call.data.size() != (follows ? length : 0) || (!follows && length > kWireAttributeSize)) {
        return Reply::closePipe();
    }
    const auto value = follows ? call.data : std::span(record.pbAttr).first(length);
    return answered(record, call.service.setAttribute(record.hCard, record.dwAttrId, value));
}

Reply transmitCount(const Call& call, TransmitCountRecord& record) {
    std::uint32_t count = record.dwTransmitCount;
    const Result result = call.service.transmitCount(record.hCard, count);
    record.dwTransmitCount = count;
    return answered(record, result);
}

Reply getStatusChange(const Call& call, StatusChangeRecord& record) {
    const std::size_t count = record.cReaders;
    if (call.data.size() != count * sizeof(ReaderStateRecord)) {
        return Reply::closePipe();
    }
    if (count > kMostReaderStates) {
        record.cReaders = 0;
        return answered(record, result::kInvalidParameter);
    }
    std::vector<ReaderStateRecord> entries(count);
    std::vector<ReaderState> states;
    states.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        ReaderStateRecord& entry = entries[i];
        std::memcpy(&entry, &call.data[i * sizeof entry], sizeof entry);
        const std::optional<std::string> reader = textIn(entry.szReader);
        if (!reader) {
            return Reply::closePipe();
        }
        states.push_back({*reader, entry.dwCurrentState, 0, {}});
    }
    const Result result = call.service.getStatusChange(record.hContext, record.dwTimeout, states);
    if (count == 0 ||
        (result != result::kSuccess && !call.version.isAtLeast(kStatesAfterFailure))) {
        return answered(record, result);
    }
    Bytes data;
    for (std::size_t i = 0; i < count; ++i) {
        ReaderStateRecord& entry = entries[i];
        entry.dwEventState = states[i].eventState;
        entry.cbAtr = sizeOf(states[i].atr);
        fill(entry.rgbAtr, states[i].atr);
        const Bytes bytes = bytesOf(entry);
        data.insert(data.end(), bytes.begin(), bytes.end());
    }
    return answered(record, result, std::move(data));
}

constexpr Served kCardCommands[] = {
    serving<EstablishRecord, establish>(Command::kEstablishContext),
    serving<ReleaseRecord, release>(Command::kReleaseContext),
    serving<ListReadersRecord, listReaders>(Command::kListReaders),
    serving<ConnectRecord, connect>(Command::kConnect),
    serving<ReconnectRecord, reconnect>(Command::kReconnect),
    serving<DisconnectRecord, disconnect>(Command::kDisconnect),
    serving<HandleRecord, beginTransaction>(Command::kBeginTransaction),
    serving<DisconnectRecord, endTransaction>(Command::kEndTransaction),
    servingWithData<TransmitRecord, transmit>(Command::kTransmit),
    servingWithData<ControlRecord, control>(Command::kControl),
    serving<StatusRecord, status>(Command::kStatus),
    servingWithData<StatusChangeRecord, getStatusChange>(Command::kGetStatusChange),
    serving<HandleRecord, cancel>(Command::kCancel),
    serving<AttribRecord, getAttribute>(Command::kGetAttribute),
    servingWithData<AttribRecord, setAttribute>(Command::kSetAttribute),
    serving<TransmitCountRecord, transmitCount>(Command::kGetTransmitCount),
};

}  // namespace

std::span<const Served> cardCommands() {
    return kCardCommands;
}

}  // namespace tez::pcscd
