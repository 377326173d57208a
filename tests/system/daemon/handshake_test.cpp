// What the library says to a daemon on a fresh pipe before its first request, and what it makes of
// the answer.
#include <atomic>
#include <thread>

#include "failing_writes.h"
#include "record_codec.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr const char* kCacheSwitch = "TEZ_PCSC_ENABLE_CACHE";
constexpr const char* kGreeting =
    "Using TEZ's pcsclite library, version 0.0 (r86), protocol version ";

struct CacheSetting {
    std::string value;  // empty: unset
    Bytes option;
    std::string word;
};

void PrintTo(const CacheSetting& setting, std::ostream* stream) {
    *stream << textInName(setting.value);
}

class CacheSettingTest : public SystemTest, public testing::WithParamInterface<CacheSetting> {};

TEST_P(CacheSettingTest, TravelsAsOptionAndIsReported) {
    setEnvironment(kCacheSwitch, GetParam().value);
    establishWithDaemon();
    EXPECT_THAT(daemon.handshakes(), Each(Field("token", &Handshake::token, Bytes{0})));
    EXPECT_THAT(daemon.handshakes(), Each(Field("option", &Handshake::option, GetParam().option)));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::handshake", 'I'),
                Each(kGreeting + std::string("1.4, cache ") + GetParam().word));
    // Once for the first call's own check, once for the monitor.
    EXPECT_THAT(daemon.handshakes(), testing::SizeIs(2));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::handshake"), testing::SizeIs(2));
}

TEST_P(CacheSettingTest, IsLogged) {
    setEnvironment(kCacheSwitch, GetParam().value);
    establishWithDaemon();
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::connect", 'D'),
                Each(GetParam().word == "unset" ? "TEZ_PCSC_ENABLE_CACHE is not set"
                                                : "TEZ_PCSC_ENABLE_CACHE = " + GetParam().value));
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::connect"), testing::SizeIs(2));
}

const Bytes kUnset = {0xFF, 0xFF, 0xFF, 0xFF};
const Bytes kDisabled = {0, 0, 0, 0};
const Bytes kEnabled = {1, 0, 0, 0};

INSTANTIATE_TEST_SUITE_P(HandshakeTest, CacheSettingTest,
                         testing::Values(CacheSetting{"", kUnset, "unset"},
                                         CacheSetting{"FaLsE", kDisabled, "disabled"},
                                         CacheSetting{"0", kDisabled, "disabled"},
                                         CacheSetting{"1", kEnabled, "enabled"},
                                         CacheSetting{"yes", kEnabled, "enabled"},
                                         CacheSetting{"00", kEnabled, "enabled"},
                                         CacheSetting{"0 ", kEnabled, "enabled"},
                                         CacheSetting{"no", kEnabled, "enabled"},
                                         CacheSetting{std::string(127, 'x'), kEnabled, "enabled"},
                                         CacheSetting{std::string(128, 'x'), kUnset, "unset"}));

struct Version {
    std::uint32_t major;
    std::uint32_t minor;
    std::string text;
};

void PrintTo(const Version& version, std::ostream* stream) {
    *stream << version.text;
}

class VersionTest : public SystemTest, public testing::WithParamInterface<Version> {};

TEST_P(VersionTest, IsAccepted) {
    daemon.setVersion({GetParam().major, GetParam().minor});
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::handshake", 'I'),
                Each(kGreeting + GetParam().text + ", cache unset"));
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

INSTANTIATE_TEST_SUITE_P(HandshakeTest, VersionTest,
                         testing::Values(Version{0, 0, "0.0"}, Version{1, 0, "1.0"},
                                         Version{2, 7, "2.7"},
                                         Version{0xFFFFFFFF, 0x80000000, "4294967295.2147483648"}));

class HandshakeTest : public SystemTest {
  protected:
    /// The next call finds no service, and the library does not crash on it.
    void expectTheHostAlone(SCARDCONTEXT context) {
        EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
        EXPECT_THAT(log().messages("checkServiceAvailability"), IsEmpty());
        EXPECT_THAT(daemon.requests(), IsEmpty());
    }

    void expectService(SCARDCONTEXT context) {
        waitForWatch();
        EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
    }

    /// A first call whose own check cannot write so many bytes at once; the monitor's thread can.
    void establishWithFailingWrites(DWORD failingSize) {
        startDaemon();
        const FailingWrites writes([failingSize](DWORD size) { return size == failingSize; });
        establish();
    }

