#include "core/database_commands.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <optional>
#include <string>

#include "core/answered_record.h"
#include "record_codec.h"

namespace tez::test {
namespace {

constexpr std::size_t kCardNameWidth = 1024;
constexpr std::size_t kAtrWidth = 33;
constexpr std::size_t kGuidSize = 16;
static_assert(sizeof(GUID) == kGuidSize && std::endian::native == std::endian::little);

GUID guidAt(std::span<const std::uint8_t> record, std::size_t offset) {
    std::array<std::uint8_t, kGuidSize> bytes{};
    std::ranges::copy(bytesAt(record, offset, kGuidSize), bytes.begin());
    return std::bit_cast<GUID>(bytes);
}

std::vector<GUID> guidsAt(std::span<const std::uint8_t> data, std::size_t count) {
    std::vector<GUID> guids;
    for (std::size_t i = 0; i < count; ++i) {
        guids.push_back(guidAt(data, i * kGuidSize));
    }
    return guids;
}

/// A data phase that is one text with its NUL.
std::optional<std::string> wholeText(std::span<const std::uint8_t> data) {
    const std::optional<std::string> text = textAt(data, 0, data.size());
    return text && text->size() + 1 == data.size() ? text : std::nullopt;
}

LONG checkContextOrNone(const SimulatedService& service, SimulatedService::Context context) {
    return context == 0 ? SCARD_S_SUCCESS : service.isValidContext(context);
}

Reply listCards(SimulatedService& service, Bytes record, const Bytes& data) {
    // A client that counts interfaces but gives none leaves zeros in their place; the record's own
    // count tells.
    const std::size_t count = u32At(record, 42);
    if (data.size() % kGuidSize != 0 || data.size() / kGuidSize < count) {
        return Reply::closePipe();
    }
    if (const LONG result = checkContextOrNone(service, u64At(record, 0));
        result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 50, result);
    }
    std::vector<std::string> names;
    const bool asksForAtr = record[8] != 0;
    const Bytes field = bytesAt(record, 9, kAtrWidth);
    const Bytes atr = bytesAt(field, 0, asksForAtr ? atrLength(field.data()) : 0);
    // What is no ATR at all is no card's.
    if (!asksForAtr || !atr.empty()) {
        names = service.cardStore().list(atr, guidsAt(data, count));
    }
    Bytes list = multiString(names);
    putU32(record, 46, static_cast<std::uint32_t>(list.size()));
    return answered(std::move(record), 50, SCARD_S_SUCCESS, std::move(list));
}

Reply getDeviceTypeId(SimulatedService& service, Bytes record, const Bytes& /*data*/) {
    const std::optional<std::string> reader = textAt(record, 8, kReaderNameWidth);
    if (!reader) {
        return Reply::closePipe();
    }
    DWORD type = 0;
    LONG result = service.isValidContext(u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.getDeviceTypeId(u64At(record, 0), *reader, type);
    }
    putU32(record, 136, static_cast<std::uint32_t>(type));
    return answered(std::move(record), 140, result);
}

Reply getProviderName(SimulatedService& service, Bytes record, const Bytes& /*data*/) {
    const std::optional<std::string> card = textAt(record, 8, kCardNameWidth);
    if (!card) {
        return Reply::closePipe();
    }
    std::string name;
    LONG result = checkContextOrNone(service, u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.cardStore().provider(*card, u32At(record, 1032), name);
    }
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 1040, result);
    }
    putU32(record, 1036, static_cast<std::uint32_t>(name.size() + 1));
    return answered(std::move(record), 1040, result, terminated(name));
}

Reply setProviderName(SimulatedService& service, Bytes record, const Bytes& data) {
    const std::optional<std::string> card = textAt(record, 8, kCardNameWidth);
    const std::optional<std::string> name = wholeText(data);
    if (!card || !name || u32At(record, 1036) != data.size()) {
        return Reply::closePipe();
    }
    LONG result = checkContextOrNone(service, u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.cardStore().setProvider(*card, u32At(record, 1032), *name);
    }
    return answered(std::move(record), 1040, result);
}

