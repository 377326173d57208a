#include "daemon.h"

#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "daemon_simulator.h"
#include "detached_thread.h"
#include "random.h"
#include "tagged_card.h"

namespace tez::soak {
namespace {

/// Puts readers and cards where the daemon before had them, with the count of its events.
void restoreReaders(SimulatedService& service, std::uint32_t events) {
    for (const char* const reader : {kRemoteReader, kRemoteCardReader, kRemoteQuietReader}) {
        service.addReader(reader);
    }
    service.insertCard(kRemoteCardReader, makeTaggedCard(kRemoteCardReader));
    const VirtualCard blank(makeAtr(protocol::kT1, "BLANK"), {});
    for (std::uint32_t event = 1; event <= (events & 0xFFFF); ++event) {
        if (event % 2 == 0) {
            service.removeCard(kRemoteReader);
        } else {
            service.insertCard(kRemoteReader, blank);
        }
    }
}

/// The connections on which something was asked. Thread-safe.
class Asked {
  public:
    /// Takes over what the daemon has on record.
    void note(DaemonSimulator& daemon) {
        const std::scoped_lock lock(mutex_);
        for (const Request& request : daemon.requests()) {
            connections_.insert(request.connection);
        }
        daemon.clearRecords();
    }

    /// Those that are still open.
    std::vector<std::uint64_t> open(DaemonSimulator& daemon) {
        note(daemon);
        const std::scoped_lock lock(mutex_);
        std::vector<std::uint64_t> open = daemon.openConnections();
        std::erase_if(open, [&](std::uint64_t each) { return !connections_.contains(each); });
        connections_ = {open.begin(), open.end()};
        return open;
    }

  private:
    std::mutex mutex_;
    std::set<std::uint64_t> connections_;
};

void moveCard(Board& board, SimulatedService& service, DaemonSimulator& daemon, Asked& asked) {
    const VirtualCard card = makeTaggedCard(kRemoteReader);
    Random random({board->seed, 1, board->remote.count});
    for (;;) {
        random.pauseBetweenEvents();
        asked.note(daemon);
        if (board->isCalm) {
            continue;
        }
        if (board->remote.beginNext() % 2 == 0) {
            service.removeCard(kRemoteReader);
        } else {
            service.insertCard(kRemoteReader, card);
        }
    }
}

void carryOut(const std::string& line, DaemonSimulator& daemon, Asked& asked, Random& random) {
    std::istringstream words(line);
    std::string command;
    int milliseconds = 0;
    words >> command >> milliseconds;
    const std::chrono::milliseconds time(milliseconds);
    if (command == "drop") {
        // Not one that watches: a program that loses it alone takes the daemon for gone, and
        // forgets contexts, with cards and transactions, which the daemon then keeps for as long as
        // it lives.
        const std::vector<std::uint64_t> open = asked.open(daemon);
        if (!open.empty()) {
            daemon.closeConnection(open[random.below(static_cast<unsigned>(open.size()))]);
        }
    } else if (command == "hang") {
        daemon.pauseReading();
        std::this_thread::sleep_for(time);
        daemon.resumeReading();
    } else if (command == "restart") {
        daemon.stop();
        std::this_thread::sleep_for(time);
        daemon.start();
    }
}

}  // namespace

int runDaemon(Board& board) {
    SimulatedService service;
    restoreReaders(service, board->remote.count);
    // A client that finds the pipe busy while the daemon dies waits for its time all the same.
    DaemonSimulator daemon(service, {.version = {}, .pipe = {.busyWait = 200}});
    daemon.start();
    Asked asked;
    runDetached([&] { moveCard(board, service, daemon, asked); });
    Random random({board->seed, 2, board->remote.count});
    std::string line;
    do {
        carryOut(line, daemon, asked, random);
        ++board->daemonReady;
    } while (std::getline(std::cin, line));
    std::_Exit(0);  // the cards still move
}

}  // namespace tez::soak
