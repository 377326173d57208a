// The program itself, as a person or the service manager starts it.

#include "../link/example_token.h"
#include "child_process.h"
#include "patience.h"
#include "private_file.h"
#include "relay_fixture.h"

using namespace tez;
using test::Bytes;
using test::ChildProcess;
using test::kPatience;
using test::RelayTest;
using testing::HasSubstr;

namespace {

class RelayProcess : public RelayTest {
  public:
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

  protected:
    RelayProcess() { test::writePrivateFile(token_, link::formatToken(test::exampleToken())); }
    ~RelayProcess() override { DeleteFileA(token_.c_str()); }

    /// Options for the test's pipe, agent, token and log.
    std::string options(const std::string& more = "") const {
        return "--pipe " + pipe_ + " --agent " + settings_.agent.address.text() + " --token " +
               token_ + " --log " + logFile_ + " " + more;
    }

    const std::string token_ = logFile_ + ".token";
};

DWORD exitCodeOf(const std::string& arguments) {
    return ChildProcess("pcsc-relay.exe", arguments).waitForEnd(kPatience).value_or(99);
}

}  // namespace

TEST_F(RelayProcess, TellsItsVersionAndItsOptions) {
    ChildProcess version("pcsc-relay.exe", "--version");
    EXPECT_THAT(version.readRest(), HasSubstr("pcsc-relay 1."));
    EXPECT_EQ(version.waitForEnd(kPatience), 0U);
    ChildProcess help("pcsc-relay.exe", "--help");
    EXPECT_THAT(help.readRest(), HasSubstr("--agent HOST:PORT"));
    EXPECT_EQ(help.waitForEnd(kPatience), 0U);
}

TEST_F(RelayProcess, EndsWithTwoForWrongArguments) {
    EXPECT_EQ(exitCodeOf(""), 2U);
    EXPECT_EQ(exitCodeOf(options("--nonsense")), 2U);
}

TEST_F(RelayProcess, ServesThePipe) {
    agent_.start();
    const ChildProcess relay("pcsc-relay.exe", options("-v"));
    ASSERT_TRUE(pipeComes());
    EXPECT_EQ(connect().exchange(Bytes{1, 2, 3}), (Bytes{1, 2, 3}));
    EXPECT_THAT(logText(), HasSubstr("process " + std::to_string(GetCurrentProcessId())));
}

TEST_F(RelayProcess, IsTheOnlyOneForItsPipe) {
    agent_.start();
    const ChildProcess first("pcsc-relay.exe", options());
    ASSERT_TRUE(pipeComes());
    EXPECT_EQ(exitCodeOf(options()), 1U);
    EXPECT_THAT(logText(), HasSubstr("another pcsc-relay runs"));
    // Without an agent there is no pipe that could tell.
    agent_.stop();
    ASSERT_TRUE(pipeGoes());
    EXPECT_EQ(exitCodeOf(options()), 1U);
    EXPECT_TRUE(first.isRunning());
}

TEST_F(RelayProcess, DoesNotServeWithoutItsToken) {
    DeleteFileA(token_.c_str());
    EXPECT_EQ(exitCodeOf(options()), 1U);
    EXPECT_THAT(logText(), HasSubstr("cannot read the token"));
}

TEST_F(RelayProcess, DoesNotServeUsersThatThereAreNot) {
    EXPECT_EQ(exitCodeOf(options("--for nobody-of-this-name")), 1U);
    EXPECT_THAT(logText(), HasSubstr("no user or group of this name: nobody-of-this-name"));
}

TEST_F(RelayProcess, IsAServiceOnlyForTheServiceManager) {
    EXPECT_EQ(exitCodeOf(options("--service run --for Everyone")), 1U);
}

TEST_F(RelayProcess, IsAWindowsServiceFromItsInstallationToItsRemoval) {
    agent_.start();
    ASSERT_EQ(exitCodeOf(options("--service install --for Everyone")), 0U);
    EXPECT_TRUE(pipeComes());
    EXPECT_EQ(connect().exchange(Bytes{1, 2, 3}), (Bytes{1, 2, 3}));
    EXPECT_EQ(exitCodeOf(options("--service install --for Everyone")), 1U);
    EXPECT_EQ(exitCodeOf("--service remove"), 0U);
    EXPECT_TRUE(pipeGoes());
    EXPECT_THAT(logText(), HasSubstr("told to stop"));
    EXPECT_EQ(exitCodeOf("--service remove"), 1U);
}