    void expectFailedFirstCheck(const std::string& warning) {
        EXPECT_THAT(log().entries(),
                    Contains(LogLine('W', "DaemonConnectionTEZ::handshake", warning)));
        EXPECT_THAT(log().entries(),
                    Not(Contains(AllOf(
                        Field("thread", &LogEntry::thread, GetCurrentThreadId()),
                        Field("function", &LogEntry::function, "checkServiceAvailability")))));
        EXPECT_TRUE(eventually([&] { return !log().messages("checkServiceAvailability").empty(); }))
            << "the monitor finds the daemon all the same";
    }

    /// What a daemon does about a handshake instead of answering it.
    void afterHandshake(std::function<void(const Handshake&)> action) {
        daemon.setReplyVersion(false);
        DaemonSimulator::Observer observer;
        observer.handshake = std::move(action);
        daemon.setObserver(std::move(observer));
        startDaemon();
    }
};

TEST_F(HandshakeTest, SendsTokenAndOptionInOneWriteEach) {
    std::vector<DWORD> sizes;
    const FailingWrites writes([&](DWORD size) {
        sizes.push_back(size);
        return false;
    });
    startDaemon();
    establish();
    EXPECT_THAT(sizes, ElementsAre(1, 4));
}

TEST_F(HandshakeTest, ReadsTheCacheSwitchForEachConnection) {
    setEnvironment(kCacheSwitch, "1");
    const SCARDCONTEXT context = establishWithDaemon();
    setEnvironment(kCacheSwitch, "0");
    listReaders(context);
    setEnvironment(kCacheSwitch, "");
    daemon.closeConnection(daemon.handshakes().back().connection);
    listReaders(context);
    std::vector<Bytes> options;
    for (const Handshake& handshake : daemon.handshakes()) {
        options.push_back(handshake.option);
    }
    EXPECT_THAT(options, ElementsAre(kEnabled, kEnabled, kDisabled, kUnset));
}

TEST_F(HandshakeTest, AnotherVersionCountsFromTheNextConnectionOn) {
    const SCARDCONTEXT context = establishWithDaemon();
    daemon.setVersion({1, 3});
    listReaders(context);
    EXPECT_EQ(log().messages("DaemonConnectionTEZ::handshake").back(),
              kGreeting + std::string("1.3, cache unset"));
}

TEST_F(HandshakeTest, ADaemonThatClosesInsteadOfAnsweringIsNoService) {
    afterHandshake(
        [&](const Handshake& handshake) { daemon.closeConnection(handshake.connection); });
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(log().entries(),
                Contains(LogLine(
                    'W', "DaemonConnectionTEZ::handshake",
                    R"(Unable to retrieve protocol info from socket '\\.\pipe\tez-pcscd-0')")));
    expectTheHostAlone(context);
    daemon.setReplyVersion(true);
    daemon.setObserver({});
    expectService(context);
}

TEST_F(HandshakeTest, AVersionCutShortIsNoService) {
    afterHandshake([&](const Handshake& handshake) {
        daemon.send(handshake.connection, {{1, 0, 0, 0, 4}});
    });
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(log().entries(), Contains(LogLine('D', "DaemonConnectionTEZ::readn",
                                                  "Message read partially 5 < 8")));
    EXPECT_THAT(log().entries(),
                Contains(LogLine(
                    'W', "DaemonConnectionTEZ::handshake",
                    R"(Unable to retrieve protocol info from socket '\\.\pipe\tez-pcscd-0')")));
    expectTheHostAlone(context);
}

TEST_F(HandshakeTest, ATokenThatCannotBeSentIsNoService) {
    establishWithFailingWrites(1);
    expectFailedFirstCheck(R"(Unable send auth token to socket '\\.\pipe\tez-pcscd-0')");
}

TEST_F(HandshakeTest, OptionsThatCannotBeSentAreNoService) {
    establishWithFailingWrites(4);
    expectFailedFirstCheck(R"(Unable to send options to socket '\\.\pipe\tez-pcscd-0')");
}

TEST_F(HandshakeTest, IsWaitedForAsLongAsTheDaemonTakes) {
    daemon.setReplyVersion(false);
    startDaemon();
    std::atomic<bool> established = false;
    std::thread caller([&] {
        establish();
        established = true;
    });
    ASSERT_TRUE(daemon.waitUntil([&] { return transport().opens() == 1; }, kPatience));
    ASSERT_TRUE(eventually([&] { return daemon.handshakes().size() == 1; }));
    EXPECT_FALSE(established);
    daemon.setReplyVersion(true);
    Bytes version(8);
    putU32(version, 0, 1);
    EXPECT_TRUE(daemon.send(1, {version}));
    caller.join();
    EXPECT_THAT(log().messages("DaemonConnectionTEZ::handshake", 'I'),
                Contains(kGreeting + std::string("1.0, cache unset")));
}

}  // namespace
}  // namespace tez::test
