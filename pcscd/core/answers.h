#pragma once

#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>

#include "core/card_service.h"
#include "core/clients.h"
#include "core/traffic.h"

// What the sources that answer commands share; for them only.
namespace tez::pcscd {

/// A request as it is answered: what stands beside its record.
struct Call {
    CardService& service;
    Clients& clients;
    Clients::Process process;
    ProtocolVersion version;
    std::span<const std::uint8_t> data;  ///< what follows the record
};

/// As a record's field holds it; nothing that is sent is longer than 16 MiB.
inline std::uint32_t sizeOf(const Bytes& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}

template <typename Record>
Bytes bytesOf(const Record& record) {
    Bytes bytes(sizeof record);
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

/// The answer to a request: its record with the result filled in, and the data phase where there is
/// one.
template <typename Record>
Reply answered(Record& record, Result result, std::optional<Bytes> data = std::nullopt) {
    record.rv = static_cast<std::uint32_t>(result);
    std::vector<Bytes> blocks{bytesOf(record)};
    if (data) {
        blocks.push_back(std::move(*data));
    }
    return Reply::of(std::move(blocks));
}

/// How one command is answered.
struct Served {
    Command command;
    std::size_t recordSize;
    bool hasData;  ///< whether something may follow the record
    Reply (*answer)(const Call& call, std::span<const std::uint8_t> record);
};

template <typename Record>
using Answer = Reply (*)(const Call&, Record&);

template <typename Record, Answer<Record> answer>
Reply answerRecord(const Call& call, std::span<const std::uint8_t> bytes) {
    static_assert(std::is_trivially_copyable_v<Record>);
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    return answer(call, record);
}

template <typename Record, Answer<Record> answer>
constexpr Served serving(Command command) {
    return {command, sizeof(Record), false, answerRecord<Record, answer>};
}

/// As serving, for a command whose record may be followed by data.
template <typename Record, Answer<Record> answer>
constexpr Served servingWithData(Command command) {
    return {command, sizeof(Record), true, answerRecord<Record, answer>};
}

}  // namespace tez::pcscd
