// The whole way from an application to a card: library, pipe, relay, link, and the daemon's core.
#include <chrono>
#include <string>

#include "child_process.h"
#include "core/daemon.h"
#include "relay_fixture.h"
#include "simulated/simulated_service.h"

using namespace tez;
using test::AgentConnection;
using test::ChildProcess;
using test::RelayTest;
using testing::HasSubstr;

namespace {

constexpr const char* kReader = "Distant Reader";
constexpr const char* kApplication = "F054455A44454D4F";  // of the demo card
constexpr std::chrono::seconds kChainPatience{50};

/// A stream of the link as the daemon's core takes it.
class LinkStream final : public pcscd::ByteStream {
  public:
    explicit LinkStream(AgentConnection& connection) : connection_(connection) {}

    std::size_t read(std::span<std::uint8_t> buffer) override {
        const test::Bytes bytes = connection_.read(buffer.size());
        std::copy(bytes.begin(), bytes.end(), buffer.begin());
        return bytes.size();
    }
    bool write(std::span<const std::uint8_t> bytes) override {
        return connection_.sendPiece(bytes);
    }
    void close() override { connection_.close(); }

  private:
    AgentConnection& connection_;
};

class Chain : public RelayTest {
  public:
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

  protected:
    Chain() : RelayTest(R"(\\.\pipe\tez-pcscd-0)") {
        service_.addReader(kReader);
        service_.insertCard(kReader, pcscd::makeDemoCard("Remote User"));
        agent_.onClient([this](AgentConnection& connection) {
            LinkStream stream(connection);
            daemon_.serve(stream, ++streams_, connection.processId());
        });
        startBoth();
    }
    ~Chain() override {
        daemon_.releaseAll();
        agent_.stop();
    }

    /// What one command of an application of its own prints.
    static std::string output(const std::string& command) {
        ChildProcess client("pcsc-client.exe", command);
        return client.readRest();
    }
    static bool succeeds(const std::string& command) {
        return ChildProcess("pcsc-client.exe", command).waitForEnd(kChainPatience) == 0U;
    }
    static std::string readLineWith(ChildProcess& client, const std::string& text) {
        while (const std::optional<std::string> line = client.readLine()) {
            if (line->find(text) != std::string::npos) {
                return *line;
            }
        }
        return "no line with " + text;
    }
    static std::string named(const std::string& words) { return words + " \"" + kReader + "\""; }

    pcscd::SimulatedService service_;
    pcscd::Daemon daemon_{service_};
    std::atomic<std::uint64_t> streams_ = 0;
};

}  // namespace

TEST_F(Chain, ListsSelectsAndReads) {
    EXPECT_THAT(output("readers"), HasSubstr(kReader));
    EXPECT_THAT(output(named("select") + " " + kApplication), HasSubstr("9000 success"));
    EXPECT_THAT(output(named("read") + " --aid " + kApplication + " --file 0101"),
                HasSubstr("Card holder: Rem"));
}

TEST_F(Chain, EndsAWaitWhenACardGoes) {
    ChildProcess client("pcsc-client.exe", named("watch") + " --changes 1");
    ASSERT_THAT(readLineWith(client, "watching"), HasSubstr("watching"));
    service_.removeCard(kReader);
    EXPECT_THAT(client.readRest(), HasSubstr("no card"));
    EXPECT_EQ(client.waitForEnd(kChainPatience), 0U);
}

TEST_F(Chain, TakesTheReadersAlongWhenTheTunnelIsCut) {
    ChildProcess client("pcsc-client.exe", "shell");
    client.writeLine(named("connect"));
    ASSERT_THAT(readLineWith(client, "connected to"), HasSubstr(kReader));
    agent_.stop();
    ASSERT_TRUE(pipeGoes());
    client.writeLine("disconnect");
    EXPECT_THAT(readLineWith(client, "SCardDisconnect"), HasSubstr("0x"));
    agent_.start();
    ASSERT_TRUE(pipeComes());
    // The library looks for the daemon five times a second.
    EXPECT_TRUE(test::eventually([&] {
        client.writeLine("readers");
        client.writeLine("explain 0x80100017");
        // All that was written is read: with its pipe full the client would stand still.
        bool isListed = false;
        for (std::optional<std::string> line = client.readLine();
             line && line->find("0x80100017") == std::string::npos; line = client.readLine()) {
            isListed = isListed || line->find(kReader) != std::string::npos;
        }
        return isListed;
    }));
    client.writeLine("quit");
}

TEST_F(Chain, GivesBackWhatAVanishedProgramHeld) {
    ChildProcess holder("pcsc-client.exe", "shell");
    holder.writeLine(named("connect") + " --exclusive");
    ASSERT_THAT(readLineWith(holder, "connected to"), HasSubstr(kReader));
    EXPECT_FALSE(succeeds(named("select") + " " + kApplication));
    holder.kill();
    EXPECT_TRUE(test::eventually([&] { return succeeds(named("select") + " " + kApplication); }));
}
