#pragma once

#include <cstdint>

#include "import_patch.h"
#include "system_test.h"

namespace tez::test {

/// Lets the library have no threads.
class NoThreads {
    using Start = std::uintptr_t(void*, unsigned, unsigned (*)(void*), void*, unsigned, unsigned*);

    ImportPatch<Start> start_{libraryModule(), "msvcrt.dll", "_beginthreadex",
                              [](void*, unsigned, unsigned (*)(void*), void*, unsigned,
                                 unsigned*) -> std::uintptr_t { return 0; }};
};

}  // namespace tez::test
