#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace tez::test {

/// One message of the library's log file.
struct LogEntry {
    char level = '\0';      ///< first letter of the level word: E, W, I or D
    std::string timestamp;  ///< "Nov 15 23:13:00:123456"
    unsigned long process = 0;
    unsigned long thread = 0;
    std::string component;
    std::string function;
    std::string message;  ///< its lines separated by '\n', without the last line end

    friend bool operator==(const LogEntry&, const LogEntry&) = default;
};

/// As it stands in the file; GoogleTest prints entries with it.
std::ostream& operator<<(std::ostream& stream, const LogEntry& entry);

/// Splits the text of a log file into messages. A line that begins with no prefix belongs to the
/// message before it; text before the first prefix becomes an entry with level '\0'.
std::vector<LogEntry> parseLog(std::string_view text);

/// Reads the log file that the library writes in this process. Every query reads the file anew and
/// sees what was written until then; a file that does not exist (yet) has no entries.
class LogReader {
  public:
    /// @param directory what TEZ_PCSC_LOG_DIR holds.
    explicit LogReader(const std::string& directory);

    /// DIRECTORY/tez-pcsc.PROGRAM.PROCESS-ID.log
    const std::string& path() const noexcept { return path_; }

    /// The file's bytes, line ends included.
    std::string text() const;

    std::vector<LogEntry> entries() const;

    /// The messages that a function logged, in order; those of one level only if a letter is given.
    std::vector<std::string> messages(std::string_view function, char level = '\0') const;

    bool contains(char level, std::string_view function, std::string_view message) const;

    /// How many entries have exactly this message.
    std::size_t count(std::string_view function, std::string_view message) const;

  private:
    std::string path_;
};

/// Lets a library that has logged nothing yet, in this process or in one started from now on, log
/// everything to a directory that nobody has written to. @return the directory.
std::string logToFreshDirectory();

/// The log of the library in this process, which has logged nothing yet and logs everything from
/// now on.
class FreshLog : public LogReader {
  public:
    FreshLog() : LogReader(logToFreshDirectory()) {}
};

}  // namespace tez::test
