#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace tez::test {

using Bytes = std::vector<std::uint8_t>;

/// Puts bytes together as they stand on the pipe: little-endian, without padding, and independent
/// of the library's own records.
///
///     ByteString().u64(0x5000001).u32(0).bytes()
class ByteString {
  public:
    ByteString& u32(std::uint32_t value) { return integer(value, 4); }
    ByteString& u64(std::uint64_t value) { return integer(value, 8); }
    /// A text in a field of the given size, the rest of it zero.
    ByteString& text(std::string_view value, std::size_t fieldSize);
    ByteString& fill(std::uint8_t value, std::size_t count);
    ByteString& append(const Bytes& more);

    const Bytes& bytes() const { return bytes_; }

  private:
    ByteString& integer(std::uint64_t value, unsigned size);

    Bytes bytes_;
};

/// A copy of memory.
Bytes copyBytes(const void* data, std::size_t size);

template <class Record>
Bytes bytesOf(const Record& record) {
    return copyBytes(&record, sizeof(record));
}

}  // namespace tez::test
