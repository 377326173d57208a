// With standard answers the loops of programs that were written for one set of readers see all that
// happens on both sides, soon, and rest while nothing does.
#include <algorithm>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>

#include "standard_calls.h"

namespace tez::test {
namespace {

/// Readers and whether they hold a card.
using View = std::map<std::string, bool>;

std::wstring widened(const std::string& text) {
    return {text.begin(), text.end()};
}

/// The calls of a program, in either form.
struct Program {
    SCARDCONTEXT context;
    bool isWide;

    std::vector<std::string> list() const {
        std::vector<std::string> names;
        if (!isWide) {
            LPSTR readers = nullptr;
            auto length = SCARD_AUTOALLOCATE;
            if (SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length) ==
                SCARD_S_SUCCESS) {
                names = splitMultiString(readers);
                SCardFreeMemory(context, readers);
            }
            return names;
        }
        // As programs of the wide form do: the length first.
        DWORD length = 0;
        if (SCardListReadersW(context, nullptr, nullptr, &length) != SCARD_S_SUCCESS) {
            return names;
        }
        std::wstring readers(length + 256, L'\0');
        length = static_cast<DWORD>(readers.size());
        if (SCardListReadersW(context, nullptr, readers.data(), &length) == SCARD_S_SUCCESS) {
            for (const wchar_t* name = readers.c_str(); *name != 0; name += std::wcslen(name) + 1) {
                const std::wstring text = name;
                names.emplace_back(text.begin(), text.end());
            }
        }
        return names;
    }

    struct Entry {
        std::string name;
        DWORD current = 0;
        DWORD event = 0;
    };

    LONG wait(DWORD timeout, std::vector<Entry>& entries) const {
        const auto number = static_cast<DWORD>(entries.size());
        if (!isWide) {
            std::vector<SCARD_READERSTATEA> states;
            states.reserve(number);
            for (const Entry& entry : entries) {
                states.push_back(readerState(entry.name.c_str(), entry.current));
            }
            const LONG rv = SCardGetStatusChangeA(context, timeout, states.data(), number);
            for (DWORD i = 0; i < number; ++i) {
                entries[i].event = states[i].dwEventState;
            }
            return rv;
        }
        std::vector<std::wstring> names;
        names.reserve(number);
        for (const Entry& entry : entries) {
            names.push_back(widened(entry.name));
        }
        std::vector<SCARD_READERSTATEW> states(number);
        for (DWORD i = 0; i < number; ++i) {
            states[i].szReader = names[i].c_str();
            states[i].dwCurrentState = entries[i].current;
        }
        const LONG rv = SCardGetStatusChangeW(context, timeout, states.data(), number);
        for (DWORD i = 0; i < number; ++i) {
            entries[i].event = states[i].dwEventState;
        }
        return rv;
    }
};

/// What a loop knows and has met with, for the test to look at.
class Findings {
  public:
    void see(const View& view) {
        const std::lock_guard lock(mutex_);
        view_ = view;
        changed_.notify_all();
    }
    bool waitFor(const View& view) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return view_ == view; });
    }
    View view() {
        const std::lock_guard lock(mutex_);
        return view_;
    }

    std::atomic<bool> isToEnd = false;
    std::atomic<int> emptyReturns = 0;  ///< successes without a change
    std::atomic<int> errors = 0;        ///< neither a success nor a time-out nor a cancel
    std::atomic<int> returns = 0;

    bool isOver(LONG rv) {
        ++returns;
        errors += rv != SCARD_S_SUCCESS && rv != SCARD_E_TIMEOUT && rv != SCARD_E_CANCELLED ? 1 : 0;
        return isToEnd;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    View view_;
};

/// Milliseconds between two looks of the library for the daemon.
constexpr ULONGLONG kMonitorsPoll = 200;

ULONGLONG longest(const std::vector<ULONGLONG>& values) {
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

bool holdsCard(DWORD state) {
    return (state & SCARD_STATE_PRESENT) != 0;
}

/// A list of readers and the pseudo-reader behind them, whose state is always 0; the readers'
/// states are fed back, and a new list is made when the pseudo-reader says so.
void scan(const Program& program, Findings& findings, DWORD timeout, DWORD pause) {
    std::vector<Program::Entry> entries;
    bool isListOld = true;
    while (!findings.isToEnd) {
        if (isListOld) {
            entries.clear();
            for (const std::string& name : program.list()) {
                entries.push_back({name});
            }
            entries.push_back({kPnpReader});
            isListOld = false;
            if (entries.size() == 1) {
                findings.see({});
            }
        }
        const LONG rv = program.wait(timeout, entries);
        if (findings.isOver(rv)) {
            return;
        }
        if (rv == SCARD_S_SUCCESS) {
            const bool isChange =
                std::any_of(entries.begin(), entries.end(),
                            [](const auto& entry) { return (entry.event & kChanged) != 0; });
            findings.emptyReturns += isChange ? 0 : 1;
            isListOld = (entries.back().event & kChanged) != 0;
            View view;
            for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
                Program::Entry& entry = entries[i];
                entry.current = entry.event & ~kChanged;
                isListOld = isListOld || (entry.event & SCARD_STATE_UNKNOWN) != 0;
                view[entry.name] = holdsCard(entry.event);
            }
            if (!isListOld) {
                findings.see(view);
            }
        }
        Sleep(pause);
    }
}

