#include "program_directory.h"

#include <windows.h>

namespace tez::test {

std::string programDirectory() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, sizeof path);
    const std::string program = path;
    return program.substr(0, program.rfind('\\'));
}

}  // namespace tez::test
