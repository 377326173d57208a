#include "readers/local_half.h"

#include <cstring>
#include <new>

#include "local/winscard_table.h"

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

void LocalHalf::prepare(const SideEntries& entries) {
    indexes_ = entries.indexes;
    copies_.reserve(indexes_.size());
    for (const DWORD index : indexes_) {
        SCARD_READERSTATEA copy = entries.states[index];
        if (isPnpReader(copy.szReader)) {
            copy.dwCurrentState = withoutOthersReaders(copy.dwCurrentState, entries.othersReaders);
        }
        copies_.push_back(copy);
    }
}

void LocalHalf::startOnWorker() {
    names_.reserve(copies_.size());
    for (SCARD_READERSTATEA& copy : copies_) {
        copy.szReader = names_.emplace_back(copy.szReader).c_str();
    }
    if (!isEmpty() && !runOnWorker(*this)) {
        throw std::bad_alloc();
    }
    isOnWorker_ = !isEmpty();
}

void LocalHalf::runHere() noexcept {
    if (!isOnWorker_ && !isEmpty() && !wait_.isLocalOver()) {
        wait(timeout_, true);
    } else if (isOnWorker_ && withdrawFromWorkers(*this)) {
        wait(deadline_.remaining(), true);
    }
}

void LocalHalf::wait(DWORD timeout, bool isOwnThread) noexcept {
    logStates("LOCAL READER STATE");
    result_ = waitInSystem(timeout, isOwnThread);
    wait_.markLocalOver();
}

LONG LocalHalf::waitInSystem(DWORD timeout, bool isOwnThread) noexcept {
    for (;; timeout = deadline_.remaining()) {
        const LocalStart start = wait_.beginLocal(systemContext_, isOwnThread);
        LONG rv = SCARD_E_CANCELLED;
        if (start != LocalStart::Refuse) {
            rv = callSystem(&WinscardTable::SCardGetStatusChangeA, systemContext_,
                            start == LocalStart::Ask ? 0 : timeout, copies_.data(),
                            static_cast<DWORD>(copies_.size()));
        }
        const HalfEnd end = wait_.endLocal();
        if (end.orders.isInterrupted) {
            return SCARD_E_TIMEOUT;
        }
        if (rv != SCARD_E_CANCELLED || !end.isForAnotherWait) {
            return rv;
        }
    }
}

void LocalHalf::merge(SCARD_READERSTATEA* entries) const {
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

void LocalHalf::logStates(const char* title) const noexcept {
    for (std::size_t i = 0; i < copies_.size(); ++i) {
        const SCARD_READERSTATEA& copy = copies_[i];
        logReaderState(localLog, title, indexes_[i], copy.szReader, copy.dwCurrentState,
                       copy.dwEventState, copy.cbAtr);
    }
}

}  // namespace tez
