#include "log/timestamp.h"

#include <cstdio>

#include "log/crt_format.h"

namespace tez {

namespace {

long long ticksOf(const FILETIME& time) {
    ULARGE_INTEGER ticks;
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    return static_cast<long long>(ticks.QuadPart);
}

const char* monthName(WORD month) {
    static constexpr const char* kNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (month < 1 || month > 12) {
        char line[64];
        const std::size_t length =
            crtFormat(line, sizeof(line), "Could not interpret month %d", month);
        std::fwrite(line, 1, length, stderr);
        return "";
    }
    return kNames[month - 1];
}

}  // namespace

void formatTimestamp(const FILETIME& time, char (&text)[kTimestampSize]) noexcept {
    SYSTEMTIME split = {};
    FileTimeToSystemTime(&time, &split);
    // The split time keeps whole milliseconds only; what it lost is the difference to the original.
    FILETIME truncated = {};
    SystemTimeToFileTime(&split, &truncated);
    const long long microseconds =
        (split.wMilliseconds * 10000LL + ticksOf(time) - ticksOf(truncated)) / 10;
    crtFormat(text, kTimestampSize, "%s %02d %02d:%02d:%02d:%06lld", monthName(split.wMonth),
              split.wDay, split.wHour, split.wMinute, split.wSecond, microseconds);
}

}  // namespace tez
