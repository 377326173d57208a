#pragma once

#include <windows.h>

#include <string>

#include "program_directory.h"
#include "system_library/stand_in.h"

namespace tez::test {

/// Where the library under test finds the host's smart-card library.
inline constexpr const char* kSystemLibraryPath = R"(C:\Windows\System32\WinSCard.dll)";

/// A stand-in for the host's smart-card library that lacks SCardReleaseStartedEvent.
std::string incompleteStandInPath();

/// The address of an exported function; throws std::runtime_error when there is no such export.
void* requireExport(HMODULE module, const char* name);

template <class Function>
Function* exportedFunction(HMODULE module, const char* name) {
    return reinterpret_cast<Function*>(requireExport(module, name));
}

/// The stand-in for the host's smart-card library, loaded into this process.
class StandInLibrary {
  public:
    /// Throws std::runtime_error when the file at the path is no stand-in.
    explicit StandInLibrary(const std::string& path = kSystemLibraryPath);

    HMODULE module() const noexcept { return module_; }

    /// See StandInSetCallsFunction.
    void setCalls(SystemCalls* calls) const { setCalls_(calls); }
    StandInCounters counters() const { return getCounters_(); }

  private:
    HMODULE module_;
    StandInSetCallsFunction* setCalls_;
    StandInGetCountersFunction* getCounters_;
};

}  // namespace tez::test
