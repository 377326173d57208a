#include "byte_string.h"

namespace tez::test {

ByteString& ByteString::text(std::string_view value, std::size_t fieldSize) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return fill(0, fieldSize - value.size());
}

ByteString& ByteString::fill(std::uint8_t value, std::size_t count) {
    bytes_.insert(bytes_.end(), count, value);
    return *this;
}

ByteString& ByteString::append(const Bytes& more) {
    bytes_.insert(bytes_.end(), more.begin(), more.end());
    return *this;
}

ByteString& ByteString::integer(std::uint64_t value, unsigned size) {
    for (unsigned i = 0; i < size; ++i) {
        bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return *this;
}

Bytes copyBytes(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    return {bytes, bytes + size};
}

}  // namespace tez::test
