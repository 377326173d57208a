#include "daemon.h"

#include <iostream>
#include <sstream>
#include <thread>

#include "daemon_simulator.h"
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

void moveCard(Board& board, SimulatedService& service, DaemonSimulator& daemon) {
    const VirtualCard card = makeTaggedCard(kRemoteReader);
    Random random({board->seed, 1, board->remote.count});
    for (;;) {
        random.pauseBetweenEvents();
        daemon.clearRecords();
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

void carryOut(const std::string& line, DaemonSimulator& daemon, Random& random) {
    std::istringstream words(line);
    std::string command;
    int milliseconds = 0;
    words >> command >> milliseconds;
    const std::chrono::milliseconds time(milliseconds);
    if (command == "drop") {
        const std::vector<std::uint64_t> open = daemon.openConnections();
        if (!open.empty()) {
            daemon.closeConnection(open[random.below(static_cast<unsigned>(open.size()))]);
        }
    } else if (command == "drop-all") {
        daemon.closeAllConnections();
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
    std::thread([&] { moveCard(board, service, daemon); }).detach();
    Random random({board->seed, 2, board->remote.count});
    std::string line;
    do {
        carryOut(line, daemon, random);
        ++board->daemonReady;
    } while (std::getline(std::cin, line));
    std::_Exit(0);  // the cards still move
}

}  // namespace tez::soak
