#include <chrono>
#include <memory>

#include "commands/commands.h"
#include "doctor/call_check.h"
#include "doctor/daemon_check.h"
#include "doctor/library_check.h"
#include "doctor/patient_process.h"
#include "doctor/settings_check.h"
#include "failure.h"
#include "hex.h"

namespace tez::client {
namespace {

constexpr std::chrono::seconds kPatience{3};

class Doctor {
  public:
    explicit Doctor(Client& client) : client_(client) {}

    /// @return whether all is well.
    bool examine() {
        tell(checkUsedLibrary());
        tell(checkSettings());
        tell(checkDaemon());
        makeCalls();
        return isWell_;
    }

  private:
    void tell(const Finding& finding) {
        isWell_ = isWell_ && finding.isRight;
        std::string line = finding.isRight ? "ok     " : "WRONG  ";
        line += finding.check;
        constexpr std::size_t kTextAt = 17;
        line.resize(std::max(kTextAt, line.size() + 1), ' ');
        client_.report.line(line + finding.text);
        if (!finding.next.empty()) {
            client_.report.line(std::string(kTextAt, ' ') + "what to do: " + finding.next);
        }
        client_.report.data()["findings"].push_back(toJson(finding));
    }

    void tell(const Findings& findings) {
        for (const Finding& finding : findings) {
            tell(finding);
        }
    }

    /// Calls wait as long as a daemon or a host's service lets them, so they are made in a process
    /// that can be given up.
    void makeCalls() {
        PatientProcess process(L"doctor --calls-only");
        std::string step = "the start of the program";
        std::string line;
        for (;;) {
            switch (process.readLine(line, kPatience)) {
                case PatientProcess::Event::kLine:
                    take(line, step);
                    break;
                case PatientProcess::Event::kSilence:
                    tell(wrong("call", step + " does not return within 3 seconds",
                               "see what is said about the daemon and the host; programs hang "
                               "there, too"));
                    return;
                default:
                    if (const DWORD code = process.exitCode(); code != 0) {
                        tell(wrong("call",
                                   step + " ends the program with 0x" + formatDigits(code, 8),
                                   "report this, with a debug log"));
                    }
                    return;
            }
        }
    }

    void take(const std::string& line, std::string& step) {
        const Json json = Json::parse(line, nullptr, false);
        if (const std::optional<Finding> finding = parseFinding(json)) {
            tell(*finding);
        } else if (json.is_object() && json.contains("step")) {
            step = json["step"];
        }
    }

    Client& client_;
    bool isWell_ = true;
};

void tellCalls(Client& client) {
    client.report.useJson();
    const CallObserver observer = {
        [&client](const std::string& step) {
            client.report.event({{"step", step}});
        },
        [&client](const Finding& finding) { client.report.event(toJson(finding)); }};
    checkCalls(client.session, observer);
}

}  // namespace

void addDoctor(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("doctor", "Find out why readers are missing, and tell what to do");
    const auto callsOnly = std::make_shared<bool>(false);
    command->add_flag("--calls-only", *callsOnly)->group("");  // what the second process does
    client.report.addJsonOption(*command);
    command->callback([&client, callsOnly] {
        if (*callsOnly) {
            tellCalls(client);
        } else if (!Doctor(client).examine()) {
            throw Failure();
        }
    });
}

}  // namespace tez::client
