#include "doctor/library_check.h"

#include <windows.h>

#include <psapi.h>

#include "host_library.h"
#include "result_names.h"
#include "utf8.h"

namespace tez::client {
namespace {

/// With this driver loaded, the library in System32 is not the one to use.
constexpr const wchar_t* kRedirectionDriver = L"tezwscrd.sys";

bool isRedirectionDriverLoaded() {
    std::vector<LPVOID> bases(1024);
    DWORD needed = 0;
    const auto room = static_cast<DWORD>(bases.size() * sizeof(LPVOID));
    if (K32EnumDeviceDrivers(bases.data(), room, &needed) == FALSE) {
        return false;
    }
    bases.resize(std::min<std::size_t>(bases.size(), needed / sizeof(LPVOID)));
    return std::any_of(bases.begin(), bases.end(), [](LPVOID base) {
        wchar_t name[MAX_PATH] = {};
        return K32GetDeviceDriverBaseNameW(base, name, MAX_PATH) != 0 &&
               _wcsicmp(name, kRedirectionDriver) == 0;
    });
}

std::string pathAndVersion(HMODULE module) {
    const std::string version = moduleVersion(module);
    return tools::toUtf8(modulePath(module)) +
           (version.empty() ? ", without a version" : ", version " + version);
}

bool isInSystemFolder(HMODULE module) {
    wchar_t folder[MAX_PATH] = {};
    const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
    const std::wstring path = modulePath(module);
    return length != 0 && path.size() > length && _wcsnicmp(path.c_str(), folder, length) == 0;
}

Finding describeHostReaders(const HostReaders& readers) {
    if (readers.result == SCARD_E_NO_SERVICE || readers.result == SCARD_E_SERVICE_STOPPED) {
        return wrong("host", "the host's smart-card service does not run",
                     "start the service SCardSvr; Windows starts it with the first reader");
    }
    if (readers.result != SCARD_S_SUCCESS) {
        return wrong(
            "host", "the host's library cannot list its readers: " + describeResult(readers.result),
            "try the host's own readers with a program that uses the system's library");
    }
    std::string text;
    for (const std::string& name : readers.names) {
        text.append(text.empty() ? "the host's readers: " : ", ").append(name);
    }
    return right("host", text.empty() ? "the host has no readers" : text);
}

}  // namespace

Finding checkUsedLibrary() {
    const HMODULE library = usedLibrary();
    const std::string text = pathAndVersion(library);
    return servesRemoteReaders(library)
               ? right("library", text)
               : wrong("library", text + ": this is the system's own, which has no remote readers",
                       "put this project's winscard.dll beside the program");
}

Findings checkHostLibrary() {
    const HMODULE library = hostLibrary();
    if (library == nullptr) {
        return {isRedirectionDriverLoaded()
                    ? wrong("host",
                            "there is no library for the host's readers; the redirection driver "
                            "tezwscrd.sys is loaded, so it is looked for in its folder",
                            "install the server package that the driver belongs to anew, or "
                            "remove the driver")
                    : wrong("host", "there is no library for the host's readers in System32",
                            "look at the log for the reason; on Windows Server the smart-card "
                            "library is there unless it was removed")};
    }
    const bool isRedirected = !isInSystemFolder(library);
    Findings findings = {
        right("host", pathAndVersion(library) + (isRedirected ? ", by driver redirection" : ""))};
    if (const std::optional<HostReaders> readers = listHostReaders()) {
        findings.push_back(describeHostReaders(*readers));
    }
    return findings;
}

}  // namespace tez::client
