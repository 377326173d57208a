#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "core/bytes.h"
#include "core/text.h"
#include "pcscd_names.h"

// Reads and writes the little-endian fields of the daemon's records at explicit offsets. A field
// that does not lie within the record is a mistake of the caller: std::out_of_range.
namespace tez::test {

std::uint32_t u32At(std::span<const std::uint8_t> record, std::size_t offset);
std::uint64_t u64At(std::span<const std::uint8_t> record, std::size_t offset);
/// The text of a field of `width` bytes up to its zero; nullopt when it has none.
std::optional<std::string> textAt(std::span<const std::uint8_t> record, std::size_t offset,
                                  std::size_t width);
Bytes bytesAt(std::span<const std::uint8_t> record, std::size_t offset, std::size_t count);

void putU32(Bytes& record, std::size_t offset, std::uint32_t value);
void putU64(Bytes& record, std::size_t offset, std::uint64_t value);
void putBytes(Bytes& record, std::size_t offset, std::span<const std::uint8_t> bytes);

}  // namespace tez::test
