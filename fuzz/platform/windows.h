// As much of the platform as src/ needs to be fuzzed natively: its types, and the few functions
// that the code under test calls. Declarations and values of PC/SC come from the toolchain's own
// headers.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

// The widths are those of Windows, where a long has 32 bits. A wide character has 32 here, of which
// 16 are used: text is UTF-16 all the same.
using BYTE = std::uint8_t;
using UCHAR = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using ULONG = std::uint32_t;
using LONG = std::int32_t;
using HRESULT = std::int32_t;
using BOOL = int;
using WINBOOL = int;
using ULONG_PTR = std::uintptr_t;
using CHAR = char;
using WCHAR = wchar_t;
using VOID = void;
using HANDLE = void*;
using HMODULE = void*;
using HWND = void*;
using HICON = void*;
using PVOID = void*;
using PBYTE = BYTE*;
using LPBYTE = BYTE*;
using LPDWORD = DWORD*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPSTR = char*;
using LPCSTR = const char*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};
using UUID = GUID;
using LPGUID = GUID*;
using LPCGUID = const GUID*;

#define BASETYPES  // they are above
#define WINAPI
#define __C89_NAMELESS
#define DECLSPEC_IMPORT
#define CALLBACK
#define FALSE 0
#define TRUE 1
#define INFINITE 0xFFFFFFFF
#define CP_UTF8 65001
#define FILE_DEVICE_SMARTCARD 0x31
#define METHOD_BUFFERED 0
#define FILE_ANY_ACCESS 0
#define CTL_CODE(device, function, method, access) \
    (((device) << 16) | ((access) << 14) | ((function) << 2) | (method))

#define __MSABI_LONG(value) value
#include <winerror.h>

/// Text as Windows converts it: what is no valid text becomes U+FFFD, a length of 0 is an error,
/// the target gets no NUL, and what does not fit is an error too. @return the units of the result.
int WideCharToMultiByte(unsigned codePage, DWORD flags, LPCWSTR text, int length, LPSTR target,
                        int room, LPCSTR substitute, BOOL* wasSubstituted) noexcept;
int MultiByteToWideChar(unsigned codePage, DWORD flags, LPCSTR text, int length, LPWSTR target,
                        int room) noexcept;

inline DWORD GetLastError() noexcept {
    return ERROR_NOT_ENOUGH_MEMORY;
}

// Each input runs on one thread: a lock that is taken twice would be one that hangs.
struct SRWLOCK {
    int holders;
};
#define SRWLOCK_INIT \
    { 0 }
inline void AcquireSRWLockExclusive(SRWLOCK* lock) noexcept {
    if (lock->holders++ != 0) {
        std::abort();
    }
}
inline void ReleaseSRWLockExclusive(SRWLOCK* lock) noexcept {
    --lock->holders;
}
inline void AcquireSRWLockShared(SRWLOCK* lock) noexcept {
    AcquireSRWLockExclusive(lock);
}
inline void ReleaseSRWLockShared(SRWLOCK* lock) noexcept {
    ReleaseSRWLockExclusive(lock);
}
inline BOOL TryAcquireSRWLockExclusive(SRWLOCK* lock) noexcept {
    return lock->holders == 0 ? ++lock->holders : 0;
}
struct CONDITION_VARIABLE {
    void* waiters;
};
#define CONDITION_VARIABLE_INIT \
    { nullptr }
inline BOOL SleepConditionVariableSRW(CONDITION_VARIABLE*, SRWLOCK*, DWORD, ULONG) noexcept {
    std::abort();  // nobody would wake the only thread
}
inline void WakeConditionVariable(CONDITION_VARIABLE*) noexcept {}
inline void WakeAllConditionVariable(CONDITION_VARIABLE*) noexcept {}
