// The catalogue of calls has all of them, so that none is left out of the tests that go through it.
#include <fstream>
#include <sstream>

#include "call_catalogue.h"

namespace tez::test {
namespace {

/// The functions of a module-definition file.
std::vector<std::string> exportedFunctions(const char* path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    std::vector<std::string> names;
    for (std::string line; std::getline(file, line);) {
        std::string name;
        std::string kind;
        std::istringstream(line) >> name >> kind;
        if (line.starts_with(' ') && kind != "DATA") {
            names.push_back(name.substr(0, name.find('=')));
        }
    }
    return names;
}

TEST(CallCatalogue, HasEveryExportedFunctionOnce) {
    std::vector<std::string> names;
    for (const ExportedCall& call : callCatalogue()) {
        names.push_back(call.name);
        EXPECT_NE(call.make != nullptr, call.refusal.has_value()) << call.name;
    }
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(exportedFunctions(TEZ_EXPORTS)));
}

}  // namespace
}  // namespace tez::test
