#include "core/database_commands.h"

#include <algorithm>
#include <string>

#include "core/text.h"
#include "wire/database_records.h"

namespace tez::pcscd {
namespace {

std::vector<Guid> guidsIn(std::span<const std::uint8_t> data, std::size_t count) {
    std::vector<Guid> guids(count);
    if (count != 0) {
        std::memcpy(guids.data(), data.data(), count * sizeof(Guid));
    }
    return guids;
}

Result checkContextOrNone(const Call& call, Context context) {
    return context == 0 ? result::kSuccess : call.service.isValidContext(context);
}

Reply listCards(const Call& call, ListCardsRecord& record) {
    // A client that counts interfaces but gives none leaves zeros in their place; the record's own
    // count tells.
    const std::size_t count = record.cguidInterfaceCount;
    if (call.data.size() % sizeof(Guid) != 0 || call.data.size() / sizeof(Guid) < count) {
        return Reply::closePipe();
    }
    if (const Result result = checkContextOrNone(call, record.hContext);
        result != result::kSuccess) {
        return answered(record, result);
    }
    std::vector<std::string> names;
    const bool asksForAtr = record.isAtrPresent != 0;
    const std::span<const std::uint8_t> atr(record.rgbAtr,
                                            asksForAtr ? atrLength(record.rgbAtr) : 0);
    // What is no ATR at all is no card's.
    if (!asksForAtr || !atr.empty()) {
        names = call.service.cardStore().list(atr, guidsIn(call.data, count));
    }
    Bytes list = multiString(names);
    record.cchCards = sizeOf(list);
    return answered(record, result::kSuccess, std::move(list));
}

Reply getDeviceTypeId(const Call& call, DeviceTypeIdRecord& record) {
    const std::optional<std::string> reader = textIn(record.szReaderName);
    if (!reader) {
        return Reply::closePipe();
    }
    std::uint32_t type = 0;
    Result result = call.service.isValidContext(record.hContext);
    if (result == result::kSuccess) {
        result = call.service.getDeviceTypeId(record.hContext, *reader, type);
    }
    record.dwDeviceTypeId = type;
    return answered(record, result);
}

Reply getProviderName(const Call& call, ProviderNameRecord& record) {
    const std::optional<std::string> card = textIn(record.szCardName);
    if (!card) {
        return Reply::closePipe();
    }
    std::string name;
    Result result = checkContextOrNone(call, record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().provider(*card, record.dwProviderId, name);
    }
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    Bytes text = terminated(name);
    record.cchProvider = sizeOf(text);
    return answered(record, result, std::move(text));
}

Reply setProviderName(const Call& call, ProviderNameRecord& record) {
    const std::optional<std::string> card = textIn(record.szCardName);
    const std::optional<std::string> name = wholeText(call.data);
    if (!card || !name || record.cchProvider != call.data.size()) {
        return Reply::closePipe();
    }
    Result result = checkContextOrNone(call, record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().setProvider(*card, record.dwProviderId, *name);
    }
    return answered(record, result);
}

/// The first bytes of a field that holds an ATR or its mask.
Bytes firstBytes(const std::uint8_t (&field)[kWireCardAtrSize], std::size_t count) {
    return {field, field + count};
}

Reply introduceCardType(const Call& call, IntroduceCardTypeRecord& record) {
    const std::optional<std::string> card = textIn(record.szCardName);
    const std::size_t count = call.data.empty() ? 0 : record.dwInterfaceCount;
    if (!card || call.data.size() != count * sizeof(Guid) || record.cbAtrLen > kWireCardAtrSize) {
        return Reply::closePipe();
    }
    CardType type;
    if (record.isAtrPresent != 0) {
        const std::size_t told = record.cbAtrLen;
        type.atr = firstBytes(record.rgbAtr, told != 0 ? told : atrLength(record.rgbAtr));
    }
    type.atrMask.assign(type.atr.size(), 0xFF);
    if (record.isMaskPresent != 0) {
        type.atrMask = firstBytes(record.rgbAtrMask, type.atr.size());
    }
    if (record.isPrimaryProviderPresent != 0) {
        type.primaryProvider = record.guidPrimaryProvider;
    }
    type.interfaces = guidsIn(call.data, count);
    Result result =
        type.atr.empty() ? result::kInvalidParameter : checkContextOrNone(call, record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().introduce(*card, type);
    }
    return answered(record, result);
}

Reply forgetCardType(const Call& call, ForgetCardTypeRecord& record) {
    const std::optional<std::string> card = textIn(record.szCardName);
    if (!card) {
        return Reply::closePipe();
    }
    Result result = checkContextOrNone(call, record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().forget(*card);
    }
    return answered(record, result);
}

Reply audit(const Call& call, AuditRecord& record) {
    return answered(record, call.service.audit(record.hContext, record.dwEvent));
}

Reply readCache(const Call& call, CacheRecord& record) {
    const std::optional<std::string> name = wholeText(call.data);
    if (!name) {
        return Reply::closePipe();
    }
    Bytes item;
    Result result = call.service.isValidContext(record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().readCache(record.cardIdentifier, *name,
                                                    record.freshnessCounter, item);
    }
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    record.cbData = sizeOf(item);
    return answered(record, result, std::move(item));
}

Reply writeCache(const Call& call, CacheRecord& record) {
    const std::size_t length = record.cbData;
    if (call.data.size() < length) {
        return Reply::closePipe();
    }
    const std::optional<std::string> name = wholeText(call.data.subspan(length));
    if (!name) {
        return Reply::closePipe();
    }
    const auto item = call.data.first(length);
    Result result = call.service.isValidContext(record.hContext);
    if (result == result::kSuccess) {
        result = call.service.cardStore().writeCache(
            record.cardIdentifier, *name, record.freshnessCounter, Bytes(item.begin(), item.end()));
    }
    return answered(record, result);
}

Reply getReaderIcon(const Call& call, ReaderIconRecord& record) {
    const std::optional<std::string> reader = wholeText(call.data);
    if (!reader) {
        return Reply::closePipe();
    }
    Bytes icon;
    Result result = call.service.isValidContext(record.hContext);
    if (result == result::kSuccess) {
        result = call.service.getReaderIcon(record.hContext, *reader, icon);
    }
    if (result != result::kSuccess) {
        return answered(record, result);
    }
    record.cbIcon = sizeOf(icon);
    return answered(record, result, std::move(icon));
}

constexpr Served kDatabaseCommands[] = {
    servingWithData<ListCardsRecord, listCards>(Command::kListCards),
    serving<DeviceTypeIdRecord, getDeviceTypeId>(Command::kGetDeviceTypeId),
    serving<ProviderNameRecord, getProviderName>(Command::kGetCardTypeProviderName),
    servingWithData<CacheRecord, readCache>(Command::kReadCache),
    servingWithData<CacheRecord, writeCache>(Command::kWriteCache),
    servingWithData<ReaderIconRecord, getReaderIcon>(Command::kGetReaderIcon),
    serving<AuditRecord, audit>(Command::kAudit),
    servingWithData<ProviderNameRecord, setProviderName>(Command::kSetCardTypeProviderName),
    servingWithData<IntroduceCardTypeRecord, introduceCardType>(Command::kIntroduceCardType),
    serving<ForgetCardTypeRecord, forgetCardType>(Command::kForgetCardType),
};

}  // namespace

std::span<const Served> databaseCommands() {
    return kDatabaseCommands;
}

}  // namespace tez::pcscd
