#include "host_library.h"

#include <array>
#include <psapi.h>
#include <winver.h>

#include "utf8.h"

namespace tez::client {
namespace {

/// What the library's version resource says in FileDescription.
constexpr const wchar_t* kOwnDescription = L"Smart-card library for remote and local readers";

std::vector<HMODULE> loadedModules() {
    std::vector<HMODULE> modules(256);
    DWORD needed = 0;
    const auto room = static_cast<DWORD>(modules.size() * sizeof(HMODULE));
    if (K32EnumProcessModules(GetCurrentProcess(), modules.data(), room, &needed) == FALSE) {
        return {};
    }
    modules.resize(std::min<std::size_t>(modules.size(), needed / sizeof(HMODULE)));
    return modules;
}

bool isNamedWinscard(HMODULE module) {
    const std::wstring path = modulePath(module);
    const std::wstring name = path.substr(path.find_last_of(L'\\') + 1);
    return _wcsicmp(name.c_str(), L"winscard.dll") == 0;
}

std::vector<std::byte> versionResource(HMODULE module) {
    const std::wstring path = modulePath(module);
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &unused);
    std::vector<std::byte> resource(size);
    if (size == 0 || GetFileVersionInfoW(path.c_str(), 0, size, resource.data()) == FALSE) {
        return {};
    }
    return resource;
}

template <class Function>
bool resolve(HMODULE module, const char* name, Function& function) {
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    return function != nullptr;
}

/// The host library's entry points that listing its readers takes.
struct HostCalls {
    decltype(&SCardEstablishContext) establish = nullptr;
    decltype(&SCardReleaseContext) release = nullptr;
    decltype(&SCardListReadersA) listReaders = nullptr;
    decltype(&SCardFreeMemory) freeMemory = nullptr;

    bool resolveFrom(HMODULE module) {
        return resolve(module, "SCardEstablishContext", establish) &&
               resolve(module, "SCardReleaseContext", release) &&
               resolve(module, "SCardListReadersA", listReaders) &&
               resolve(module, "SCardFreeMemory", freeMemory);
    }
};

HostReaders listReaders(const HostCalls& host) {
    HostReaders readers;
    SCARDCONTEXT context = 0;
    readers.result = host.establish(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    if (readers.result != SCARD_S_SUCCESS) {
        return readers;
    }
    char* names = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    readers.result = host.listReaders(context, nullptr, reinterpret_cast<LPSTR>(&names), &length);
    if (readers.result == SCARD_S_SUCCESS) {
        for (const char* name = names; *name != '\0'; name += readers.names.back().size() + 1) {
            readers.names.emplace_back(name);
        }
        host.freeMemory(context, names);
    } else if (readers.result == SCARD_E_NO_READERS_AVAILABLE) {
        readers.result = SCARD_S_SUCCESS;
    }
    host.release(context);
    return readers;
}

}  // namespace

HMODULE usedLibrary() {
    // The address of an imported datum, other than that of an imported function, is always the
    // exporting module's own.
    HMODULE module = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCWSTR>(SCARD_PCI_T0), &module);
    return module;
}

HMODULE hostLibrary() {
    const HMODULE used = usedLibrary();
    if (!servesRemoteReaders(used)) {
        return used;
    }
    for (const HMODULE module : loadedModules()) {
        if (module != used && isNamedWinscard(module)) {
            return module;
        }
    }
    return nullptr;
}

std::wstring modulePath(HMODULE module) {
    std::array<wchar_t, 32768> path = {};
    const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    return {path.data(), length};
}

bool servesRemoteReaders(HMODULE module) {
    const std::vector<std::byte> resource = versionResource(module);
    void* description = nullptr;
    UINT length = 0;
    return !resource.empty() &&
           VerQueryValueW(resource.data(), L"\\StringFileInfo\\040904B0\\FileDescription",
                          &description, &length) != FALSE &&
           std::wstring(static_cast<const wchar_t*>(description)) == kOwnDescription;
}

std::string moduleVersion(HMODULE module) {
    const std::vector<std::byte> resource = versionResource(module);
    void* value = nullptr;
    UINT length = 0;
    if (resource.empty() || VerQueryValueW(resource.data(), L"\\", &value, &length) == FALSE) {
        return "";
    }
    const auto& version = *static_cast<const VS_FIXEDFILEINFO*>(value);
    std::string text;
    for (const DWORD part : {version.dwFileVersionMS >> 16U, version.dwFileVersionMS & 0xFFFFU,
                             version.dwFileVersionLS >> 16U, version.dwFileVersionLS & 0xFFFFU}) {
        text.append(text.empty() ? "" : ".").append(std::to_string(part));
    }
    return text;
}

std::optional<HostReaders> listHostReaders() {
    const HMODULE library = hostLibrary();
    HostCalls calls;
    if (library == nullptr || !calls.resolveFrom(library)) {
        return std::nullopt;
    }
    return listReaders(calls);
}

}  // namespace tez::client
