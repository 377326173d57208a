// What the client's doctor says of a host that is well, and of hosts that are not.
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "child_process.h"
#include "daemon_pipe.h"
#include "environment.h"
#include "patience.h"
#include "program_directory.h"
#include "simulator_process.h"

namespace tez::test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Optional;
using testing::SizeIs;

/// The doctor's findings; a test failure when the exit code says something else than they do.
std::vector<json> examine(const std::string& program = "pcsc-client.exe") {
    ChildProcess doctor(program, "doctor --json");
    const json report = json::parse(doctor.readRest());
    const bool isWell = report.at("ok");
    EXPECT_THAT(doctor.waitForEnd(kPatience), Optional(isWell ? 0U : 1U));
    return report.at("findings");
}

/// What is wrong, as "check: text"; a test failure when nothing is said about what to do.
std::vector<std::string> complaints(const std::vector<json>& findings) {
    std::vector<std::string> list;
    for (const json& finding : findings) {
        if (!finding.at("right")) {
            EXPECT_THAT(finding.at("next").get<std::string>(), testing::Not(IsEmpty()));
            list.push_back(finding.at("check").get<std::string>() + ": " +
                           finding.at("text").get<std::string>());
        }
    }
    return list;
}

std::vector<std::string> texts(const std::vector<json>& findings) {
    std::vector<std::string> list;
    list.reserve(findings.size());
    for (const json& finding : findings) {
        list.push_back(finding.at("text"));
    }
    return list;
}

TEST(ClientDoctorTest, FindsAllWell) {
    const SimulatorProcess simulator;
    const std::vector<json> findings = examine();
    EXPECT_THAT(complaints(findings), IsEmpty());
    EXPECT_THAT(texts(findings),
                IsSupersetOf({"the daemon's readers: Remote Reader 0, Remote Reader 1",
                              "the host's readers: Host Reader 0", "Remote Reader 0 (remote)",
                              "Host Reader 0 (host)",
                              "Remote Reader 0: T=1; historical bytes \"DEMO CARD\"",
                              "Remote Reader 1: no card"}));
    EXPECT_THAT(texts(findings), Contains(HasSubstr("winscard.dll, version 1.")));
    EXPECT_THAT(texts(findings), Contains(HasSubstr("SCardListCards: SCARD_S_SUCCESS")));
}

/// The client in a folder of its own, without the library beside it.
class ClientAlone {
  public:
    ClientAlone() {
        std::filesystem::remove_all(folder());  // what another process of this number has left
        std::filesystem::create_directory(folder());
        std::filesystem::copy_file(programDirectory() + "\\pcsc-client.exe", folder() + name_);
    }
    ~ClientAlone() { std::filesystem::remove_all(folder()); }
    ClientAlone(const ClientAlone&) = delete;
    ClientAlone& operator=(const ClientAlone&) = delete;

    /// Seen from the folder of the programs.
    std::string program() const { return folder_ + name_; }

  private:
    std::string folder() const { return programDirectory() + "\\" + folder_; }

    const std::string folder_ = "alone-" + std::to_string(GetCurrentProcessId());
    const std::string name_ = "\\pcsc-client.exe";
};

TEST(ClientDoctorTest, TellsOfTheSystemsOwnLibrary) {
    const SimulatorProcess simulator;
    const ClientAlone client;
    const std::vector<json> findings = examine(client.program());
    EXPECT_THAT(
        complaints(findings),
        testing::ElementsAre(AllOf(testing::ContainsRegex(R"(^library: .*ystem32.*winscard\.dll)"),
                                   HasSubstr(": this is the system's own"))));
    EXPECT_THAT(texts(findings), Contains("Host Reader 0 (host)"));
}

TEST(ClientDoctorTest, MissesTheDaemon) {
    EXPECT_THAT(complaints(examine()),
                testing::ElementsAre(AllOf(HasSubstr("daemon: there is no pipe"),
                                           HasSubstr("remote readers are missing"))));
}

TEST(ClientDoctorTest, DoesNotWaitForADaemonThatDoesNotAnswer) {
    const MutePipe pipe(4);
    const ULONGLONG begin = GetTickCount64();
    EXPECT_THAT(complaints(examine()),
                testing::ElementsAre(
                    HasSubstr("daemon: the daemon does not answer the handshake within 3 seconds"),
                    HasSubstr("call: SCardEstablishContext does not return within 3 seconds")));
    const ULONGLONG duration = GetTickCount64() - begin;
    EXPECT_GE(duration, 6000U);
    EXPECT_LT(duration, 20000U);
}

