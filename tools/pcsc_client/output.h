#pragma once

#include <string_view>

namespace tez::client {

// To standard output, flushed at once, so that a program which reads it through a pipe sees each
// step when it happens. All throw Failure when that cannot be written.

/// Writes one line.
void printLine(std::string_view line);

/// An indented line "label  value" with all values in one column.
void printField(std::string_view label, std::string_view value);

/// Writes text as it is.
void print(std::string_view text);

}  // namespace tez::client
