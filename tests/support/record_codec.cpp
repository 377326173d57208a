#include "record_codec.h"

#include <algorithm>
#include <stdexcept>

namespace tez::test {
namespace {

void requireWithin(std::size_t size, std::size_t offset, std::size_t count) {
    if (offset > size || count > size - offset) {
        throw std::out_of_range("the record has no such field");
    }
}

std::uint64_t unsignedAt(std::span<const std::uint8_t> record, std::size_t offset,
                         std::size_t width) {
    requireWithin(record.size(), offset, width);
    std::uint64_t value = 0;
    for (std::size_t i = width; i > 0; --i) {
        value = value << 8 | record[offset + i - 1];
    }
    return value;
}

void putUnsigned(Bytes& record, std::size_t offset, std::size_t width, std::uint64_t value) {
    requireWithin(record.size(), offset, width);
    for (std::size_t i = 0; i < width; ++i) {
        record[offset + i] = static_cast<std::uint8_t>(value >> (8 * i) & 0xFF);
    }
}

}  // namespace

std::uint32_t u32At(std::span<const std::uint8_t> record, std::size_t offset) {
    return static_cast<std::uint32_t>(unsignedAt(record, offset, 4));
}

std::uint64_t u64At(std::span<const std::uint8_t> record, std::size_t offset) {
    return unsignedAt(record, offset, 8);
}

std::optional<std::string> textAt(std::span<const std::uint8_t> record, std::size_t offset,
                                  std::size_t width) {
    const Bytes field = bytesAt(record, offset, width);
    const auto end = std::find(field.begin(), field.end(), std::uint8_t{0});
    if (end == field.end()) {
        return std::nullopt;
    }
    return std::string(field.begin(), end);
}

Bytes bytesAt(std::span<const std::uint8_t> record, std::size_t offset, std::size_t count) {
    requireWithin(record.size(), offset, count);
    const auto field = record.subspan(offset, count);
    return {field.begin(), field.end()};
}

void putU32(Bytes& record, std::size_t offset, std::uint32_t value) {
    putUnsigned(record, offset, 4, value);
}

void putU64(Bytes& record, std::size_t offset, std::uint64_t value) {
    putUnsigned(record, offset, 8, value);
}

void putBytes(Bytes& record, std::size_t offset, std::span<const std::uint8_t> bytes) {
    requireWithin(record.size(), offset, bytes.size());
    std::copy(bytes.begin(), bytes.end(), record.begin() + static_cast<std::ptrdiff_t>(offset));
}

RecordBytes& RecordBytes::u32(std::size_t offset, std::uint32_t value) {
    putU32(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::u64(std::size_t offset, std::uint64_t value) {
    putU64(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::text(std::size_t offset, std::string_view value) {
    return raw(offset, textBytes(value));
}

RecordBytes& RecordBytes::raw(std::size_t offset, const Bytes& value) {
    putBytes(bytes_, offset, value);
    return *this;
}

RecordBytes& RecordBytes::append(const Bytes& data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    return *this;
}

Bytes textBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes copyBytes(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    return {bytes, bytes + size};
}

}  // namespace tez::test
