#include "run.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "child_process.h"
#include "client.h"
#include "environment.h"
#include "judge.h"
#include "random.h"
#include "report.h"

namespace tez::soak {
namespace {

using test::ChildProcess;

constexpr Milliseconds kLookInterval = 50;
constexpr Milliseconds kSampleInterval = 1000;
/// The daemon is disturbed for a time, and then left alone for long enough to see that nothing
/// that happened before is still untold.
constexpr Milliseconds kStorm = 20000;
constexpr Milliseconds kLull = 15000;
/// Of the clients some live for as long as the run does, so that growth can be seen; the others end
/// in the middle and are started anew.
constexpr std::size_t kLongLived = 2;

/// In shorter runs nothing can be said about growth.
constexpr double kLeastMinutesForGrowth = 2;
/// A run may end with so much more than its warm-up did, as blocks of different sizes divide the
/// heap and threads come and go with the load.
constexpr Holdings kTolerance = {.memory = 2, .handles = 16, .threads = 6};

/// The reader's state has room for the lower half of an event's number only. In a run of hours that
/// begins at 0 again; so that shorter ones see it, too, so many events count as past.
constexpr std::uint32_t kPastEvents = 0xFFF0;

class Run {
  public:
    explicit Run(const Options& options)
        : options_(options),
          boardName_("tez-soak-" + std::to_string(GetCurrentProcessId())),
          board_(boardName_),
          random_({options.seed, 0}) {
        board_->seed = options.seed;
        board_->patience = Milliseconds{options.patience} * 1000;
        board_->remote.count = kPastEvents;
    }

    bool go();

  private:
    Milliseconds age() const { return now() - begin_; }
    void startDaemon();
    void tellDaemon(const std::string& command);
    void awaitDaemon(std::uint64_t acknowledged);
    void startClient(std::size_t index);
    void endClient(std::size_t index);
    void disturbDaemon();
    void storm();
    void look();
    void sample();
    void settle();
    void stop();
    void judgeGrowth();

