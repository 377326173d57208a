#include "log/log_file.h"

#include <algorithm>
#include <tuple>

#include "failure.h"
#include "utf8.h"

namespace tez::client {

LogFile::LogFile(const std::string& utf8Path, std::function<void(Call)> ended)
    : path_(utf8Path),
      file_(CreateFileW(tools::toWide(utf8Path).c_str(), GENERIC_READ,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        OPEN_EXISTING, 0, nullptr)),
      assembler_(std::move(ended)) {
    if (file_ == INVALID_HANDLE_VALUE) {
        throw Failure("cannot read " + utf8Path);
    }
}

LogFile::~LogFile() {
    CloseHandle(file_);
}

bool LogFile::read() {
    constexpr DWORD kPiece = 1U << 20U;
    std::string piece(kPiece, '\0');
    bool gotAny = false;
    for (;;) {
        DWORD count = 0;
        if (ReadFile(file_, piece.data(), kPiece, &count, nullptr) == FALSE) {
            throw Failure("cannot read " + path_);
        }
        if (count == 0) {
            return gotAny;
        }
        gotAny = true;
        takeLines(parser_.take(std::string_view(piece).substr(0, count)));
    }
}

void LogFile::finish() {
    takeLines(parser_.finish());
    assembler_.finish();
}

void LogFile::takeLines(const std::vector<LogLine>& lines) {
    for (const LogLine& line : lines) {
        assembler_.take(line);
    }
}

LoadedLogs loadLogs(const std::vector<std::string>& utf8Paths) {
    LoadedLogs logs;
    for (const std::string& path : utf8Paths) {
        LogFile file(path, [&logs](Call call) { logs.calls.push_back(std::move(call)); });
        file.read();
        file.finish();
        logs.otherLines += file.otherLineCount();
    }
    // A call stands before those that it makes itself, which may begin in the same microsecond.
    std::stable_sort(logs.calls.begin(), logs.calls.end(), [](const Call& a, const Call& b) {
        return std::tie(a.begin, a.depth) < std::tie(b.begin, b.depth);
    });
    return logs;
}

}  // namespace tez::client
