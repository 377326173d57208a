#include "common/module_reference.h"

#include <atomic>

namespace tez {

namespace {

/// Any address inside the module will do.
const char anchor = 0;

std::atomic<bool> isPinned = false;

HMODULE findOwnModule(DWORD flags) noexcept {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | flags, &anchor, &module);
    return module;
}

}  // namespace

HMODULE ownModule() noexcept {
    return findOwnModule(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
}

bool pinOwnModule() noexcept {
    if (!isPinned) {
        isPinned = findOwnModule(GET_MODULE_HANDLE_EX_FLAG_PIN) != nullptr;
    }
    return isPinned;
}

}  // namespace tez