void runScanner(const Program& program, Findings& findings) {
    scan(program, findings, 3600000, 0);
}

void runGui(const Program& program, Findings& findings) {
    scan(program, findings, INFINITE, 0);
}

void runPoller(const Program& program, Findings& findings) {
    scan(program, findings, 0, 5);
}

/// The number of readers alone, in a view of as many.
View numbered(std::size_t readers) {
    View view;
    for (std::size_t i = 0; i < readers; ++i) {
        view[std::to_string(i)] = false;
    }
    return view;
}

void runMonitor(const Program& program, Findings& findings) {
    std::vector<Program::Entry> entries{{kPnpReader}};
    for (;;) {
        const LONG rv = program.wait(INFINITE, entries);
        if (findings.isOver(rv)) {
            return;
        }
        if (rv == SCARD_S_SUCCESS) {
            const DWORD known = entries[0].event & 0xFFFF0000;
            findings.emptyReturns +=
                (entries[0].event & kChanged) == 0 && entries[0].current != 0 ? 1 : 0;
            entries[0].current = known;
            findings.see(numbered(known >> 16U));
        }
    }
}

/// One reader for ever, which is there at times.
void runService(const Program& program, Findings& findings, const char* reader) {
    std::vector<Program::Entry> entries{{reader}};
    for (;;) {
        const LONG rv = program.wait(INFINITE, entries);
        if (findings.isOver(rv)) {
            return;
        }
        if (rv == SCARD_S_SUCCESS) {
            findings.emptyReturns += (entries[0].event & kChanged) == 0 ? 1 : 0;
            const bool isGone = (entries[0].event & SCARD_STATE_UNKNOWN) != 0;
            entries[0].current = isGone ? DWORD{SCARD_STATE_UNKNOWN} : entries[0].event & ~kChanged;
            findings.see(isGone ? View{} : View{{reader, holdsCard(entries[0].event)}});
        }
    }
}

enum class Kind { Scanner, Monitor, Poller, Gui, ServiceOnHost, ServiceOnRemote };

struct Situation {
    const char* name;
    std::size_t hostReaders;
    std::size_t remoteReaders;
    bool isDaemonThere;
    bool isDaemonMoving;  ///< goes and comes, or comes and goes
    bool isWide;
    bool doesHostCountOthers;  ///< its pseudo-reader counts a reader that it does not list
};

constexpr Situation kSituations[] = {
    {"HostOnly", 1, 0, false, false, false, false},
    {"RemoteOnly", 0, 1, true, false, true, false},
    {"BothSides", 1, 1, true, false, false, false},
    {"NoReaderAtFirst", 0, 0, true, false, true, false},
    {"DaemonComingAndGoing", 1, 1, false, true, false, false},
    {"DaemonRestarting", 1, 3, true, true, true, false},
    {"DaemonWithoutReaders", 3, 0, true, true, false, false},
    {"TenReadersEach", 10, 10, true, true, false, false},
    {"HostCountingOthers", 1, 1, true, true, false, true},
};

constexpr struct {
    Kind kind;
    const char* name;
} kLoops[] = {{Kind::Scanner, "Scanner"},
              {Kind::Monitor, "Monitor"},
              {Kind::Poller, "Poller"},
              {Kind::Gui, "Gui"},
              {Kind::ServiceOnHost, "ServiceOnHost"},
              {Kind::ServiceOnRemote, "ServiceOnRemote"}};

