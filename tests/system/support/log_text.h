// Values as the library's log shows them.
#pragma once

#include <cstdint>
#include <iomanip>
#include <sstream>
#include <string>

namespace tez::test {

/// "%p"
inline std::string logged(const void* pointer) {
    std::ostringstream text;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): its value is what is printed
    text << std::hex << std::uppercase << std::setw(16) << std::setfill('0')
         << reinterpret_cast<std::uintptr_t>(pointer);
    return text.str();
}

/// "%lu" and "%ld" of what is not negative
inline std::string logged(std::uint64_t number) {
    return std::to_string(number);
}

}  // namespace tez::test