    const Options options_;
    const std::string boardName_;
    Board board_;
    Random random_;
    PatientClock clock_;
    Results results_;
    std::unique_ptr<ChildProcess> daemon_;
    std::array<std::unique_ptr<ChildProcess>, kClients> clients_;
    Milliseconds begin_ = 0;
    Milliseconds sampled_ = 0;
};

void Run::awaitDaemon(std::uint64_t acknowledged) {
    const Milliseconds begin = now();
    while (board_->daemonReady < acknowledged) {
        if (!daemon_->isRunning() || now() - begin > kHung) {
            throw std::runtime_error("the daemon of the test has ended, or does not listen");
        }
        Sleep(1);
    }
}

void Run::startDaemon() {
    const std::uint64_t acknowledged = board_->daemonReady + 1;
    daemon_ = std::make_unique<ChildProcess>("soak.exe", "daemon " + boardName_);
    awaitDaemon(acknowledged);
}

void Run::tellDaemon(const std::string& command) {
    const std::uint64_t acknowledged = board_->daemonReady + 1;
    daemon_->writeLine(command);
    awaitDaemon(acknowledged);
}

void Run::startClient(std::size_t index) {
    board_->clients[index].clearProcess();
    test::setEnvironment("TEZ_PCSC_STANDARD_CALLS", wantsStandardAnswers(index) ? "1" : "");
    clients_[index] = std::make_unique<ChildProcess>(
        "soak.exe", "client " + boardName_ + " " + std::to_string(index) + " " +
                        std::to_string(GetCurrentProcessId()));
}

void Run::endClient(std::size_t index) {
    ClientBoard& client = board_->clients[index];
    if (client.process == 0) {
        return;  // it has not begun yet
    }
    client.process = 0;
    if (random_.below(2) == 0) {
        clients_[index]->kill();
        ++results_.clientsKilled;
    } else {
        client.mustExit = true;
        const std::optional<DWORD> code =
            clients_[index]->waitForEnd(std::chrono::milliseconds(kHung));
        if (code != kEndedInTheMiddle) {
            throw std::runtime_error("client " + std::to_string(index) + " was told to end and " +
                                     (code ? "crashed with code " + std::to_string(*code)
                                      : client.isExiting ? "hangs in its process end"
                                                         : "hangs: " + activitiesOf(client)));
        }
        ++results_.clientsExited;
    }
    startClient(index);
}

void Run::disturbDaemon() {
    board_->stableSince = 0;
    const auto after = [&](const std::string& command, unsigned most) {
        return command + " " + std::to_string(random_.below(most));
    };
    switch (random_.below(5)) {
        case 0:
            daemon_->kill();
            random_.pause(0, 500);
            startDaemon();
            ++results_.daemonsKilled;
            break;
        case 1:
            tellDaemon(after("restart", 500));
            ++results_.daemonsRestarted;
            break;
        case 2:
            tellDaemon(after("hang", 1500));
            ++results_.daemonsHung;
            board_->connectionsLost = now();
            break;
        case 3:
            tellDaemon("restart 0");
            ++results_.daemonsRestarted;
            break;
        default:
            tellDaemon("drop");
            ++results_.connectionsLost;
            board_->connectionsLost = now();
            break;
    }
    board_->stableSince = now();
}

void Run::sample() {
    std::array<DWORD, kClients> processes = {};
    std::ranges::transform(board_->clients, processes.begin(),
                           [](const ClientBoard& client) { return client.process.load(); });
    Sample sample = {.seconds = static_cast<double>(age()) / 1000, .clients = {}};
    std::ranges::copy(holdingsOf(processes), sample.clients.begin());
    results_.samples.push_back(sample);
    sampled_ = age();
}

void Run::look() {
    clock_.look();
    for (std::size_t i = 0; i < kClients; ++i) {
        if (!clients_[i]->isRunning()) {
            throw std::runtime_error("client " + std::to_string(i) + " crashed with code " +
                                     std::to_string(clients_[i]->waitForEnd({}).value_or(0)));
        }
        if (board_->clients[i].crossed != 0) {
            throw std::runtime_error("client " + std::to_string(i) +
                                     " got an answer of another call");
        }
    }
    if (const auto lost = findLost(*board_, clock_)) {
        ++results_.lost;
        throw std::runtime_error(*lost);
    }
    if (const auto hung = findHung(*board_, clock_)) {
        throw std::runtime_error(*hung);
    }
    results_.seconds = static_cast<double>(age()) / 1000;
    if (age() - sampled_ >= kSampleInterval) {
        sample();
        if (options_.showsProgress) {
            std::cout << '\r' << progressLine(*board_, results_) << "  " << std::flush;
        }
    }
}

void Run::storm() {
    const auto end = static_cast<Milliseconds>(options_.minutes * 60000);
    Milliseconds disturbance = 1000;
    Milliseconds clientsEnd = 1000;
    while (age() < end) {
        Sleep(kLookInterval);
        look();
        if (age() >= disturbance && age() % (kStorm + kLull) < kStorm) {
            disturbDaemon();
            disturbance = age() + random_.between(200, 3000);
        }
        if (age() >= clientsEnd) {
            endClient(random_.between(kLongLived, kClients - 1));
            clientsEnd = age() + random_.between(500, 5000);
        }
    }
}

/// All events must be told in the end.
void Run::settle() {
    board_->isCalm = true;
    const auto isAlive = [](const ClientBoard& client) { return client.process != 0; };
    for (const Milliseconds begin = now();
         !std::ranges::all_of(board_->clients, isAlive) || !isAllTold(*board_);) {
        Sleep(kLookInterval);
        look();
        if (now() - begin > board_->patience + kHung) {
            throw std::runtime_error("the clients do not come to rest");
        }
    }
}

void Run::stop() {
    board_->isOver = true;
    for (std::size_t i = 0; i < kClients; ++i) {
        const std::optional<DWORD> code = clients_[i]->waitForEnd(std::chrono::milliseconds(kHung));
        if (code != 0U) {
            throw std::runtime_error("client " + std::to_string(i) + " does not end well: " +
                                     (code ? "code " + std::to_string(*code)
                                           : "it hangs: " + activitiesOf(board_->clients[i])));
        }
    }
}

void Run::judgeGrowth() {
    if (options_.minutes < kLeastMinutesForGrowth) {
        return;
    }
    const auto judge = [&](std::size_t client, double Holdings::*what, const char* name) {
        std::vector<double> series;
        for (const Sample& sample : results_.samples) {
            series.push_back(sample.clients[client].*what);
        }
        if (growsSteadily(series, kTolerance.*what)) {
            results_.failures.push_back("client " + std::to_string(client) + " has more and more " +
                                        name);
        }
    };
    for (std::size_t client = 0; client < kLongLived; ++client) {
        judge(client, &Holdings::memory, "memory");
        judge(client, &Holdings::handles, "handles");
        judge(client, &Holdings::threads, "threads");
    }
}

bool Run::go() {
    begin_ = now();
    try {
        startDaemon();
        board_->stableSince = now();
        for (std::size_t i = 0; i < kClients; ++i) {
            startClient(i);
        }
        storm();
        settle();
        stop();
    } catch (const std::exception& failure) {
        // Of a process that cannot be started the figures up to then are told, too.
        results_.failures.emplace_back(failure.what());
    }
    judgeGrowth();
    if (options_.showsProgress) {
        std::cout << "\n";
    }
    print(std::cout, *board_, results_);
    if (!options_.json.empty()) {
        write(options_.json, *board_, results_);
    }
    return results_.failures.empty();
}

}  // namespace

bool run(const Options& options) {
    return Run(options).go();
}

}  // namespace tez::soak
