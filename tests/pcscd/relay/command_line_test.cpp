#include "relay/command_line.h"

#include <windows.h>
#include <winsock2.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shellapi.h>

#include "utf8.h"

using namespace tez::relay;

TEST(CommandLine, IsTakenApartIntoTheWordsItWasMadeOf) {
    const std::vector<std::string> words = {
        "--token",   R"(C:\Program Files\a b\)", "", R"(a"b)", R"(\\.\pipe\x)",
        R"(a\\"b\)", "\xC3\xA4 \xE2\x82\xAC"};
    const std::wstring line = commandLineOfThisProgram(words);
    int count = 0;
    wchar_t** const taken = CommandLineToArgvW(line.c_str(), &count);
    ASSERT_NE(taken, nullptr);
    EXPECT_THAT(tez::tools::utf8Arguments(count, taken), words);
    LocalFree(taken);
}
