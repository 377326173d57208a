// What the library says of itself to whoever looks at the file: its version and the commit.
#include <windows.h>

#include <regex>
#include <winver.h>

#include "system_test.h"

namespace tez::test {
namespace {

using testing::StartsWith;

/// The version resource of the built library.
class VersionTest : public testing::Test {
  protected:
    VersionTest() {
        const std::string path = programDirectory() + "\\winscard.dll";
        DWORD ignored = 0;
        resource_.resize(GetFileVersionInfoSizeA(path.c_str(), &ignored));
        EXPECT_TRUE(GetFileVersionInfoA(path.c_str(), 0, static_cast<DWORD>(resource_.size()),
                                        resource_.data()));
    }

    std::string text(const std::string& name) const {
        void* value = nullptr;
        UINT length = 0;
        const std::string path = R"(\StringFileInfo\040904B0\)" + name;
        return VerQueryValueA(resource_.data(), path.c_str(), &value, &length) != FALSE
                   ? static_cast<const char*>(value)
                   : "there is no " + name;
    }

    const VS_FIXEDFILEINFO& numbers() const {
        void* value = nullptr;
        UINT length = 0;
        VerQueryValueA(resource_.data(), "\\", &value, &length);
        EXPECT_EQ(length, sizeof(VS_FIXEDFILEINFO));
        return *static_cast<const VS_FIXEDFILEINFO*>(value);
    }

  private:
    std::vector<char> resource_;
};

std::string dotted(DWORD high, DWORD low) {
    std::string text = std::to_string(HIWORD(high)) + '.' + std::to_string(LOWORD(high)) + '.' +
                       std::to_string(HIWORD(low));
    return LOWORD(low) == 0 ? text : text + '.' + std::to_string(LOWORD(low));
}

TEST_F(VersionTest, IsTheProjects) {
    EXPECT_EQ(text("FileVersion"), TEZ_PROJECT_VERSION);
    EXPECT_EQ(dotted(numbers().dwFileVersionMS, numbers().dwFileVersionLS), TEZ_PROJECT_VERSION);
    EXPECT_EQ(dotted(numbers().dwProductVersionMS, numbers().dwProductVersionLS),
              TEZ_PROJECT_VERSION);
}

TEST_F(VersionTest, OfTheProductHasTheCommit) {
    const std::regex commit(R"( \((commit unknown|[0-9a-f]{12}(-dirty)?)\))");
    const std::string version = text("ProductVersion");
    ASSERT_THAT(version, StartsWith(TEZ_PROJECT_VERSION));
    EXPECT_TRUE(std::regex_match(version.substr(sizeof TEZ_PROJECT_VERSION - 1), commit))
        << version;
}

}  // namespace
}  // namespace tez::test