TEST(ClientDoctorTest, TellsThatItMayNotOpenThePipe) {
    // Only its server may write to it.
    const MutePipe pipe(4, PIPE_ACCESS_OUTBOUND);
    EXPECT_THAT(
        complaints(examine()),
        testing::ElementsAre("daemon: this user may not open the daemon's pipe (0x00000005)"));
}

TEST(ClientDoctorTest, TellsOfABusyPipe) {
    MutePipe pipe(1);
    pipe.take();
    EXPECT_THAT(complaints(examine()),
                Contains(HasSubstr("daemon: all instances of the daemon's pipe stay taken")));
}

TEST(ClientDoctorTest, TellsWhatAnOldDaemonLacks) {
    const SimulatorProcess simulator("--protocol 1.1");
    EXPECT_THAT(complaints(examine()),
                Contains(AllOf(HasSubstr("daemon: the daemon answers, protocol version 1.1"),
                               HasSubstr("a larger buffer gives 0x80100008"))));
}

TEST(ClientDoctorTest, TellsOfADaemonWithoutReadersAndOfANameThatBothSidesHave) {
    SimulatorProcess simulator("--reader \"Host Reader 0\"");
    EXPECT_THAT(complaints(examine()), Contains(HasSubstr("readers: Host Reader 0 (both)")));
    simulator.tell("remove-reader Host Reader 0");
    simulator.waitFor("reader removed");
    EXPECT_THAT(complaints(examine()), testing::ElementsAre("daemon: the daemon has no readers"));
}

TEST(ClientDoctorTest, TellsOfMoreReadersThanTheLibraryTakes) {
    std::string readers;
    for (int reader = 100; reader < 220; ++reader) {
        readers += " --reader \"Remote Reader " + std::to_string(reader) + "\"";
    }
    const SimulatorProcess simulator(readers.substr(1));
    EXPECT_THAT(complaints(examine()),
                Contains(HasSubstr("daemon: the names of the daemon's readers are 2161 bytes")));
    setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1");
    EXPECT_THAT(complaints(examine()), testing::Not(Contains(HasSubstr("bytes"))));
}

TEST(ClientDoctorTest, TellsWhatIsWrongWithTheSettings) {
    const SimulatorProcess simulator;
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "verbose");
    setEnvironment("TEZ_PCSC_LOG_DIR", R"(C:\no such folder)");
    setEnvironment("TEZ_PCSC_ENABLE_CACHE", "no");
    setEnvironment("TEZ_PCSC_LOG_LEVL", "debug");
    setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", std::string(200, '1'));
    EXPECT_THAT(complaints(examine()),
                testing::UnorderedElementsAre(
                    HasSubstr("settings: TEZ_PCSC_LOG_LEVEL=verbose is no level"),
                    HasSubstr(R"(settings: TEZ_PCSC_LOG_DIR=C:\no such folder is no folder)"),
                    HasSubstr("settings: TEZ_PCSC_ENABLE_CACHE=no is taken for on"),
                    HasSubstr("settings: TEZ_PCSC_LOG_LEVL is none of the library's settings"),
                    HasSubstr("is longer than 127 characters and counts as not set")));
    setEnvironment("TEZ_PCSC_LOG_DIR", R"("C:\Windows")");
    EXPECT_THAT(complaints(examine()), Contains(HasSubstr("holds quotes")));
}

TEST(ClientDoctorTest, TakesSettingsThatAreRight) {
    const SimulatorProcess simulator;
    const std::filesystem::path folder = std::filesystem::temp_directory_path();
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "Error");
    setEnvironment("TEZ_PCSC_LOG_DIR", folder.string());
    setEnvironment("TEZ_PCSC_ENABLE_CACHE", "FALSE");
    setEnvironment("TEZ_PCSC_STANDARD_CALLS", "1");
    EXPECT_THAT(complaints(examine()), IsEmpty());
}

TEST(ClientDoctorTest, PrintsWhatToDo) {
    ChildProcess doctor("pcsc-client.exe", "doctor");
    EXPECT_THAT(
        doctor.readRest(),
        AllOf(HasSubstr("ok     library   "), HasSubstr("WRONG  daemon    there is no pipe"),
              HasSubstr("\r\n                 what to do: start the daemon")));
    EXPECT_THAT(doctor.waitForEnd(kPatience), Optional(1U));
}

}  // namespace
}  // namespace tez::test
