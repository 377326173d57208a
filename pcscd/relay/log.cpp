#include "relay/log.h"

#include <array>
#include <ctime>
#include <stdexcept>

#include "utf8.h"

namespace tez::relay {

void Log::appendTo(const std::string& utf8Path) {
    file_.reset(_wfopen(tools::toPath(utf8Path).c_str(), L"ab"));
    if (file_ == nullptr) {
        throw std::runtime_error("cannot write the log " + utf8Path);
    }
}

void Log::write(const char* rank, const std::string& text) {
    const std::time_t now = std::time(nullptr);
    std::tm utc = {};
    gmtime_s(&utc, &now);
    std::array<char, 32> time = {};
    std::strftime(time.data(), time.size(), "%Y-%m-%d %H:%M:%SZ ", &utc);
    // Written at once: standard error of this toolchain takes a character at a time otherwise.
    const std::string line = time.data() + (rank + text) + "\n";
    const std::scoped_lock lock(mutex_);
    std::FILE* const target = file_ != nullptr ? file_.get() : stderr;
    std::fwrite(line.data(), 1, line.size(), target);
    std::fflush(target);
}

}  // namespace tez::relay
