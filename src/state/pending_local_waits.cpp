#include "state/pending_local_waits.h"

#include <unordered_map>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "local/local_calls.h"

namespace tez {

namespace {

struct PendingLocalWaits {
    SlimLock mutex;
    /// A context has as many entries as it has waits; hashed by context, found again by wait.
    std::unordered_multimap<SCARDCONTEXT, StatusWait*> entries;
    std::uint64_t interruptions = 0;
};

PendingLocalWaits& pendingLocalWaits() {
    static NeverDestroyed<PendingLocalWaits> instance;
    return *instance;
}

}  // namespace

std::uint64_t countInterruptions() noexcept {
    const SlimGuard guard(pendingLocalWaits().mutex);
    return pendingLocalWaits().interruptions;
}

bool addPendingLocalWait(SCARDCONTEXT systemContext, StatusWait& wait,
                         std::uint64_t interruptions) {
    const SlimGuard guard(pendingLocalWaits().mutex);
    if (interruptions != pendingLocalWaits().interruptions) {
        return false;
    }
    pendingLocalWaits().entries.emplace(systemContext, &wait);
    return true;
}

bool removePendingLocalWait(SCARDCONTEXT systemContext, StatusWait& wait) noexcept {
    const SlimGuard guard(pendingLocalWaits().mutex);
    auto& entries = pendingLocalWaits().entries;
    const auto [first, last] = entries.equal_range(systemContext);
    for (auto entry = first; entry != last; ++entry) {
        if (entry->second == &wait) {
            entries.erase(entry);
            return true;
        }
    }
    return false;
}

void cancelPendingLocalWaits() noexcept {
    const SlimGuard guard(pendingLocalWaits().mutex);
    ++pendingLocalWaits().interruptions;
    auto& entries = pendingLocalWaits().entries;
    while (!entries.empty()) {
        const SCARDCONTEXT systemContext = entries.begin()->first;
        LocalSCardCancel(systemContext);
        const auto [first, last] = entries.equal_range(systemContext);
        for (auto entry = first; entry != last; ++entry) {
            entry->second->markInterrupted();
        }
        entries.erase(systemContext);
    }
}

}  // namespace tez
