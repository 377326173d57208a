#include "core/commands.h"

#include <algorithm>
#include <optional>
#include <string>

#include "core/answered_record.h"
#include "core/database_commands.h"
#include "record_codec.h"

namespace tez::test {
namespace {

constexpr std::size_t kEstablishSize = 16;
constexpr std::size_t kReleaseSize = 12;
constexpr std::size_t kListReadersSize = 16;
constexpr std::size_t kConnectSize = 160;
constexpr std::size_t kReconnectSize = 28;
constexpr std::size_t kDisconnectSize = 16;
constexpr std::size_t kHandleSize = 12;
constexpr std::size_t kTransmitSize = 28;
constexpr std::size_t kControlSize = 28;
constexpr std::size_t kStatusSize = 288;
constexpr std::size_t kStatusChangeSize = 20;
constexpr std::size_t kReaderStateSize = 173;
constexpr std::size_t kAttributeSize = 284;
constexpr std::size_t kTransmitCountSize = 16;

constexpr std::size_t kStateAtrWidth = 33;
constexpr std::size_t kAttributeWidth = 264;

// Card states as they stand on the pipe.
constexpr std::uint32_t kAbsent = 0x02;
constexpr std::uint32_t kPresent = 0x04;
constexpr std::uint32_t kPowered = 0x10;
constexpr std::uint32_t kNegotiable = 0x20;
constexpr std::uint32_t kSpecific = 0x40;

constexpr std::uint32_t kWireRaw = 4;

// Versions from which the attribute's bytes follow the record, and from which reader states follow
// a failed status change.
constexpr ProtocolVersion kLongAttributes{1, 2};
constexpr ProtocolVersion kStatesAfterFailure{1, 1};

std::uint32_t toWire(DWORD protocol) {
    const auto rest = static_cast<std::uint32_t>(protocol & ~DWORD{SCARD_PROTOCOL_RAW});
    return (protocol & SCARD_PROTOCOL_RAW) != 0 ? rest | kWireRaw : rest;
}

DWORD fromWire(std::uint32_t protocol) {
    const DWORD rest = protocol & ~kWireRaw;
    return (protocol & kWireRaw) != 0 ? rest | SCARD_PROTOCOL_RAW : rest;
}

Reply establish(SimulatedService& service, Bytes record) {
    SimulatedService::Context context = 0;
    const LONG result = service.establishContext(u32At(record, 0), context);
    putU64(record, 4, context);
    return answered(std::move(record), 12, result);
}

Reply listReaders(SimulatedService& service, Bytes record) {
    std::vector<std::string> names;
    const LONG result = service.listReaders(u64At(record, 0), names);
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 12, result);
    }
    Bytes list = multiString(names);
    putU32(record, 8, static_cast<std::uint32_t>(list.size()));
    return answered(std::move(record), 12, result, std::move(list));
}

Reply connect(SimulatedService& service, Bytes record) {
    const std::optional<std::string> reader = textAt(record, 8, kReaderNameWidth);
    if (!reader) {
        return Reply::closePipe();
    }
    SimulatedService::Card card = 0;
    DWORD active = 0;
    const LONG result = service.connect(u64At(record, 0), *reader, u32At(record, 136),
                                        fromWire(u32At(record, 140)), card, active);
    putU64(record, 144, card);
    putU32(record, 152, toWire(active));
    return answered(std::move(record), 156, result);
}

Reply reconnect(SimulatedService& service, Bytes record) {
    DWORD active = 0;
    const LONG result = service.reconnect(u64At(record, 0), u32At(record, 8),
                                          fromWire(u32At(record, 12)), u32At(record, 16), active);
    putU32(record, 20, toWire(active));
    return answered(std::move(record), 24, result);
}

