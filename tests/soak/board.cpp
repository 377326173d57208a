#include "board.h"

#include <chrono>
#include <stdexcept>

namespace tez::soak {

Milliseconds now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

const char* nameOf(Call call) {
    static constexpr const char* kNames[] = {"SCardEstablishContext", "SCardReleaseContext",
                                             "SCardListReaders",      "SCardGetStatusChange",
                                             "SCardCancel",           "SCardConnect",
                                             "SCardReconnect",        "SCardDisconnect",
                                             "SCardBeginTransaction", "SCardEndTransaction",
                                             "SCardStatus",           "SCardTransmit",
                                             "SCardControl",          "SCardAccessStartedEvent"};
    static_assert(std::size(kNames) == static_cast<std::size_t>(Call::kCount));
    return kNames[static_cast<std::size_t>(call)];
}

void ClientBoard::clearProcess() {
    process = 0;
    born = 0;
    host.count = 0;
    for (auto& context : contexts) {
        context = 0;
    }
    for (Waiter& waiter : waiters) {
        waiter.context = 0;
        waiter.since = 0;
        waiter.hostKnown = 0;
        waiter.remoteKnown = 0;
        waiter.cancelled = 0;
    }
    for (Activity& activity : activities) {
        activity.since = 0;
    }
    mustExit = false;
    isExiting = false;
}

Board::Board(const std::string& name)
    : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                  sizeof(BoardContent), name.c_str())),
      content_(static_cast<BoardContent*>(
          MapViewOfFile(mapping_.get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(BoardContent)))) {
    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
    if (content_ == nullptr) {
        throw std::runtime_error("no shared memory " + name);
    }
}

Board::~Board() {
    UnmapViewOfFile(content_);
}

}  // namespace tez::soak
