#include "relay/log.h"

#include <windows.h>

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace tez;
using testing::ElementsAre;

TEST(RelayLog, TellsAnErrorAgainOnlyOnceItHasToldSomethingElse) {
    const std::string path = "log-of-" + std::to_string(GetCurrentProcessId());
    {
        relay::Log log;
        log.appendTo(path);
        log.error("no");
        log.error("no");
        log.error("not this one");
        log.error("no");
        log.info("yes");
        log.info("yes");
        log.error("no");
    }
    std::vector<std::string> texts;
    {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            texts.push_back(line.substr(std::string("2026-01-01 12:00:00Z ").size()));
        }
    }
    DeleteFileA(path.c_str());
    EXPECT_THAT(texts, ElementsAre("error: no", "error: not this one", "error: no", "yes", "yes",
                                   "error: no"));
}
