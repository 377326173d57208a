#include "import_patch.h"

#include <cstdint>
#include <cstring>
#include <string>

namespace tez::test {
namespace {

template <class Value>
Value* atOffset(HMODULE module, std::uint64_t offset) {
    return reinterpret_cast<Value*>(reinterpret_cast<std::uint8_t*>(module) + offset);
}

/// The descriptors end with one whose name is 0; a module without imports has none (null).
const IMAGE_IMPORT_DESCRIPTOR* importDescriptors(HMODULE module) {
    const auto* dos = atOffset<IMAGE_DOS_HEADER>(module, 0);
    const auto* nt = atOffset<IMAGE_NT_HEADERS>(module, static_cast<std::uint64_t>(dos->e_lfanew));
    const auto& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    return directory.VirtualAddress == 0
               ? nullptr
               : atOffset<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress);
}

void** findInLibrary(HMODULE module, const IMAGE_IMPORT_DESCRIPTOR& library, const char* function) {
    const auto* name = atOffset<IMAGE_THUNK_DATA>(module, library.OriginalFirstThunk);
    auto* address = atOffset<void*>(module, library.FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++address) {
        if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal) &&
            std::strcmp(atOffset<IMAGE_IMPORT_BY_NAME>(module, name->u1.AddressOfData)->Name,
                        function) == 0) {
            return address;
        }
    }
    return nullptr;
}

void** findPlace(HMODULE module, const char* dll, const char* function) {
    const auto* library = importDescriptors(module);
    for (; library != nullptr && library->Name != 0; ++library) {
        // A library can be listed more than once, each time with some of its functions.
        if (_stricmp(atOffset<char>(module, library->Name), dll) == 0) {
            if (void** place = findInLibrary(module, *library, function)) {
                return place;
            }
        }
    }
    return nullptr;
}

}  // namespace

Import::Import(HMODULE module, const char* dll, const char* function)
    : place_(module == nullptr ? nullptr : findPlace(module, dll, function)) {
    if (place_ == nullptr) {
        char path[MAX_PATH] = "(no module)";
        if (module != nullptr) {
            GetModuleFileNameA(module, path, sizeof path);
        }
        throw std::runtime_error(std::string(path) + " does not import " + function + " from " +
                                 dll);
    }
}

void Import::redirect(void* address) const {
    DWORD protection = 0;
    if (VirtualProtect(place_, sizeof *place_, PAGE_READWRITE, &protection) == FALSE) {
        throw std::runtime_error("the import table cannot be written");
    }
    InterlockedExchangePointer(reinterpret_cast<void* volatile*>(place_), address);
    VirtualProtect(place_, sizeof *place_, protection, &protection);
}

}  // namespace tez::test
