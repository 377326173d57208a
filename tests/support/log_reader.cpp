#include "log_reader.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <regex>
#include <sstream>

#include "environment.h"

namespace tez::test {
namespace {

std::string logFilePath(const std::string& directory) {
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string full = program;
    return directory + "/tez-pcsc." + full.substr(full.rfind('\\') + 1) + "." +
           std::to_string(GetCurrentProcessId()) + ".log";
}

/// The entry that a line begins, if it begins with a prefix.
std::optional<LogEntry> parsePrefixedLine(const std::string& line) {
    static const std::regex kPrefix(
        R"(([EWID]) ([A-Z][a-z]{2} \d{2} \d{2}:\d{2}:\d{2}:\d{6}) (\d+):(\d+) (\S+) \(([^)]*)\): )");
    std::smatch match;
    if (!std::regex_search(line, match, kPrefix, std::regex_constants::match_continuous)) {
        return std::nullopt;
    }
    return LogEntry{.level = line.front(),
                    .timestamp = match[2],
                    .process = std::stoul(match[3]),
                    .thread = std::stoul(match[4]),
                    .component = match[5],
                    .function = match[6],
                    .message = match.suffix()};
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const LogEntry& entry) {
    return stream << entry.level << ' ' << entry.timestamp << ' ' << entry.process << ':'
                  << entry.thread << ' ' << entry.component << " (" << entry.function
                  << "): " << entry.message;
}

std::vector<LogEntry> parseLog(std::string_view text) {
    std::vector<LogEntry> entries;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        if (line.ends_with('\r')) {
            line.pop_back();
        }
        if (auto entry = parsePrefixedLine(line)) {
            entries.push_back(*std::move(entry));
        } else if (!entries.empty()) {
            entries.back().message += "\n" + line;
        } else {
            entries.emplace_back().message = line;
        }
    }
    return entries;
}

LogReader::LogReader(const std::string& directory) : path_(logFilePath(directory)) {}

std::string LogReader::text() const {
    std::ifstream file(path_, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<LogEntry> LogReader::entries() const {
    return parseLog(text());
}

std::vector<std::string> LogReader::messages(std::string_view function, char level) const {
    std::vector<std::string> messages;
    for (LogEntry& entry : entries()) {
        if (entry.function == function && (level == '\0' || entry.level == level)) {
            messages.push_back(std::move(entry.message));
        }
    }
    return messages;
}

bool LogReader::contains(char level, std::string_view function, std::string_view message) const {
    return std::ranges::any_of(entries(), [&](const LogEntry& entry) {
        return entry.level == level && entry.function == function && entry.message == message;
    });
}

std::size_t LogReader::count(std::string_view function, std::string_view message) const {
    return static_cast<std::size_t>(std::ranges::count(messages(function), message));
}

std::string logToFreshDirectory() {
    std::string directory = "C:\\tez-tests\\" + std::to_string(GetCurrentProcessId());
    std::filesystem::remove_all(directory);  // what another process of this number has left
    std::filesystem::create_directories(directory);
    setEnvironment("TEZ_PCSC_LOG_DIR", directory);
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "debug");
    return directory;
}

}  // namespace tez::test
