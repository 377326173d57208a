#include "relay/options.h"

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace tez::relay;
using testing::ElementsAre;
using Mode = Options::Mode;
using Words = std::vector<std::string>;

namespace {

Words with(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

const Words kLeast = {"--agent", "127.0.0.1:4711", "--token", "token"};
const Words kService = with(kLeast, {"--service", "install", "--for", "alice", "--log", "log"});

/// The exit code that the words lead to, and what is printed.
std::pair<int, std::string> refusalOf(const Words& words) {
    testing::internal::CaptureStderr();
    int code = 0;
    try {
        parseOptions(words);
    } catch (const CLI::Error& error) {
        code = error.get_exit_code();
    }
    return {code, testing::internal::GetCapturedStderr()};
}

}  // namespace

TEST(RelayOptions, NeedAnAgentAndAToken) {
    const Options options = parseOptions(kLeast);
    EXPECT_EQ(options.mode, Mode::foreground);
    EXPECT_EQ(options.agent.text(), "127.0.0.1:4711");
    EXPECT_EQ(options.tokenFile, "token");
    EXPECT_EQ(options.pipe, R"(\\.\pipe\tez-pcscd-0)");
    EXPECT_TRUE(options.users.empty());
    EXPECT_NE(refusalOf({"--agent", "127.0.0.1:4711"}).first, 0);
    EXPECT_NE(refusalOf({"--token", "token"}).first, 0);
    EXPECT_NE(refusalOf({}).first, 0);
}

TEST(RelayOptions, AreTaken) {
    const Options options = parseOptions(with(
        kLeast, {"--for", "alice", "--for", R"(DOMAIN\bob)", "-v", "--log", "l", "--pipe", "p"}));
    EXPECT_THAT(options.users, ElementsAre("alice", R"(DOMAIN\bob)"));
    EXPECT_TRUE(options.verbose);
    EXPECT_EQ(options.logFile, "l");
    EXPECT_EQ(options.pipe, "p");
}

TEST(RelayOptions, KeepTheLinkOnThisMachine) {
    const Words away = {"--agent", "192.0.2.1:4711", "--token", "token"};
    const auto [code, text] = refusalOf(away);
    EXPECT_NE(code, 0);
    EXPECT_THAT(text, testing::HasSubstr("not encrypted"));
    EXPECT_TRUE(parseOptions(with(away, {"--insecure-any-address"})).anyAddress);
}

TEST(RelayOptions, RefuseWhatIsNoAddress) {
    EXPECT_THAT(refusalOf({"--agent", "127.0.0.1", "--token", "t"}).second,
                testing::HasSubstr("HOST:PORT"));
}

TEST(RelayOptions, OfAServiceSayForWhomAndWhereItsLogIs) {
    EXPECT_EQ(parseOptions(kService).mode, Mode::installService);
    EXPECT_THAT(refusalOf(with(kLeast, {"--service", "install", "--log", "l"})).second,
                testing::HasSubstr("--for"));
    EXPECT_THAT(refusalOf(with(kLeast, {"--service", "install", "--for", "a"})).second,
                testing::HasSubstr("--log"));
    EXPECT_NE(refusalOf(with(kLeast, {"--service", "restart"})).first, 0);
}

TEST(RelayOptions, OfARemovalAreNoneElse) {
    EXPECT_EQ(parseOptions({"--service", "remove"}).mode, Mode::removeService);
}

TEST(RelayOptions, ComeThroughTheServiceManagerAsTheyWere) {
    const Words words =
        wordsFor(parseOptions(with(kService, {"--for", "bob", "-v", "--insecure-any-address"})),
                 Mode::runService);
    const Options options = parseOptions(words);
    EXPECT_EQ(options.mode, Mode::runService);
    EXPECT_EQ(options.agent.text(), "127.0.0.1:4711");
    EXPECT_THAT(options.users, ElementsAre("alice", "bob"));
    EXPECT_TRUE(options.verbose);
    EXPECT_TRUE(options.anyAddress);
    // The service is started in another folder.
    EXPECT_THAT(options.tokenFile, testing::EndsWith("\\token"));
    EXPECT_THAT(options.logFile, testing::EndsWith("\\log"));
    EXPECT_NE(options.tokenFile, "\\token");
}
