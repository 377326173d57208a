#pragma once

#include <windows.h>

#include <cstddef>

namespace tez {

/// Room for the longest text of formatTimestamp, its NUL included.
inline constexpr std::size_t kTimestampSize = 64;

/// Writes a point in time, in 100 ns units since 1601 as the platform counts it, as UTC text with
/// microseconds: "Nov 15 23:13:00:123456". The year is never shown.
void formatTimestamp(const FILETIME& time, char (&text)[kTimestampSize]) noexcept;

}  // namespace tez
