// The switch of the environment that sends the calls on the card database to the daemon too.
#include "received_commands.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSwitchName = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";
constexpr const char* kSwitchReader = "isAllCallsRedirectionEnabled";
constexpr const char* kSwitchIsNotSet =
    "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION is not set, using default (0)";

class RedirectionSwitchTest : public RemoteCardTest {
  protected:
    /// Sets `context` up beside a daemon that answers a list of cards with a refusal.
    void serveWith(const std::string& value) {
        setEnvironment(kSwitchName, value);
        establishContext();
        const std::size_t kListCardsSize = 54;
        daemon.on(Command::kListCards,
                  answering(kListCardsSize, {{50, static_cast<std::uint32_t>(kNotSupported)}}));
        daemon.clearRecords();
    }

    /// Makes a call on the card database; whether the daemon was asked.
    bool reachesTheDaemon() {
        const std::size_t before = daemon.requests(Command::kListCards).size();
        DWORD length = 0;
        EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 0, nullptr, &length),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_GT(length, 2U) << "the host's cards are listed in any case";
        return daemon.requests(Command::kListCards).size() != before;
    }
};

struct SwitchText {
    const char* name;
    std::string value;
    bool redirects;
};

void PrintTo(const SwitchText& text, std::ostream* stream) {
    *stream << text.name;
}

class RedirectionValueTest : public RedirectionSwitchTest,
                             public testing::WithParamInterface<SwitchText> {};

TEST_P(RedirectionValueTest, DecidesWhetherTheDaemonIsAsked) {
    serveWith(GetParam().value);
    EXPECT_EQ(reachesTheDaemon(), GetParam().redirects);
    EXPECT_THAT(log().messages(kSwitchReader),
                ElementsAre(std::string(kSwitchName) + " = " + GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(Texts, RedirectionValueTest,
                         testing::Values(SwitchText{"False", "false", false},
                                         SwitchText{"MixedCase", "FaLsE", false},
                                         SwitchText{"Zero", "0", false},
                                         SwitchText{"ZeroAndBlank", "0 ", true},
                                         SwitchText{"TwoZeros", "00", true},
                                         SwitchText{"No", "no", true}, SwitchText{"One", "1", true},
                                         SwitchText{"Longest", std::string(127, '0'), true}),
                         [](const auto& given) { return std::string(given.param.name); });

TEST_F(RedirectionSwitchTest, IsOffWhenItIsNotSet) {
    serveWith("");
    EXPECT_FALSE(reachesTheDaemon());
    EXPECT_THAT(log().entries(), Contains(LogLine('D', kSwitchReader, kSwitchIsNotSet)));
}

TEST_F(RedirectionSwitchTest, IsOffWhenItsTextIsTooLong) {
    serveWith(std::string(128, '1'));
    EXPECT_FALSE(reachesTheDaemon());
    EXPECT_THAT(log().messages(kSwitchReader), ElementsAre(kSwitchIsNotSet));
}

TEST_F(RedirectionSwitchTest, StaysOnForTheLifeOfTheProcess) {
    serveWith("1");
    EXPECT_TRUE(reachesTheDaemon());
    setEnvironment(kSwitchName, "0");
    EXPECT_TRUE(reachesTheDaemon());
    EXPECT_THAT(log().messages(kSwitchReader), ElementsAre(std::string(kSwitchName) + " = 1"));
}

TEST_F(RedirectionSwitchTest, StaysOffForTheLifeOfTheProcess) {
    serveWith("");
    EXPECT_FALSE(reachesTheDaemon());
    setEnvironment(kSwitchName, "1");
    EXPECT_FALSE(reachesTheDaemon());
    EXPECT_THAT(log().messages(kSwitchReader), ElementsAre(kSwitchIsNotSet));
}

TEST_F(RedirectionSwitchTest, IsNotLookedAtWhileThereIsNoDaemon) {
    setEnvironment(kSwitchName, "0");
    context = establish();
    EXPECT_FALSE(reachesTheDaemon());
    EXPECT_THAT(log().messages(kSwitchReader), IsEmpty());
    // Nothing has been kept either.
    setEnvironment(kSwitchName, "1");
    startDaemon();
    waitForWatch();
    EXPECT_TRUE(reachesTheDaemon());
}

TEST_F(RedirectionSwitchTest, DoesNotKeepCallsThatTryTheHostFirstFromTheDaemon) {
    serveWith("0");
    DWORD type = 0;
    SCardGetDeviceTypeIdA(context, kRemoteReader, &type);
    DWORD length = 0;
    SCardGetReaderIconA(context, kRemoteReader, nullptr, &length);
    EXPECT_THAT(receivedCommands(daemon),
                ElementsAre(Command::kEstablishContext, Command::kGetDeviceTypeId,
                            Command::kGetReaderIcon));
    EXPECT_THAT(log().messages(kSwitchReader), IsEmpty());
}

}  // namespace
}  // namespace tez::test
