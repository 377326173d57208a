#include "fake_drivers.h"

#include <algorithm>
#include <cstdint>

#include "system_test.h"

namespace tez::test {
namespace {

constexpr std::uintptr_t kFirstAddress = 0xFFFFF80000000000;

}  // namespace

FakeDrivers::FakeDrivers(std::vector<std::wstring> names)
    : names_(std::move(names)),
      secondSize_(static_cast<DWORD>(names_.size() * sizeof(LPVOID))),
      enumerate_(libraryModule(), "KERNEL32.dll", "K32EnumDeviceDrivers",
                 [this](LPVOID* addresses, DWORD size, LPDWORD needed) {
                     return enumerate(addresses, size, needed);
                 }),
      name_(
          libraryModule(), "KERNEL32.dll", "K32GetDeviceDriverBaseNameW",
          [this](LPVOID address, LPWSTR name, DWORD size) { return nameOf(address, name, size); }) {
}

void FakeDrivers::failCall(int call, DWORD error) {
    failingCall_ = call;
    error_ = error;
}

BOOL FakeDrivers::enumerate(LPVOID* addresses, DWORD size, LPDWORD needed) {
    if (++calls_ == failingCall_) {
        SetLastError(error_);
        return FALSE;
    }
    const std::size_t room = std::min<std::size_t>(size / sizeof(LPVOID), names_.size());
    for (std::size_t i = 0; i < room; ++i) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): an address in the kernel, not in this process
        addresses[i] = areHidden_ ? nullptr : reinterpret_cast<LPVOID>(kFirstAddress + i);
    }
    *needed =
        addresses == nullptr ? static_cast<DWORD>(names_.size() * sizeof(LPVOID)) : secondSize_;
    return TRUE;
}

DWORD FakeDrivers::nameOf(LPVOID address, LPWSTR name, DWORD size) {
    ++namesAsked_;
    if (address == nullptr) {
        return 0;
    }
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as enumerate made it
    const std::wstring& known =
        names_.at(reinterpret_cast<std::uintptr_t>(address) - kFirstAddress);
    if (known.empty() || known.size() >= size) {
        return 0;
    }
    std::copy_n(known.c_str(), known.size() + 1, name);
    return static_cast<DWORD>(known.size());
}

}  // namespace tez::test
