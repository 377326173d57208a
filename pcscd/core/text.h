#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"

namespace tez::pcscd {

/// The text of a record's field up to its NUL; nullopt when it has none.
std::optional<std::string> textIn(std::span<const char> field);

/// The text of a data phase that is one text with its NUL; nullopt for anything else.
std::optional<std::string> wholeText(std::span<const std::uint8_t> data);

/// The text and its NUL.
Bytes terminated(std::string_view text);

/// A multi-string: every text with its NUL, and one more NUL.
Bytes multiString(const std::vector<std::string>& texts);

/// A UTF-8 text in UTF-16, little-endian, with its NUL. What is no UTF-8 becomes U+FFFD.
Bytes terminatedWide(std::string_view utf8);

}  // namespace tez::pcscd