Reply status(SimulatedService& service, Bytes record) {
    CardStatus status;
    const LONG result = service.status(u64At(record, 0), status);
    if (result == SCARD_S_SUCCESS) {
        std::uint32_t state = status.present ? kPresent : kAbsent;
        if (status.powered) {
            state |= kPowered | (status.negotiable ? kNegotiable : kSpecific);
        }
        putU32(record, 8, state);
        putU32(record, 12, toWire(status.protocol));
        putBytes(record, 16, status.atr);
        putU32(record, 280, static_cast<std::uint32_t>(status.atr.size()));
    }
    return answered(std::move(record), 284, result);
}

Reply transmit(SimulatedService& service, Bytes record, const Bytes& command) {
    if (u32At(record, 12) != command.size()) {
        return Reply::closePipe();
    }
    Bytes response;
    const LONG result = service.transmit(u64At(record, 0), fromWire(u32At(record, 8)), command,
                                         u32At(record, 20), response);
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 24, result);
    }
    putU32(record, 16, u32At(record, 8));
    putU32(record, 20, static_cast<std::uint32_t>(response.size()));
    return answered(std::move(record), 24, result, std::move(response));
}

Reply control(SimulatedService& service, Bytes record, const Bytes& input) {
    if (u32At(record, 12) != input.size()) {
        return Reply::closePipe();
    }
    Bytes output;
    const LONG result =
        service.control(u64At(record, 0), u32At(record, 8), input, u32At(record, 16), output);
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 24, result);
    }
    putU32(record, 20, static_cast<std::uint32_t>(output.size()));
    return answered(std::move(record), 24, result, std::move(output));
}

Reply getAttribute(SimulatedService& service, Bytes record, ProtocolVersion version) {
    Bytes value;
    const LONG result = service.getAttribute(u64At(record, 0), u32At(record, 8), value);
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 280, result);
    }
    // The client judges whether its buffer holds the value, from the length alone if need be.
    putU32(record, 276, static_cast<std::uint32_t>(value.size()));
    if (version.isAtLeast(kLongAttributes)) {
        return answered(std::move(record), 280, result, std::move(value));
    }
    putBytes(record, 12, bytesAt(value, 0, std::min(value.size(), kAttributeWidth)));
    return answered(std::move(record), 280, result);
}

Reply setAttribute(SimulatedService& service, Bytes record, const Bytes& data,
                   ProtocolVersion version) {
    const bool follows = version.isAtLeast(kLongAttributes);
    const std::uint32_t length = u32At(record, 276);
    if (data.size() != (follows ? length : 0) || (!follows && length > kAttributeWidth)) {
        return Reply::closePipe();
    }
    const Bytes value = follows ? data : bytesAt(record, 12, length);
    const LONG result = service.setAttribute(u64At(record, 0), u32At(record, 8), value);
    return answered(std::move(record), 280, result);
}

Reply transmitCount(SimulatedService& service, Bytes record) {
    DWORD count = u32At(record, 8);
    const LONG result = service.transmitCount(u64At(record, 0), count);
    putU32(record, 8, static_cast<std::uint32_t>(count));
    return answered(std::move(record), 12, result);
}

Reply getStatusChange(SimulatedService& service, Bytes record, Bytes entries,
                      ProtocolVersion version) {
    const std::size_t count = u32At(record, 12);
    if (entries.size() != count * kReaderStateSize) {
        return Reply::closePipe();
    }
    std::vector<ReaderState> states;
    for (std::size_t entry = 0; entry < entries.size(); entry += kReaderStateSize) {
        const std::optional<std::string> reader = textAt(entries, entry, kReaderNameWidth);
        if (!reader) {
            return Reply::closePipe();
        }
        states.push_back({*reader, u32At(entries, entry + 128), 0, {}});
    }
    const LONG result = service.getStatusChange(u64At(record, 0), u32At(record, 8), states);
    if (count == 0 || (result != SCARD_S_SUCCESS && !version.isAtLeast(kStatesAfterFailure))) {
        return answered(std::move(record), 16, result);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t entry = i * kReaderStateSize;
        const Bytes& atr = states[i].atr;
        Bytes field(kStateAtrWidth);
        putBytes(field, 0, bytesAt(atr, 0, std::min(atr.size(), kStateAtrWidth)));
        putU32(entries, entry + 132, static_cast<std::uint32_t>(states[i].eventState));
        putU32(entries, entry + 136, static_cast<std::uint32_t>(atr.size()));
        putBytes(entries, entry + 140, field);
    }
    return answered(std::move(record), 16, result, std::move(entries));
}

