#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace tez::relay {

/// What the relay tells its operator: one line for each event, with the time in UTC. Any thread may
/// call.
class Log {
  public:
    /// Lines go to standard error. `verbose`: those for single clients, too.
    explicit Log(bool verbose = false) : verbose_(verbose) {}

    /// Lets lines go to the end of a file instead. Throws std::runtime_error when it cannot be
    /// opened.
    void appendTo(const std::string& utf8Path);

    /// Left out when it says what the last line says: what fails again and again is told once.
    void error(const std::string& text) { write("error: " + text, Repetition::leftOut); }
    void info(const std::string& text) { write(text); }
    void detail(const std::string& text) {
        if (verbose_) {
            write(text);
        }
    }

  private:
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    enum class Repetition { written, leftOut };

    void write(const std::string& text, Repetition repetition = Repetition::written);

    const bool verbose_;
    std::mutex mutex_;  // one line at a time; guards the last one, too
    std::string last_;
    std::unique_ptr<std::FILE, CloseFile> file_;
};

}  // namespace tez::relay
