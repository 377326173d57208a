#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>

#include "wire/attribute_records.h"
#include "wire/card_records.h"
#include "wire/command_codes.h"
#include "wire/context_records.h"
#include "wire/database_records.h"
#include "wire/reader_records.h"

namespace tez::fuzz {

/// What the daemon's answer to a command is made of: the request's record, filled in, and behind it
/// as many pieces of data as a field of the record says.
struct AnswerShape {
    static constexpr std::size_t kNoData = 0;

    std::uint32_t command;
    std::size_t recordSize;
    std::size_t resultOffset;
    std::size_t countOffset = kNoData;  ///< of the field that counts the data
    std::size_t unit = 1;               ///< bytes of what it counts
    bool isDataOfFailures = false;      ///< whether there is data behind a failure too

    std::uint32_t result(std::span<const std::uint8_t> record) const {
        return field(record, resultOffset);
    }

    /// The bytes of data that a record announces.
    std::uint64_t dataSize(std::span<const std::uint8_t> record) const {
        const bool hasData = countOffset != kNoData && (result(record) == 0 || isDataOfFailures);
        return hasData ? std::uint64_t{field(record, countOffset)} * unit : 0;
    }

  private:
    static std::uint32_t field(std::span<const std::uint8_t> record, std::size_t offset) {
        std::uint32_t value = 0;
        std::memcpy(&value, record.subspan(offset, sizeof value).data(), sizeof value);
        return value;
    }
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): offsets of fields have no other form
#define TEZ_RECORD(Record) sizeof(Record), offsetof(Record, rv)
inline constexpr AnswerShape kAnswerShapes[] = {
    {CMD_ESTABLISH_CONTEXT, TEZ_RECORD(EstablishRecord)},
    {CMD_RELEASE_CONTEXT, TEZ_RECORD(ReleaseRecord)},
    {CMD_LIST_READERS, TEZ_RECORD(ListReadersRecord), offsetof(ListReadersRecord, cchReaders)},
    {CMD_SCARD_CONNECT, TEZ_RECORD(ConnectRecord)},
    {CMD_RECONNECT, TEZ_RECORD(ReconnectRecord)},
    {CMD_DISCONNECT, TEZ_RECORD(DisconnectRecord)},
    {CMD_BEGIN_TRANSACTION, TEZ_RECORD(HandleRecord)},
    {CMD_END_TRANSACTION, TEZ_RECORD(DisconnectRecord)},
    {CMD_TRANSMIT, TEZ_RECORD(TransmitRecord), offsetof(TransmitRecord, pcbRecvLength)},
    {CMD_CONTROL, TEZ_RECORD(ControlRecord), offsetof(ControlRecord, dwBytesReturned)},
    {CMD_STATUS, TEZ_RECORD(StatusRecord)},
    {CMD_GET_STATUS_CHANGE, TEZ_RECORD(StatusChangeRecord), offsetof(StatusChangeRecord, cReaders),
     sizeof(ReaderStateRecord), true},
    {CMD_CANCEL, TEZ_RECORD(HandleRecord)},
    {CMD_GET_ATTRIB, TEZ_RECORD(AttribRecord), offsetof(AttribRecord, cbAttrLen)},
    {CMD_SET_ATTRIB, TEZ_RECORD(AttribRecord)},
    {CMD_GET_TRANSMIT_COUNT, TEZ_RECORD(TransmitCountRecord)},
    {CMD_LIST_CARDS, TEZ_RECORD(ListCardsRecord), offsetof(ListCardsRecord, cchCards)},
    {CMD_GET_DEVICE_TYPE_ID, TEZ_RECORD(DeviceTypeIdRecord)},
    {CMD_GET_CARD_TYPE_PROVIDER_NAME, TEZ_RECORD(ProviderNameRecord),
     offsetof(ProviderNameRecord, cchProvider)},
    {CMD_READ_CACHE, TEZ_RECORD(CacheRecord), offsetof(CacheRecord, cbData)},
    {CMD_WRITE_CACHE, TEZ_RECORD(CacheRecord)},
    {CMD_GET_READER_ICON, TEZ_RECORD(ReaderIconRecord), offsetof(ReaderIconRecord, cbIcon)},
    {CMD_AUDIT, TEZ_RECORD(AuditRecord)},
    {CMD_SET_CARD_TYPE_PROVIDER_NAME, TEZ_RECORD(ProviderNameRecord)},
    {CMD_INTRODUCE_CARD_TYPE, TEZ_RECORD(IntroduceCardTypeRecord)},
    {CMD_FORGET_CARD_TYPE, TEZ_RECORD(ForgetCardTypeRecord)},
};
#undef TEZ_RECORD

/// Null for a command that no daemon knows.
inline const AnswerShape* findAnswerShape(std::uint32_t command) {
    const auto* const found = std::ranges::find(kAnswerShapes, command, &AnswerShape::command);
    return found == std::end(kAnswerShapes) ? nullptr : found;
}

}  // namespace tez::fuzz
