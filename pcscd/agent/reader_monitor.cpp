#include "agent/reader_monitor.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <utility>

#include "agent/log.h"
#include "agent/service_context.h"

namespace tez::agent {
namespace {

constexpr std::chrono::milliseconds kServiceRetry{200};
// What the service tells of the readers' comings is no more than a reason to look; a reader that it
// did not tell of is seen after this time.
constexpr DWORD kLookAgain = 2000;

/// The names of all readers; nullopt when the service is not there.
std::optional<std::vector<std::string>> listReaders(SCARDCONTEXT context) {
    std::vector<std::string> names;
    DWORD size = 0;
    LONG result = SCardListReaders(context, nullptr, nullptr, &size);
    std::string list;
    if (result == SCARD_S_SUCCESS) {
        list.resize(size);
        result = SCardListReaders(context, nullptr, list.data(), &size);
    }
    if (result == SCARD_E_NO_READERS_AVAILABLE) {
        return names;
    }
    if (result == SCARD_E_INSUFFICIENT_BUFFER) {  // one came between the two calls
        return listReaders(context);
    }
    if (result != SCARD_S_SUCCESS) {
        return std::nullopt;
    }
    for (const char* name = list.c_str(); *name != '\0'; name += names.back().size() + 1) {
        names.emplace_back(name);
    }
    return names;
}

constexpr DWORD kChanged = SCARD_STATE_CHANGED;

struct WatchedReader {
    std::string name;
    DWORD state = SCARD_STATE_UNAWARE;
    pcscd::Bytes atr = {};
};

/// Keeps what is known of the readers that are still there, and takes in the new ones.
void follow(std::vector<WatchedReader>& readers, const std::vector<std::string>& names) {
    std::vector<WatchedReader> followed;
    for (const std::string& name : names) {
        const auto known = std::ranges::find(readers, name, &WatchedReader::name);
        followed.push_back(known == readers.end() ? WatchedReader{name} : *known);
    }
    readers = std::move(followed);
}

std::vector<MonitoredReader> observed(const std::vector<WatchedReader>& readers) {
    std::vector<MonitoredReader> all;
    for (const WatchedReader& reader : readers) {
        const auto state = static_cast<std::uint32_t>(reader.state);
        all.push_back({reader.name,
                       {state & 0xFFFF & ~pcscd::state::kChanged,
                        state >> pcscd::state::kCounterShift, reader.atr}});
    }
    return all;
}

}  // namespace

ReaderMonitor::ReaderMonitor(Publish publish)
    : publish_(std::move(publish)), thread_([this] { run(); }) {}

ReaderMonitor::~ReaderMonitor() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
    // A cancel for a wait that has not begun yet is lost.
    while (waiting_) {
        SCardCancel(*waiting_);
        changed_.wait_for(lock, std::chrono::milliseconds(10));
    }
    lock.unlock();
    thread_.join();
}

bool ReaderMonitor::stopping() const {
    const std::scoped_lock lock(mutex_);
    return stopping_;
}

void ReaderMonitor::awaitFirst() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return published_; });
}

void ReaderMonitor::run() {
    // Signals are for the program's own threads.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    bool told = false;
    while (!stopping()) {
        if (const ServiceContext context; context) {
            logLine("the PC/SC service is there");
            watch(context.get());
            told = false;
        }
        publish_({});
        std::unique_lock lock(mutex_);
        published_ = true;
        if (!std::exchange(told, true) && !stopping_) {
            logLine("the PC/SC service is not there");
        }
        changed_.notify_all();
        changed_.wait_for(lock, kServiceRetry, [this] { return stopping_; });
    }
}

/// Returns when the service has gone or the monitor is to stop.
void ReaderMonitor::watch(SCARDCONTEXT context) {
    std::vector<WatchedReader> readers;
    bool first = true;
    while (!stopping()) {
        const std::optional<std::vector<std::string>> names = listReaders(context);
        if (!names) {
            return;
        }
        follow(readers, *names);
        std::vector<SCARD_READERSTATE> states(readers.size());
        for (std::size_t i = 0; i < readers.size(); ++i) {
            states[i].szReader = readers[i].name.c_str();
            states[i].dwCurrentState = readers[i].state;
        }
        // There is no room for more than these, and then no further reader can come.
        if (states.size() < PCSCLITE_MAX_READERS_CONTEXTS) {
            states.emplace_back().szReader = pcscd::kPnpReader;
        }
        {
            const std::scoped_lock lock(mutex_);
            if (stopping_) {
                return;
            }
            waiting_ = context;
        }
        const LONG result =
            SCardGetStatusChange(context, first ? 0 : kLookAgain, states.data(), states.size());
        {
            const std::scoped_lock lock(mutex_);
            waiting_.reset();
            changed_.notify_all();
        }
        if (result == SCARD_E_UNKNOWN_READER) {
            continue;  // it went between the two calls
        }
        if (result != SCARD_S_SUCCESS && result != SCARD_E_TIMEOUT) {
            return;
        }
        for (std::size_t i = 0; i < readers.size(); ++i) {
            readers[i].state = states[i].dwEventState & ~kChanged;
            readers[i].atr.assign(states[i].rgbAtr, states[i].rgbAtr + states[i].cbAtr);
        }
        publish_(observed(readers));
        if (std::exchange(first, false)) {
            const std::scoped_lock lock(mutex_);
            published_ = true;
            changed_.notify_all();
        }
    }
}

}  // namespace tez::agent