/// The size of a command's record; nullopt for a command that is not served here.
std::optional<std::size_t> recordSize(Command command) {
    switch (command) {
        case Command::kEstablishContext:
            return kEstablishSize;
        case Command::kReleaseContext:
            return kReleaseSize;
        case Command::kListReaders:
            return kListReadersSize;
        case Command::kConnect:
            return kConnectSize;
        case Command::kReconnect:
            return kReconnectSize;
        case Command::kDisconnect:
        case Command::kEndTransaction:
            return kDisconnectSize;
        case Command::kBeginTransaction:
        case Command::kCancel:
            return kHandleSize;
        case Command::kTransmit:
            return kTransmitSize;
        case Command::kControl:
            return kControlSize;
        case Command::kStatus:
            return kStatusSize;
        case Command::kGetStatusChange:
            return kStatusChangeSize;
        case Command::kGetAttribute:
        case Command::kSetAttribute:
            return kAttributeSize;
        case Command::kGetTransmitCount:
            return kTransmitCountSize;
        default:
            return std::nullopt;
    }
}

bool hasDataPhase(Command command) {
    return command == Command::kTransmit || command == Command::kControl ||
           command == Command::kGetStatusChange || command == Command::kSetAttribute;
}

}  // namespace

Reply DaemonCommands::answer(const Request& request) const {
    if (!request.complete) {
        return Reply::closePipe();
    }
    const std::optional<std::size_t> size = recordSize(request.command);
    if (!size) {
        return answerDatabaseCommand(service_, request);
    }
    if (request.body.size() < *size ||
        (request.body.size() > *size && !hasDataPhase(request.command))) {
        return Reply::closePipe();
    }
    Bytes record = bytesAt(request.body, 0, *size);
    Bytes data = bytesAt(request.body, *size, request.body.size() - *size);
    const std::uint64_t handle = u64At(record, 0);

    switch (request.command) {
        case Command::kEstablishContext:
            return establish(service_, std::move(record));
        case Command::kReleaseContext:
            return answered(std::move(record), 8, service_.releaseContext(handle));
        case Command::kListReaders:
            return listReaders(service_, std::move(record));
        case Command::kConnect:
            return connect(service_, std::move(record));
        case Command::kReconnect:
            return reconnect(service_, std::move(record));
        case Command::kDisconnect: {
            const LONG result = service_.disconnect(handle, u32At(record, 8));
            return answered(std::move(record), 12, result);
        }
        case Command::kEndTransaction: {
            const LONG result = service_.endTransaction(handle, u32At(record, 8));
            return answered(std::move(record), 12, result);
        }
        case Command::kBeginTransaction:
            return answered(std::move(record), 8, service_.beginTransaction(handle));
        case Command::kCancel:
            return answered(std::move(record), 8, service_.cancel(handle));
        case Command::kTransmit:
            return transmit(service_, std::move(record), data);
        case Command::kControl:
            return control(service_, std::move(record), data);
        case Command::kStatus:
            return status(service_, std::move(record));
        case Command::kGetStatusChange:
            return getStatusChange(service_, std::move(record), std::move(data), request.version);
        case Command::kGetAttribute:
            return getAttribute(service_, std::move(record), request.version);
        case Command::kSetAttribute:
            return setAttribute(service_, std::move(record), data, request.version);
        case Command::kGetTransmitCount:
            return transmitCount(service_, std::move(record));
        default:
            return Reply::closePipe();
    }
}

}  // namespace tez::test
