#include "log/switches.h"

#include <atomic>
#include <cstring>

#include "log/environment.h"

namespace tez {

std::optional<bool> Switch::read(const FunctionLog& log) noexcept {
    char value[128];
    if (!readEnvironment(name_, value)) {
        if (isTooLong(name_, sizeof(value))) {
            warnOnce("a text of more than 127 characters", "it counts as not set");
        }
        return std::nullopt;
    }
    log.debug("%s = %s", name_, value);
    const bool isOff = _stricmp(value, "FALSE") == 0 || std::strcmp(value, "0") == 0;
    if (!isOff && _stricmp(value, "TRUE") != 0 && std::strcmp(value, "1") != 0) {
        warnOnce(value, "it counts as 1");
    }
    return !isOff;
}

void Switch::warnOnce(const char* value, const char* consequence) noexcept {
    if (!hasWarned_.exchange(true)) {
        kSettingsLog.warning("%s is neither 0 or false nor 1 or true but '%s': %s", name_, value,
                             consequence);
    }
}

namespace {

/// A switch that is read on first need and kept for the life of the process; off when it is not
/// set. No lock: threads that read it at once for the first time find the same value.
class KeptSwitch {
  public:
    /// @param function  under whose name the value is logged.
    constexpr KeptSwitch(const char* function, const char* name) noexcept
        : log_(function), switch_(name) {}

    bool isOn() noexcept {
        if (!isKnown_) {
            const std::optional<bool> value = switch_.read(log_);
            if (!value) {
                log_.debug("%s is not set, using default (0)", switch_.name());
            }
            isOn_ = value.value_or(false);
            isKnown_ = true;
        }
        return isOn_;
    }

  private:
    FunctionLog log_;
    Switch switch_;
    std::atomic<bool> isKnown_ = false;
    std::atomic<bool> isOn_ = false;
};

constinit KeptSwitch redirection("isAllCallsRedirectionEnabled",
                                 "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION");
constinit KeptSwitch standardCalls("isStandardCallsEnabled", "TEZ_PCSC_STANDARD_CALLS");

}  // namespace

bool isAllCallsRedirectionEnabled() noexcept {
    return redirection.isOn();
}

bool isStandardCallsEnabled() noexcept {
    return standardCalls.isOn();
}

}  // namespace tez
