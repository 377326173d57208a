#include "readers/local_wait.h"

#include <cstring>
#include <new>

#include "context/context_registry.h"
#include "local/local_calls.h"
#include "local/winscard_table.h"
#include "protocol/wait_cancel.h"
#include "state/pending_local_waits.h"
#include "state/repeat_until.h"

namespace tez {

namespace {

constexpr FunctionLog localLog("LocalSCardGetStatusChange");

/// What the pseudo-reader reports is added to what the other side wrote: the flags of both, the sum
/// of their reader counts. Nothing was cleared before, so without an answer of the other side it is
/// added to what the application passed in.
void mergePnpState(const SCARD_READERSTATEA& copy, SCARD_READERSTATEA& entry) {
    const bool isUnchanged = copy.dwEventState == 0 || copy.dwEventState == copy.dwCurrentState;
    const DWORD reported = isUnchanged ? copy.dwCurrentState : copy.dwEventState;
    entry.dwEventState |= reported & 0xFFFF;
    entry.dwEventState += reported & 0xFFFF0000;
}

}  // namespace

LocalWait::LocalWait(SCARDCONTEXT context, SCARDCONTEXT systemContext, DWORD timeout,
                     StatusWait& wait, std::uint64_t interruptions)
    : context_(context),
      systemContext_(systemContext),
      timeout_(timeout),
      wait_(wait),
      interruptions_(interruptions) {}

void LocalWait::start(const SCARD_READERSTATEA* entries, const ReaderIndexes& indexes,
                      std::size_t remoteIndexes) {
    indexes_ = indexes;
    copies_.reserve(indexes.size());
    for (const DWORD index : indexes) {
        SCARD_READERSTATEA copy = entries[index];
        if (isPnpReader(copy.szReader)) {
            copy.dwCurrentState = withoutOthersReaders(copy.dwCurrentState, remoteIndexes);
        }
        copies_.push_back(copy);
    }
    wait_.markLocalStarted();
    if (!thread_.start([this] { run(); })) {
        wait_.markLocalDone();
        throw std::bad_alloc();
    }
}

void LocalWait::run() noexcept {
    logStates("LOCAL READER STATE");
    result_ = waitInSystem();
    wait_.markLocalDone();
    // A remote half that went on alone, after the monitor has ended this one, would make the call
    // deaf to the host's readers.
    const bool endsCall =
        (result_ == SCARD_S_SUCCESS && timeout_ == INFINITE) || wait_.isInterrupted();
    if (endsCall && !wait_.isRemoteDone()) {
        cancelRemote();
    }
    logStates("NEW LOCAL READER STATE");
}

LONG LocalWait::waitInSystem() noexcept {
    try {
        if (!addPendingLocalWait(systemContext_, wait_, interruptions_)) {
            wait_.markInterrupted();
            return SCARD_E_TIMEOUT;
        }
    } catch (const std::bad_alloc&) {
        return SCARD_E_NO_MEMORY;
    }
    const LONG rv = callSystem(&WinscardTable::SCardGetStatusChangeA, systemContext_, timeout_,
                               copies_.data(), static_cast<DWORD>(copies_.size()));
    return removePendingLocalWait(systemContext_, wait_) ? rv : SCARD_E_TIMEOUT;
}

/// Ends the remote half, which has not answered yet.
void LocalWait::cancelRemote() noexcept {
    localLog.debug("canceling remote SCardGetStatusChange by invoking remote SCardCancel");
    // Ends the remote half if it still waits for a daemon context. The context's own mark does too,
    // but another wait on the context may take it back before it is seen.
    wait_.markRemoteUnwanted();
    setContextCancelled(context_, true);
    // The daemon forgets a cancel for which nothing waits, so the request goes first.
    const std::optional<std::uint64_t> remoteContext = wait_.awaitRemoteRequest();
    if (!remoteContext) {
        return;
    }
    cancelRemoteWait(localLog, *remoteContext);
    repeatUntil([this](DWORD timeout) { return wait_.awaitRemoteDone(timeout); },
                [&] {
                    localLog.debug("canceling remote SCardGetStatusChange again");
                    cancelRemoteWait(localLog, *remoteContext);
                });
}

LONG LocalWait::finish(const FunctionLog& log, bool cancelNow) {
    if (cancelNow && !wait_.isLocalDone()) {
        log.debug("canceling local SCardGetStatusChange by invoking local SCardCancel");
        LocalSCardCancel(systemContext_);
    }
    // Until the library itself has cancelled the local wait there is nothing to repeat here.
    if (cancelNow || !wait_.awaitLocalDoneOrInterrupted()) {
        repeatUntil([this](DWORD limit) { return wait_.awaitLocalDone(limit); },
                    [&] {
                        log.debug("canceling local SCardGetStatusChange again");
                        LocalSCardCancel(systemContext_);
                    });
    }
    thread_.join();
    return result_;
}

void LocalWait::merge(SCARD_READERSTATEA* entries) const {
    for (std::size_t i = 0; i < copies_.size(); ++i) {
        const SCARD_READERSTATEA& copy = copies_[i];
        SCARD_READERSTATEA& entry = entries[indexes_[i]];
        if (isPnpReader(copy.szReader)) {
            mergePnpState(copy, entry);
        } else {
            entry.dwEventState = copy.dwEventState;
            entry.cbAtr = copy.cbAtr;
            std::memcpy(entry.rgbAtr, copy.rgbAtr, sizeof(entry.rgbAtr));
        }
    }
}

void LocalWait::logStates(const char* title) const {
    for (std::size_t i = 0; i < copies_.size(); ++i) {
        const SCARD_READERSTATEA& copy = copies_[i];
        logReaderState(localLog, title, indexes_[i], copy.szReader, copy.dwCurrentState,
                       copy.dwEventState, copy.cbAtr);
    }
}

}  // namespace tez
