#include "log/switches.h"

#include <atomic>
#include <cstring>

#include "log/environment.h"

namespace tez {

std::optional<bool> readSwitch(const FunctionLog& log, const char* name) noexcept {
    char value[128];
    if (!readEnvironment(name, value)) {
        return std::nullopt;
    }
    log.debug("%s = %s", name, value);
    return _stricmp(value, "FALSE") != 0 && std::strcmp(value, "0") != 0;
}

bool isAllCallsRedirectionEnabled() noexcept {
    static constexpr FunctionLog log("isAllCallsRedirectionEnabled");
    static constexpr const char* kName = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";
    // No lock: threads that read the switch at once for the first time find the same value.
    static std::atomic<bool> known;
    static std::atomic<bool> enabled;
    if (!known) {
        const std::optional<bool> value = readSwitch(log, kName);
        if (!value) {
            log.debug("%s is not set, using default (%u)", kName, 0U);
        }
        enabled = value.value_or(false);
        known = true;
    }
    return enabled;
}

}  // namespace tez
