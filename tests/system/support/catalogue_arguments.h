// The arguments that the catalogue's calls are made with, in both forms.
#pragma once

#include "call_catalogue.h"

namespace tez::test {

/// What the library takes at most of what it allocates itself.
inline constexpr std::uint32_t kLargestBlock = 16 * 1024 * 1024;

/// A text as the form with these characters takes it.
template <class Char>
std::basic_string<Char> text(const std::string& narrow) {
    return {narrow.begin(), narrow.end()};
}

/// A result in elements of some type.
template <class Unit, class Make>
Output output(Make make, std::string name = {}) {
    return {.name = std::move(name),
            .unit = sizeof(Unit),
            .make = [make](const Target& on, void* destination, DWORD* length) -> LONG {
                return make(on, static_cast<Unit*>(destination), length);
            }};
}

/// A call that is made for the length of its only result.
inline ExportedCall handingOut(ExportedCall call, Output result) {
    call.make = [make = result.make](const Target& on) {
        DWORD length = 0;
        return make(on, nullptr, &length);
    };
    call.outputs = {std::move(result)};
    return call;
}

}  // namespace tez::test
