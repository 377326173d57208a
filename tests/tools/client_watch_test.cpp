// The client's watch: cards and readers of both sides that come and go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client_with_own_daemon.h"
#include "daemon_records.h"
#include "log_reader.h"
#include "reader_states.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;
using testing::StartsWith;

/// How many calls of the library its logs in a folder tell of.
std::size_t countCalls(const std::filesystem::path& folder) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream log(entry.path());
        for (std::string line; std::getline(log, line);) {
            if (line.find(" IN-PARAMS") != std::string::npos) {
                ++count;
            }
        }
    }
    return count;
}

/// Without and with standard answers of the library.
class WatchTest : public ClientTest, public testing::WithParamInterface<bool> {
  protected:
    WatchTest() { setEnvironment("TEZ_PCSC_STANDARD_CALLS", GetParam() ? "1" : ""); }
};

INSTANTIATE_TEST_SUITE_P(Answers, WatchTest, testing::Bool(), [](const auto& test) {
    return std::string(test.param ? "Standard" : "Default");
});

TEST_P(WatchTest, EndsAWatchWithACardOnTheRemoteSide) {
    ChildProcess watch("pcsc-client.exe", "watch --once");
    waitUntilItWaits(watch);
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present, ATR " +
                                                      std::string(kDemoAtrText))));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_P(WatchTest, EndsAWatchWithACardOnTheHostsSide) {
    std::filesystem::remove(cardFile());
    ChildProcess watch("pcsc-client.exe", "watch --once");
    waitUntilItWaits(watch);
    std::ofstream(cardFile()).close();
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Host Reader 0: card present")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_F(ClientTest, FollowsReadersAndSidesThatComeAndGo) {
    ChildProcess watch("pcsc-client.exe", "watch --changes 4");
    waitUntilItWaits(watch);
    simulator.tell("add Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: new reader, no card")));
    simulator.tell("remove-reader Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: reader removed")));
    simulator.tell("stop-serving");
    simulator.waitFor("stopped serving");
    simulator.tell("remove Remote Reader 0");
    simulator.tell("serve");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: no card")));
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_F(ClientTest, IsToldAtOnceOfSidesThatComeAndGoWithStandardAnswers) {
    setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1");
    ChildProcess watch("pcsc-client.exe", "watch --changes 5");
    waitUntilItWaits(watch);
    simulator.tell("stop-serving");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: reader removed")));
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: reader removed")));
    simulator.tell("serve");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: new reader, card")));
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: new reader, no card")));
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_P(WatchTest, EndsAWatchWhenItsTimeIsOver) {
    EXPECT_THAT(output("watch --timeout 0"), HasSubstr("watching"));
    EXPECT_THAT(outputOf("watch --once --timeout 1", 1), HasSubstr("watching"));
}

TEST_P(WatchTest, ToldOfAChangeDoesNotWaitForTheEndOfItsTime) {
    ChildProcess watch("pcsc-client.exe", "watch --once --timeout 1000");
    lineWith(watch, "watching");
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_P(WatchTest, ShowsANamedReaderWhenItComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 2\" --once --wait");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: no such reader")));
    lineWith(watch, "watching");
    simulator.tell("add Remote Reader 2");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 2: new reader, no card")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_P(WatchTest, FollowsANamedReaderThatGoesAndComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 1\" --changes 3");
    waitUntilItWaits(watch);
    simulator.tell("remove Remote Reader 0");
    simulator.tell("remove-reader Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: reader removed")));
    simulator.tell("add Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: new reader, no card")));
    simulator.tell("insert Remote Reader 1");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 1: card present")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_P(WatchTest, WatchesANamedReaderWhileTheDaemonGoesAndComes) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 0\" --changes 2");
    waitUntilItWaits(watch);
    simulator.tell("stop-serving");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: reader removed")));
    simulator.tell("serve");
    EXPECT_THAT(watch.readLine(), Optional(StartsWith("Remote Reader 0: new reader, card")));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_F(ClientTest, RefusesToWatchAReaderThatIsNotThere) {
    EXPECT_THAT(shellOutput({"watch \"Remote Reader 0\" Nope --once"}, 1),
                HasSubstr("error: there is no reader Nope; --wait waits for it"));
}

TEST_P(WatchTest, RestsWhileANamedReaderIsMissing) {
    const std::filesystem::path folder = logToFreshDirectory();
    output("watch \"No Such Reader\" --wait --timeout 1");
    const std::size_t calls = countCalls(folder);
    std::filesystem::remove_all(folder);
    EXPECT_GT(calls, 0U);
    // By default it looks four times in that second, with a few calls each time.
    EXPECT_LT(calls, GetParam() ? 20U : 60U);
}

TEST_F(ClientWithOwnDaemon, RestsWhileItListsAReaderThatItsWaitsDoNotKnow) {
    daemon.on(Command::kGetStatusChange, [](const Request& request) -> std::optional<Reply> {
        std::vector<AnswerField> fields = {{StatusChangeLayout::kResult, 0}};
        for (std::size_t entry = StatusChangeLayout::kSize; entry < request.body.size();
             entry += ReaderStateLayout::kSize) {
            fields.push_back({entry + ReaderStateLayout::kEvent, kGone});
        }
        return Reply::of(answerBlocks(request, request.body.size(), fields));
    });
    output("watch \"" + std::string(kReader) + "\" --timeout 1");
    // It looks four times in that second.
    EXPECT_GT(daemon.requests(Command::kGetStatusChange).size(), 1U);
    EXPECT_LT(daemon.requests(Command::kGetStatusChange).size(), 20U);
}

TEST_F(ClientTest, TellsHowManyReadersCanBeWatched) {
    for (int reader = 2; reader < 16; ++reader) {
        simulator.tell("add Remote Reader " + std::to_string(reader));
    }
    simulator.waitFor("reader added: Remote Reader 15");
    EXPECT_THAT(shellOutput({"watch --timeout 0", "watch 0 15 16 --timeout 0"}, 1),
                AllOf(HasSubstr("error: a wait takes 16 entries at most, not 18"),
                      HasSubstr("Host Reader 0: card present")));
}

}  // namespace
}  // namespace tez::test
