#include "client.h"

#include <atomic>
#include <thread>
#include <vector>

#include "caller.h"
#include "card_use.h"
#include "system_library/host_service.h"
#include "system_library/stand_in_library.h"
#include "tagged_card.h"
#include "waiting.h"

namespace tez::soak {
namespace {

/// The host's library of this process: never destroyed, as it is called until the very end.
SimulatedService& makeHost() {
    auto* const host = new HostService;
    host->pcsc().removeCard(kHostReader);
    host->pcsc().addReader(kHostCardReader);
    host->pcsc().addReader(kHostQuietReader);
    host->pcsc().insertCard(kHostCardReader, makeTaggedCard(kHostCardReader));
    static const StandInLibrary standIn;
    standIn.setCalls(host);
    return host->pcsc();
}

void moveCard(const BoardContent& board, Events& events, SimulatedService& host, Random random) {
    const VirtualCard card = makeTaggedCard(kHostReader);
    while (!board.isOver) {
        random.pauseBetweenEvents();
        if (board.isCalm) {
            continue;
        }
        if (events.beginNext() % 2 == 0) {
            host.removeCard(kHostReader);
        } else {
            host.insertCard(kHostReader, card);
        }
    }
}

/// What the thread of this number does.
void run(std::size_t thread, Caller& caller) {
    switch (thread) {
        case kBusyWaiter:
        case kEventWaiter:
            return waitForEvents(caller, thread);
        case kQuietWaiter:
            return waitForCancels(caller);
        case 3:
            return cancelAndRelease(caller);
        case 4:
            return useRemoteCards(caller);
        case 5:
            return useHostCard(caller);
        case 6:
            return useRemoteCardAlone(caller);
        default:
            return look(caller);
    }
}

}  // namespace

int runClient(BoardContent& board, std::size_t index, HANDLE parent) {
    ClientBoard& self = board.clients[index];
    Busy busy = 0;
    const auto makeCaller = [&](std::size_t thread) {
        return Caller(board, self, thread, busy,
                      Random({board.seed, 3, GetCurrentProcessId(),
                              static_cast<std::uint32_t>(index * kThreads + thread)}));
    };
    SimulatedService& host = makeHost();
    self.host.count = 2;  // the card of the reader was in and out
    for (auto& context : self.contexts) {
        context = makeCaller(0).establish();
    }
    std::atomic<std::size_t> left = kThreads;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        moveCard(board, self.host, host, Random({board.seed, 4, GetCurrentProcessId()}));
    });
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            Caller caller = makeCaller(i);
            run(i, caller);
            --left;
        });
    }
    self.born = now();
    self.process = GetCurrentProcessId();
    while (left != 0) {
        if (WaitForSingleObject(parent, 20) == WAIT_OBJECT_0) {
            self.mustExit = true;
        }
        if (self.mustExit) {
            // With a thread inside of a wait, and with contexts and cards open. But Wine can hang
            // in its own process end when a thread is killed in the middle of a pipe read.
            while (busy != 0) {
                SCardCancel(self.contexts[kBusyWaiter]);
                SCardCancel(self.contexts[kEventWaiter]);
                Sleep(10);
            }
            self.isExiting = true;
            ExitProcess(kEndedInTheMiddle);
        }
        for (auto& context : self.contexts) {
            if (board.isOver) {
                SCardCancel(context);
            }
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (auto& context : self.contexts) {
        SCardReleaseContext(context);
    }
    return 0;
}

}  // namespace tez::soak
