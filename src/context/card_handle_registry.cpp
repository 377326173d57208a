#include "context/card_handle_registry.h"

#include <new>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "context/handle_table.h"

namespace tez {

namespace {

struct CardHandleRegistry {
    SlimLock lock;
    HandleTable<std::shared_ptr<const CardHandleEntry>> table TEZ_GUARDED_BY(lock);
};

constinit NeverDestroyed<CardHandleRegistry> cards;

}  // namespace

SCARDHANDLE registerCardHandle(std::uint64_t target, SCARDCONTEXT context, const char* readerName,
                               bool isLocal, std::uint64_t daemon) {
    auto entry = std::make_shared<CardHandleEntry>();
    entry->target = target;
    entry->context = context;
    entry->isLocal = isLocal;
    entry->daemon = daemon;
    entry->readerName.reset(heapDuplicate(readerName));
    if (readerName != nullptr && entry->readerName == nullptr) {
        throw std::bad_alloc();
    }
    const SlimGuard guard(cards->lock);
    return cards->table.add(std::move(entry));
}

std::shared_ptr<const CardHandleEntry> findCardHandle(SCARDHANDLE card) noexcept {
    const SharedGuard guard(cards->lock);
    const auto* const entry = cards->table.find(card);
    return entry == nullptr ? nullptr : *entry;
}

void unregisterCardHandle(SCARDHANDLE card) noexcept {
    std::shared_ptr<const CardHandleEntry> entry;
    const SlimGuard guard(cards->lock);
    cards->table.take(card, entry);
}

}  // namespace tez
