#include "agent/token_file.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <system_error>

#include "card_machine.h"

namespace tez::agent {
namespace {

TEST(TokenFileTest, LeavesNoFileBehindThatCouldNotBeWritten) {
    const std::filesystem::path folder = freshFolder();
    const std::filesystem::path path = folder / "token";
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
    const auto usualAction = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    EXPECT_THROW(makeTokenFile(path), std::system_error);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
    std::signal(SIGXFSZ, usualAction);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_NO_THROW(makeTokenFile(path));
    EXPECT_NO_THROW(readTokenFile(path));
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace tez::agent
