#include "context/context_registry.h"

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "context/handle_table.h"
#include "context/remote_context.h"
#include "local/local_calls.h"
#include "log/function_log.h"

namespace tez {

namespace {

struct ContextRegistry {
    SlimLock lock;
    HandleTable<ContextEntry> table TEZ_GUARDED_BY(lock);
    std::uint64_t breaks TEZ_GUARDED_BY(lock) =
        0;  ///< how often the daemon contexts have been lost
};

constinit NeverDestroyed<ContextRegistry> contexts;

}  // namespace

SCARDCONTEXT registerContext(SCARDCONTEXT systemHandle, DWORD scope) {
    ContextEntry entry;
    entry.systemHandle = systemHandle;
    entry.scope = scope;
    const SlimGuard guard(contexts->lock);
    return contexts->table.add(entry);
}

bool isContextKnown(SCARDCONTEXT context) noexcept {
    const SharedGuard guard(contexts->lock);
    return contexts->table.find(context) != nullptr;
}

SCARDCONTEXT getLocalContext(SCARDCONTEXT context) noexcept {
    const SharedGuard guard(contexts->lock);
    const ContextEntry* const entry = contexts->table.find(context);
    return entry == nullptr ? 0 : entry->systemHandle;
}

std::optional<ContextEntry> unregisterContext(SCARDCONTEXT context) noexcept {
    const SlimGuard guard(contexts->lock);
    ContextEntry entry;
    if (!contexts->table.take(context, entry)) {
        return std::nullopt;
    }
    return entry;
}

LONG getRemoteContextVolatile(SCARDCONTEXT context, std::uint64_t& remoteContext, bool remoteFlag) {
    static constexpr FunctionLog log("getRemoteContextVolatile");
    remoteContext = NO_REMOTE_CONTEXT;
    for (;;) {
        ContextEntry copy;
        std::uint64_t breaks = 0;
        {
            const SharedGuard guard(contexts->lock);
            const ContextEntry* const entry = contexts->table.find(context);
            if (entry == nullptr) {
                return SCARD_E_INVALID_HANDLE;
            }
            copy = *entry;
            breaks = contexts->breaks;
        }
        std::uint64_t& slot = remoteFlag ? copy.remote : copy.remoteLocal;
        if (slot != NO_REMOTE_CONTEXT) {
            remoteContext = slot;
            return SCARD_S_SUCCESS;
        }
        const LONG rv = establishRemoteContext(copy.scope, slot, remoteFlag);
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
        {
            const SlimGuard guard(contexts->lock);
            if (breaks != contexts->breaks) {
                // The daemon that made it has gone since: to the next one it would mean nothing, or
                // another program's context.
                continue;
            }
            // The whole entry goes back as it was read, deliberately: what other threads changed in
            // it during the exchange is overwritten, a context that was released meanwhile stands
            // again, and of two daemon contexts made at once the later one stays. Only a system
            // context that the monitor has given it stays, as nobody else knows of that.
            const ContextEntry* const present = contexts->table.find(context);
            if (present != nullptr && copy.systemHandle == 0) {
                copy.systemHandle = present->systemHandle;
            }
            contexts->table.put(context, copy);
        }
        log.debug("Local context %Ix mapped to %s context %ld", copy.systemHandle,
                  remoteFlag ? "remote" : "remote-local", static_cast<long>(slot));
        remoteContext = slot;
        return SCARD_S_SUCCESS;
    }
}

void setContextCancelled(SCARDCONTEXT context, bool cancelled) noexcept {
    static constexpr FunctionLog log("setContextCancelled");
    const SlimGuard guard(contexts->lock);
    ContextEntry* const entry = contexts->table.find(context);
    if (entry != nullptr && entry->cancelled != cancelled) {
        log.debug("Setting ContextCancelled %Ix to %d", entry->systemHandle, cancelled ? 1 : 0);
        entry->cancelled = cancelled;
    }
}

std::uint64_t getBoundRemoteContext(SCARDCONTEXT context) noexcept {
    const SharedGuard guard(contexts->lock);
    const ContextEntry* const entry = contexts->table.find(context);
    return entry == nullptr ? NO_REMOTE_CONTEXT : entry->remote;
}

std::uint64_t currentDaemon() noexcept {
    const SlimGuard guard(contexts->lock);
    return contexts->breaks;
}

void invalidateRemoteContexts() noexcept {
    static constexpr FunctionLog log("invalidateRemoteContexts");
    const SlimGuard guard(contexts->lock);
    ++contexts->breaks;
    contexts->table.forEach([](std::uint64_t context, ContextEntry& entry) {
        entry.remote = NO_REMOTE_CONTEXT;
        entry.remoteLocal = NO_REMOTE_CONTEXT;
        log.debug("Removed mapping of local context %Ix", context);
    });
}

void establishMissingLocalContexts() {
    // The one operation that calls out with the lock held: a context must not be released between
    // the look at its entry and the system context that it is given.
    const SlimGuard guard(contexts->lock);
    contexts->table.forEach([](std::uint64_t /*context*/, ContextEntry& entry) {
        SCARDCONTEXT made = 0;
        if (entry.systemHandle == 0 &&
            LocalSCardEstablishContext(entry.scope, nullptr, nullptr, &made) == SCARD_S_SUCCESS) {
            entry.systemHandle = made;
        }
    });
}

}  // namespace tez
