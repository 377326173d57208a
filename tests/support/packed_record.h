#pragma once

#include <cstdint>
#include <optional>

namespace tez::test {

// Copies of what a packed record holds. An assertion takes its arguments by reference, and one to a
// field of such a record need not be aligned.

template <typename Field>
Field copyOf(Field field) {
    return field;
}

template <typename Record>
std::uint32_t resultOf(const Record& record) {
    return record.rv;
}

/// nullopt when there is no record.
template <typename Record>
std::optional<std::uint32_t> resultOf(const std::optional<Record>& record) {
    return record ? std::optional(resultOf(*record)) : std::nullopt;
}

}  // namespace tez::test