class StandardLoop : public StandardTest,
                     public testing::WithParamInterface<std::tuple<std::size_t, std::size_t>> {
  protected:
    static constexpr const char* kUnlisted = "Unlisted Host Reader";

    StandardLoop() {
        host.pcsc().removeReader(kHostReader);
        remote.removeReader(kRemoteReader);
        for (std::size_t i = 0; i < situation().hostReaders; ++i) {
            host.pcsc().addReader("Host Reader " + std::to_string(i));
        }
        for (std::size_t i = 0; i < situation().remoteReaders; ++i) {
            remote.addReader("Remote Reader " + std::to_string(i));
        }
        if (situation().doesHostCountOthers) {
            host.pcsc().addReader(kUnlisted);
            ON_CALL(host, SCardListReadersA)
                .WillByDefault([this](SCARDCONTEXT, LPCSTR, LPSTR readers, LPDWORD length) {
                    std::string names;
                    for (const std::string& name : listedHostReaders()) {
                        names.append(name) += '\0';
                    }
                    names += '\0';
                    return names.size() == 1
                               ? SCARD_E_NO_READERS_AVAILABLE
                               : host.heap().deliver(Bytes(names.begin(), names.end()), readers,
                                                     length);
                });
        }
    }

    static const Situation& situation() { return kSituations[std::get<1>(GetParam())]; }
    static Kind kind() { return kLoops[std::get<0>(GetParam())].kind; }

    std::vector<std::string> listedHostReaders() {
        std::vector<std::string> names = host.pcsc().readers();
        names.erase(std::remove(names.begin(), names.end(), kUnlisted), names.end());
        return names;
    }

    /// What the loop is to know now.
    View actual() {
        View view;
        std::size_t number = host.pcsc().readers().size();
        for (const std::string& name : listedHostReaders()) {
            view[name] = host.pcsc().hasCard(name);
        }
        if (daemon.serving()) {
            number += remote.readers().size();
            for (const std::string& name : remote.readers()) {
                view[name] = remote.hasCard(name);
            }
        }
        switch (kind()) {
            case Kind::Monitor:
                return numbered(number);
            case Kind::ServiceOnHost:
                return only(view, kHostReader);
            case Kind::ServiceOnRemote:
                return only(view, kRemoteReader);
            default:
                return view;
        }
    }

    static View only(const View& view, const char* reader) {
        const auto found = view.find(reader);
        return found == view.end() ? View{} : View{*found};
    }

    void runLoop(const Program& program) {
        switch (kind()) {
            case Kind::Scanner:
                return runScanner(program, findings_);
            case Kind::Monitor:
                return runMonitor(program, findings_);
            case Kind::Poller:
                return runPoller(program, findings_);
            case Kind::Gui:
                return runGui(program, findings_);
            case Kind::ServiceOnHost:
                return runService(program, findings_, kHostReader);
            case Kind::ServiceOnRemote:
                return runService(program, findings_, kRemoteReader);
        }
    }

    /// Does something and waits until the loop has seen it.
    void cause(const char* what, const std::function<void()>& event, bool isDaemons = false) {
        const bool isNews = [&] {
            const View before = actual();
            event();
            return before != actual();
        }();
        const ULONGLONG start = GetTickCount64();
        caused_ += isNews ? 1 : 0;
        if (!findings_.waitFor(actual())) {
            ADD_FAILURE() << "not seen: " << what << ", event " << caused_ << "; the loop knows "
                          << testing::PrintToString(findings_.view());
            return;
        }
        seen_ += isNews ? 1 : 0;
        (isDaemons ? delaysOfDaemon_ : delays_).push_back(GetTickCount64() - start);
    }

    void toggleCards(SimulatedService& service, const std::string& reader) {
        cause("card in", [&] { service.insertCard(reader, makeDemoCard("Someone")); });
        cause("card out", [&] { service.removeCard(reader); });
    }

    void moveReader(SimulatedService& service, const std::string& reader, bool isToStay = false) {
        cause("reader in", [&] { service.addReader(reader); });
        toggleCards(service, reader);
        if (!isToStay) {
            cause("reader out", [&] { service.removeReader(reader); });
        }
    }

    void liveOn() {
        for (int round = 0; round < 2; ++round) {
            // Where it is there already, adding it is nothing, and it stays.
            moveReader(host.pcsc(), kHostReader, situation().hostReaders != 0);
            moveReader(remote, kRemoteReader, situation().remoteReaders != 0);
            moveReader(host.pcsc(), "Host Reader Z");
            moveReader(remote, "Remote Reader Z");
            if (situation().isDaemonMoving) {
                moveDaemon();
                moveDaemon();
                if (situation().remoteReaders != 0 && daemon.serving()) {
                    restartDaemon();
                }
            }
        }
    }

    /// It is there again before the library looks for it, with another card.
    void restartDaemon() {
        const auto restart = [this](const std::function<void()>& meanwhile) {
            daemon.stop();
            meanwhile();
            daemon.start();
        };
        cause(
            "daemon anew, card in",
            [&] { restart([&] { remote.insertCard(kRemoteReader, makeDemoCard("Someone")); }); },
            true);
        cause(
            "daemon anew, card out", [&] { restart([&] { remote.removeCard(kRemoteReader); }); },
            true);
    }

    void moveDaemon() {
        if (daemon.serving()) {
            cause(
                "daemon out", [&] { daemon.stop(); }, true);
        } else {
            cause(
                "daemon in", [&] { daemon.start(); }, true);
        }
    }

    /// Waits until the loop is inside of its next wait, on the sides that it concerns.
    void waitForRest() {
        const bool isNamed = kind() == Kind::ServiceOnHost || kind() == Kind::ServiceOnRemote;
        const bool isThere = isNamed && !actual().empty();
        if (!isThere || kind() == Kind::ServiceOnHost) {
            waitForHostWait();
        }
        if (daemon.serving() && (!isThere || kind() == Kind::ServiceOnRemote)) {
            waitForRemoteWait();
        }
    }

    /// Milliseconds. TEZ_LOOP_IDLE lengthens it for figures of what an idle loop costs.
    static DWORD idleTime() {
        char text[16];
        const DWORD length = GetEnvironmentVariableA("TEZ_LOOP_IDLE", text, sizeof(text));
        return length == 0 || length >= sizeof(text) ? 300 : std::stoul(text);
    }

    static ULONGLONG cpuTime() {
        FILETIME creation = {};
        FILETIME exit = {};
        FILETIME kernel = {};
        FILETIME user = {};
        GetProcessTimes(GetCurrentProcess(), &creation, &exit, &kernel, &user);
        const auto inMicroseconds = [](const FILETIME& time) {
            return ((ULONGLONG{time.dwHighDateTime} << 32U) + time.dwLowDateTime) / 10;
        };
        return inMicroseconds(kernel) + inMicroseconds(user);
    }

    Findings findings_;
    int caused_ = 0;
    int seen_ = 0;
    std::vector<ULONGLONG> delays_;  ///< in milliseconds
    std::vector<ULONGLONG> delaysOfDaemon_;
};