Reply introduceCardType(SimulatedService& service, Bytes record, const Bytes& data) {
    const std::optional<std::string> card = textAt(record, 8, kCardNameWidth);
    const std::size_t count = data.empty() ? 0 : u32At(record, 1049);
    if (!card || data.size() != count * kGuidSize || u32At(record, 1121) > kAtrWidth) {
        return Reply::closePipe();
    }
    CardType type;
    if (record[1053] != 0) {
        const Bytes field = bytesAt(record, 1054, kAtrWidth);
        const std::size_t told = u32At(record, 1121);
        type.atr = bytesAt(field, 0, told != 0 ? told : atrLength(field.data()));
    }
    type.atrMask.assign(type.atr.size(), 0xFF);
    if (record[1087] != 0) {
        type.atrMask = bytesAt(record, 1088, type.atr.size());
    }
    if (record[1032] != 0) {
        type.primaryProvider = guidAt(record, 1033);
    }
    type.interfaces = guidsAt(data, count);
    LONG result = type.atr.empty() ? SCARD_E_INVALID_PARAMETER
                                   : checkContextOrNone(service, u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.cardStore().introduce(*card, type);
    }
    return answered(std::move(record), 1125, result);
}

Reply forgetCardType(SimulatedService& service, Bytes record, const Bytes& /*data*/) {
    const std::optional<std::string> card = textAt(record, 8, kCardNameWidth);
    if (!card) {
        return Reply::closePipe();
    }
    LONG result = checkContextOrNone(service, u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.cardStore().forget(*card);
    }
    return answered(std::move(record), 1032, result);
}

Reply audit(SimulatedService& service, Bytes record, const Bytes& /*data*/) {
    const LONG result = service.audit(u64At(record, 0), u32At(record, 8));
    return answered(std::move(record), 12, result);
}

Reply readCache(SimulatedService& service, Bytes record, const Bytes& data) {
    const std::optional<std::string> name = wholeText(data);
    if (!name) {
        return Reply::closePipe();
    }
    Bytes item;
    LONG result = service.isValidContext(u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.cardStore().readCache(guidAt(record, 8), *name, u32At(record, 24), item);
    }
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 32, result);
    }
    putU32(record, 28, static_cast<std::uint32_t>(item.size()));
    return answered(std::move(record), 32, result, std::move(item));
}

Reply writeCache(SimulatedService& service, Bytes record, const Bytes& data) {
    const std::size_t length = u32At(record, 28);
    if (data.size() < length) {
        return Reply::closePipe();
    }
    const std::optional<std::string> name = wholeText(std::span(data).subspan(length));
    if (!name) {
        return Reply::closePipe();
    }
    const LONG result = service.isValidContext(u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        service.cardStore().writeCache(guidAt(record, 8), *name, u32At(record, 24),
                                       bytesAt(data, 0, length));
    }
    return answered(std::move(record), 32, result);
}

Reply getReaderIcon(SimulatedService& service, Bytes record, const Bytes& data) {
    const std::optional<std::string> reader = wholeText(data);
    if (!reader) {
        return Reply::closePipe();
    }
    Bytes icon;
    LONG result = service.isValidContext(u64At(record, 0));
    if (result == SCARD_S_SUCCESS) {
        result = service.getReaderIcon(u64At(record, 0), *reader, icon);
    }
    if (result != SCARD_S_SUCCESS) {
        return answered(std::move(record), 12, result);
    }
    putU32(record, 8, static_cast<std::uint32_t>(icon.size()));
    return answered(std::move(record), 12, result, std::move(icon));
}

struct Served {
    Command command;
    std::size_t recordSize;
    bool hasData;
    Reply (*answer)(SimulatedService& service, Bytes record, const Bytes& data);
};

constexpr Served kServed[] = {
    {Command::kListCards, 54, true, listCards},
    {Command::kGetDeviceTypeId, 144, false, getDeviceTypeId},
    {Command::kGetCardTypeProviderName, 1044, false, getProviderName},
    {Command::kReadCache, 36, true, readCache},
    {Command::kWriteCache, 36, true, writeCache},
    {Command::kGetReaderIcon, 16, true, getReaderIcon},
    {Command::kAudit, 16, false, audit},
    {Command::kSetCardTypeProviderName, 1044, true, setProviderName},
    {Command::kIntroduceCardType, 1129, true, introduceCardType},
    {Command::kForgetCardType, 1036, false, forgetCardType},
};

}  // namespace

Reply answerDatabaseCommand(SimulatedService& service, const Request& request) {
    const auto* const served = std::ranges::find(kServed, request.command, &Served::command);
    const std::size_t size = request.body.size();
    if (served == std::end(kServed) || size < served->recordSize ||
        (size > served->recordSize && !served->hasData)) {
        return Reply::closePipe();
    }
    const Bytes data = bytesAt(request.body, served->recordSize, size - served->recordSize);
    return served->answer(service, bytesAt(request.body, 0, served->recordSize), data);
}

}  // namespace tez::test
