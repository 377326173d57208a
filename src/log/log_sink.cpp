#include "log/log_sink.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>

#include "common/heap.h"
#include "common/module_reference.h"
#include "log/crt_format.h"
#include "log/environment.h"
#include "log/timestamp.h"

namespace tez {

namespace {

/// Where the lines of this process go. Made by the first message, never freed: a thread may be
/// writing when the process ends.
class LogSink {
  public:
    LogSink() : level_(configuredLevel()), path_(configuredPath()), stream_(open(path_.get())) {}
    LogSink(const LogSink&) = delete;
    LogSink& operator=(const LogSink&) = delete;
    ~LogSink() {
        if (stream_ != stderr) {
            std::fclose(stream_);
        }
    }

    bool writes(LogLevel level) const { return static_cast<std::int32_t>(level) <= level_; }
    std::FILE* stream() const { return stream_; }

    /// Tells, in the log, of each setting that was not understood, and of what is used instead.
    void tellMistakes() const;

  private:
    static std::int32_t configuredLevel();
    static HeapPtr<char> configuredPath();
    static std::FILE* open(const char* path);

    std::int32_t level_;
    HeapPtr<char> path_;
    std::FILE* stream_;
};

constexpr const char* kLevelName = "TEZ_PCSC_LOG_LEVEL";
constexpr std::size_t kLevelRoom = 32;
constexpr const char* kDirectoryName = "TEZ_PCSC_LOG_DIR";
constexpr std::size_t kDirectoryRoom = 256;

/// Nothing for a word that names no level.
std::optional<LogLevel> levelNamed(const char* word) {
    static constexpr struct {
        const char* word;
        LogLevel level;
    } kLevels[] = {{"error", LogLevel::Error},
                   {"warning", LogLevel::Warning},
                   {"info", LogLevel::Info},
                   {"debug", LogLevel::Debug}};
    for (const auto& known : kLevels) {
        if (_stricmp(word, known.word) == 0) {
            return known.level;
        }
    }
    return std::nullopt;
}

std::int32_t LogSink::configuredLevel() {
    char value[kLevelRoom];
    const auto level = readEnvironment(kLevelName, value) ? levelNamed(value) : std::nullopt;
    return static_cast<std::int32_t>(level.value_or(LogLevel::Warning));
}

/// The text behind the last backslash, null without one. In some code pages the second byte of a
/// character looks like one.
char* behindLastBackslash(char* path) {
    char* name = nullptr;
    for (char* next = path; *next != '\0'; ++next) {
        if (IsDBCSLeadByte(static_cast<BYTE>(*next)) != FALSE && next[1] != '\0') {
            ++next;
        } else if (*next == '\\') {
            name = next + 1;
        }
    }
    return name;
}

/// The host program's file name, "unknown" when it has none. The system has a '?' for each
/// character that the ANSI code page cannot spell; as no file can be named so, it becomes a '_'.
const char* baseName(char (&path)[1024]) {
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof(path));
    path[length < sizeof(path) ? length : sizeof(path) - 1] = '\0';
    char* const name = behindLastBackslash(path);
    if (name == nullptr || *name == '\0') {
        return "unknown";
    }
    std::replace(name, name + std::strlen(name), '?', '_');
    return name;
}

HeapPtr<char> LogSink::configuredPath() {
    char directory[kDirectoryRoom];
    if (!readEnvironment(kDirectoryName, directory)) {
        return nullptr;
    }
    constexpr std::size_t kFileNameRoom = 64;
    const std::size_t size = std::strlen(directory) + kFileNameRoom;
    HeapPtr<char> path(static_cast<char*>(heapAllocate(size)));
    if (path != nullptr) {
        char program[1024];
        crtFormat(path.get(), size, "%s/tez-pcsc.%s.%d.log", directory, baseName(program),
                  static_cast<int>(GetCurrentProcessId()));
    }
    return path;
}

/// Opened once: a path that fails now is not tried again in this process.
std::FILE* LogSink::open(const char* path) {
    std::FILE* const file = path == nullptr ? nullptr : std::fopen(path, "a");
    if (file == nullptr) {
        return stderr;
    }
    // Every write reaches the file at once, so the lines survive a crash of the host program.
    std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

void LogSink::tellMistakes() const {
    char level[kLevelRoom];
    if (isTooLong(kLevelName, sizeof(level))) {
        kSettingsLog.warning("%s is no level but a text of more than 31 characters: using warning",
                             kLevelName);
    } else if (readEnvironment(kLevelName, level) && !levelNamed(level)) {
        kSettingsLog.warning("%s is not error, warning, info or debug but '%s': using warning",
                             kLevelName, level);
    }
    if (isTooLong(kDirectoryName, kDirectoryRoom)) {
        kSettingsLog.warning("%s has more than 255 characters: using standard error",
                             kDirectoryName);
    } else if (path_ != nullptr && stream_ == stderr) {
        kSettingsLog.warning("%s: cannot write to '%s': using standard error", kDirectoryName,
                             path_.get());
    }
}

/// The sink, made on first use; null while memory is exhausted, so that a later message tries
/// again. Two first messages at once may both make one: the first to be stored stays.
const LogSink* sink() noexcept {
    static std::atomic<const LogSink*> stored;
    const LogSink* known = stored.load();
    if (known != nullptr) {
        return known;
    }
    pinOwnModule();
    std::unique_ptr<const LogSink> fresh(new (std::nothrow) LogSink);
    if (fresh != nullptr && stored.compare_exchange_strong(known, fresh.get())) {
        known = fresh.release();
        known->tellMistakes();
    }
    return known;
}

/// One stdio call, which an unbuffered stream turns into one system call.
void put(std::FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
}

void putPrefix(std::FILE* stream, const char* component, const char* levelWord,
               const char* functionName) {
    FILETIME now;
    GetSystemTimePreciseAsFileTime(&now);
    char timestamp[kTimestampSize];
    formatTimestamp(now, timestamp);
    char prefix[256];
    const std::size_t length =
        crtFormat(prefix, sizeof(prefix), "%c %s %ld:%ld %s (%s): ", levelWord[0], timestamp,
                  static_cast<long>(GetCurrentProcessId()), static_cast<long>(GetCurrentThreadId()),
                  component, functionName);
    put(stream, std::string_view(prefix, length));
}

}  // namespace

void logMessageV(const char* component, LogLevel level, const char* levelWord,
                 const char* functionName, bool echoToStderr, const char* lead, const char* format,
                 std::va_list arguments) noexcept {
    const LogSink* const target = sink();
    if (target == nullptr || !(echoToStderr || target->writes(level))) {
        return;
    }
    const FormattedText message(lead, format, arguments);
    if (echoToStderr) {
        char word[32];
        put(stderr, std::string_view(word, crtFormat(word, sizeof(word), "%s: ", levelWord)));
        put(stderr, message.text());
        put(stderr, "\n");
    }
    if (target->writes(level)) {
        putPrefix(target->stream(), component, levelWord, functionName);
        put(target->stream(), message.text());
        put(target->stream(), "\n");
    }
}

void logMessage(const char* component, LogLevel level, const char* levelWord,
                const char* functionName, bool echoToStderr, const char* format, ...) noexcept {
    if (format == nullptr) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    logMessageV(component, level, levelWord, functionName, echoToStderr, "", format, arguments);
    va_end(arguments);
}

bool isLogged(LogLevel level) noexcept {
    const LogSink* const target = sink();
    return target != nullptr && target->writes(level);
}

}  // namespace tez
