// The host's smart-card library as cheap as it can be: it forwards each call to the program that it
// was loaded into, without a lock. What a call takes beyond it is the library's own.
#include <atomic>

#include "system_library/stand_in.h"

namespace {

std::atomic<tez::test::SystemCalls*> current;

}  // namespace

extern "C" {

extern const SCARD_IO_REQUEST standInT0Pci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
extern const SCARD_IO_REQUEST standInT1Pci = {SCARD_PROTOCOL_T1, sizeof(SCARD_IO_REQUEST)};
extern const SCARD_IO_REQUEST standInRawPci = {SCARD_PROTOCOL_RAW, sizeof(SCARD_IO_REQUEST)};

// Exported under the platform's names, whose declarations are an application's: they import.
// NOLINTNEXTLINE(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_FORWARD_CALL(Result, name, parameters, arguments)           \
    Result WINAPI standIn##name parameters {                            \
        return current.load(std::memory_order_relaxed)->name arguments; \
    }
TEZ_FOR_EACH_SYSTEM_CALL(TEZ_FORWARD_CALL)
#undef TEZ_FORWARD_CALL

void StandInSetCalls(tez::test::SystemCalls* calls) {
    current = calls;
}

tez::test::StandInCounters StandInGetCounters() {
    return {};
}
}
