#include "doctor/daemon_check.h"

#include "daemon_probe.h"
#include "doctor/settings_check.h"
#include "hex.h"

namespace tez::client {
namespace {

constexpr std::chrono::seconds kPatience{3};
constexpr std::size_t kMostNames = 2048;  ///< bytes that the library takes without standard answers

Finding notServing(const DaemonProbe& probe) {
    switch (probe.state) {
        case DaemonState::kAbsent:
            return wrong("daemon",
                         R"(there is no pipe \\.\pipe\tez-pcscd-0: the daemon does not run, )"
                         "remote readers are missing",
                         "start the daemon, or connect the remote session anew; programs that run "
                         "find it by themselves");
        case DaemonState::kDenied:
            return wrong("daemon", "this user may not open the daemon's pipe (0x00000005)",
                         "run the program as the user of the remote session, or let the daemon "
                         "admit this user to its pipe");
        case DaemonState::kBusy:
            return wrong("daemon", "all instances of the daemon's pipe stay taken for 3 seconds",
                         "let the daemon offer another instance as soon as one is connected, or "
                         "find the program that holds many");
        case DaemonState::kSilent:
            return probe.hasVersion
                       ? wrong("daemon", "the daemon does not tell its readers within 3 seconds",
                               "look at the daemon's own log")
                       : wrong("daemon",
                               "the daemon does not answer the handshake within 3 seconds: the "
                               "first call of every program waits for it without end",
                               "start the daemon anew; programs go on as soon as its pipe closes");
        case DaemonState::kBroken:
            return wrong("daemon", "the daemon closes the pipe, or answers with nonsense",
                         "look at the daemon's own log; something else may serve this pipe");
        default:
            return wrong("daemon",
                         "the daemon's pipe cannot be opened: 0x" + formatDigits(probe.error, 8),
                         "look the system's error code up");
    }
}

Finding checkVersion(const DaemonProbe& probe) {
    const std::string text = "the daemon answers, protocol version " + std::to_string(probe.major) +
                             "." + std::to_string(probe.minor);
    std::string lacks;
    const auto lack = [&](std::uint32_t minor, const char* what) {
        if (!probe.isVersionAtLeast(1, minor)) {
            lacks.append(lacks.empty() ? "" : "; ").append(what);
        }
    };
    lack(1, "reader states after a wait that failed");
    lack(2,
         "attributes of more than 264 bytes (a larger buffer gives 0x80100008), transmit counts, "
         "the remote card database, cache and icons");
    lack(3, "commands of more than 65548 bytes");
    return lacks.empty() ? right("daemon", text)
                         : wrong("daemon", text + ", an old one; it lacks: " + lacks,
                                 "update the software of the remote session");
}

}  // namespace

Findings checkDaemon() {
    const DaemonProbe probe = probeDaemon(kPatience);
    Findings findings;
    if (probe.hasVersion) {
        findings.push_back(checkVersion(probe));
    }
    if (probe.state != DaemonState::kServing) {
        findings.push_back(notServing(probe));
        return findings;
    }
    if (probe.listSize > kMostNames && !areStandardCallsSet()) {
        findings.push_back(wrong("daemon",
                                 "the names of the daemon's readers are " +
                                     std::to_string(probe.listSize) +
                                     " bytes, of which the library takes " +
                                     std::to_string(kMostNames) + " at most, and else none",
                                 "set TEZ_PCSC_STANDARD_CALLS to 1, with which it takes 65536"));
        return findings;
    }
    std::string text;
    for (const std::string& name : probe.readers) {
        text.append(text.empty() ? "the daemon's readers: " : ", ").append(name);
    }
    findings.push_back(text.empty()
                           ? wrong("daemon", "the daemon has no readers",
                                   "plug a reader in at the remote user's machine, and see that "
                                   "its session passes smart cards on")
                           : right("daemon", text));
    return findings;
}

}  // namespace tez::client