TEST_P(StandardLoop, SeesAllAndRestsWhileNothingHappens) {
    if (situation().isDaemonThere) {
        startDaemon();
    }
    const SCARDCONTEXT context = establish();
    if (situation().isDaemonThere) {
        waitForWatch();
    }
    std::thread loop([&] { runLoop({context, situation().isWide}); });
    std::thread canceller([&] {
        while (kind() == Kind::Gui && !findings_.isToEnd) {
            Sleep(15);
            SCardCancel(context);
        }
    });
    cause("the beginning", [] {});
    delays_.clear();
    liveOn();

    const bool isResting = kind() != Kind::Poller && kind() != Kind::Gui;
    if (isResting) {
        waitForRest();
    }
    const ULONGLONG cpuBefore = cpuTime();
    const std::size_t requestsBefore = daemon.requests().size();
    const int returnsBefore = findings_.returns;
    Sleep(idleTime());
    const std::size_t idleRequests = daemon.requests().size() - requestsBefore;
    const int idleReturns = findings_.returns - returnsBefore;
    const ULONGLONG idleCpu = cpuTime() - cpuBefore;
    if (isResting) {
        EXPECT_EQ(idleRequests, 0U);
        EXPECT_EQ(idleReturns, 0);
    }

    findings_.isToEnd = true;
    std::atomic<bool> isEnded = false;
    std::thread ender([&] {
        while (!isEnded) {
            SCardCancel(context);
            Sleep(5);
        }
    });
    loop.join();
    isEnded = true;
    ender.join();
    canceller.join();

    EXPECT_EQ(seen_, caused_);
    EXPECT_EQ(findings_.emptyReturns, 0);
    EXPECT_EQ(findings_.errors, 0);
    EXPECT_LT(median(delays_), kSoon);
    EXPECT_LT(median(delaysOfDaemon_), kSoon + kMonitorsPoll);
    std::cout << kLoops[std::get<0>(GetParam())].name << " in " << situation().name << ": seen "
              << seen_ << " of " << caused_ << ", delays of " << median(delays_) << " ms, "
              << longest(delays_) << " at most, of the daemon " << median(delaysOfDaemon_) << ", "
              << longest(delaysOfDaemon_) << " at most; returns without a change "
              << findings_.emptyReturns << "; in idle " << idleTime() << " ms " << idleReturns
              << " returns, " << idleRequests << " requests at the daemon, CPU time of "
              << idleCpu / 1000 << " ms\n";
}

INSTANTIATE_TEST_SUITE_P(Programs, StandardLoop,
                         testing::Combine(testing::Range(std::size_t{0}, std::size(kLoops)),
                                          testing::Range(std::size_t{0}, std::size(kSituations))),
                         [](const auto& test) {
                             return std::string(kLoops[std::get<0>(test.param)].name) + "In" +
                                    kSituations[std::get<1>(test.param)].name;
                         });

}  // namespace
}  // namespace tez::test
