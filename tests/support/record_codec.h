#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "core/bytes.h"
#include "core/text.h"
#include "pcscd_names.h"

// Reads and writes the little-endian fields of the daemon's records at explicit offsets, for the
// tests must not share a mistake with the library's own record types. A field that does not lie
// within the record is a mistake of the caller: std::out_of_range.
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

/// A record, zero where nothing was put:
///
///     RecordBytes(16).u64(0, context).u32(8, length)
class RecordBytes {
  public:
    explicit RecordBytes(std::size_t size) : bytes_(size) {}

    RecordBytes& u32(std::size_t offset, std::uint32_t value);
    RecordBytes& u64(std::size_t offset, std::uint64_t value);
    RecordBytes& text(std::size_t offset, std::string_view value);
    RecordBytes& raw(std::size_t offset, const Bytes& value);
    /// Puts a data phase behind the record.
    RecordBytes& append(const Bytes& data);

    const Bytes& bytes() const noexcept { return bytes_; }
    operator Bytes() const { return bytes_; }

  private:
    Bytes bytes_;
};

/// The text without anything behind it.
Bytes textBytes(std::string_view text);

/// A copy of memory.
Bytes copyBytes(const void* data, std::size_t size);

/// The bytes of a record as the compiler lays it out.
template <class Record>
requires(std::is_trivially_copyable_v<Record> && !std::is_array_v<Record>) Bytes
    bytesOf(const Record& record) {
    return copyBytes(&record, sizeof record);
}

}  // namespace tez::test
