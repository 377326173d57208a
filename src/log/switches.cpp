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

bool isAllCallsRedirectionEnabled() noexcept {
    static constexpr FunctionLog log("isAllCallsRedirectionEnabled");
    static constinit Switch redirection("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION");
    // No lock: threads that read the switch at once for the first time find the same value.
    static std::atomic<bool> known;
    static std::atomic<bool> enabled;
    if (!known) {
        const std::optional<bool> value = redirection.read(log);
        if (!value) {
            log.debug("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION is not set, using default (0)");
        }
        enabled = value.value_or(false);
        known = true;
    }
    return enabled;
}

}  // namespace tez
