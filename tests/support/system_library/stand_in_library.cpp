#include "system_library/stand_in_library.h"

#include <stdexcept>

namespace tez::test {

std::string incompleteStandInPath() {
    return programDirectory() + R"(\standin\incomplete\winscard.dll)";
}

void* requireExport(HMODULE module, const char* name) {
    auto* const address = reinterpret_cast<void*>(GetProcAddress(module, name));
    if (address == nullptr) {
        throw std::runtime_error(std::string("no such export: ") + name);
    }
    return address;
}

StandInLibrary::StandInLibrary(const std::string& path) : module_(LoadLibraryA(path.c_str())) {
    if (module_ == nullptr) {
        throw std::runtime_error("cannot load " + path);
    }
    setCalls_ = exportedFunction<StandInSetCallsFunction>(module_, "StandInSetCalls");
    getCounters_ = exportedFunction<StandInGetCountersFunction>(module_, "StandInGetCounters");
}

}  // namespace tez::test
