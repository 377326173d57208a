#pragma once

#include <windows.h>

#include <psapi.h>
#include <string>
#include <vector>

#include "import_patch.h"

namespace tez::test {

/// The kernel drivers that the library under test finds loaded, for as long as the object lives.
/// Not thread-safe: one thread of the library may look at them.
class FakeDrivers {
  public:
    /// @param names base names; one that is empty cannot be read.
    explicit FakeDrivers(std::vector<std::wstring> names);

    /// The second enumeration reports this size in bytes, not that of all drivers.
    void shrinkTo(DWORD size) { secondSize_ = size; }

    /// The system tells how many drivers there are, and null for the address of each.
    void hideAddresses() noexcept { areHidden_ = true; }

    /// The first or second enumeration fails, leaving this as last error.
    void failCall(int call, DWORD error);

    /// How many drivers' names were asked for.
    int namesAsked() const noexcept { return namesAsked_; }

  private:
    BOOL enumerate(LPVOID* addresses, DWORD size, LPDWORD needed);
    DWORD nameOf(LPVOID address, LPWSTR name, DWORD size);

    std::vector<std::wstring> names_;
    DWORD secondSize_;
    bool areHidden_ = false;
    int calls_ = 0;
    int failingCall_ = 0;
    DWORD error_ = ERROR_SUCCESS;
    int namesAsked_ = 0;

    // Last, so that they are gone before what they tell is.
    ImportPatch<decltype(::K32EnumDeviceDrivers)> enumerate_;
    ImportPatch<decltype(::K32GetDeviceDriverBaseNameW)> name_;
};

}  // namespace tez::test
