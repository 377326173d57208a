#include "local/last_error_text.h"

#include <windows.h>

namespace tez {

HeapPtr<char> lastErrorText() noexcept {
    const DWORD error = GetLastError();
    if (error == 0) {
        return nullptr;
    }
    constexpr DWORD kUserDefaultLanguage = 0x400;
    char* message = nullptr;
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, error, kUserDefaultLanguage, reinterpret_cast<LPSTR>(&message), 0, nullptr);
    if (length == 0) {
        return nullptr;
    }
    HeapPtr<char> text(heapDuplicate(message));
    LocalFree(message);
    return text;
}

}  // namespace tez
