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

void Log::write(const std::string& text, Repetition repetition) {
    const std::scoped_lock lock(mutex_);
    if (repetition == Repetition::leftOut && text == last_) {
        return;
    }
    last_ = text;
    const std::time_t now = std::time(nullptr);
    std::tm utc = {};
    gmtime_s(&utc, &now);
    std::array<char, 32> time = {};
    std::strftime(time.data(), time.size(), "%Y-%m-%d %H:%M:%SZ ", &utc);
    // Written at once: standard error of this toolchain takes a character at a time otherwise.
    const std::string line = time.data() + text + "\n";
    std::FILE* const target = file_ != nullptr ? file_.get() : stderr;
    std::fwrite(line.data(), 1, line.size(), target);
    std::fflush(target);
}

}  // namespace tez::relay
