#include "context/card_handle_registry.h"

#include <memory>
#include <new>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "context/handle_table.h"

namespace tez {

namespace {

struct CardHandleEntry {
    std::uint64_t target = 0;
    SCARDCONTEXT context = 0;
    HeapPtr<char> readerName;
    bool isLocal = false;
};

struct CardHandleRegistry {
    SlimLock lock;
    HandleTable<std::unique_ptr<CardHandleEntry>> table;
};

constinit NeverDestroyed<CardHandleRegistry> cards;

HeapPtr<char> copyName(const char* name) {
    HeapPtr<char> copy(heapDuplicate(name));
    if (name != nullptr && copy == nullptr) {
        throw std::bad_alloc();
    }
    return copy;
}

/// What read(entry) returns for a known card, and a default value for an unknown one.
template <class Read>
auto readEntry(SCARDHANDLE card, Read read) {
    const SlimGuard guard(cards->lock);
    const auto* const entry = cards->table.find(card);
    return entry == nullptr ? decltype(read(**entry)){} : read(**entry);
}

}  // namespace

SCARDHANDLE registerCardHandle(std::uint64_t target, SCARDCONTEXT context, const char* readerName,
                               bool isLocal) {
    auto entry = std::make_unique<CardHandleEntry>();
    entry->target = target;
    entry->context = context;
    entry->isLocal = isLocal;
    entry->readerName = copyName(readerName);
    const SlimGuard guard(cards->lock);
    return cards->table.add(std::move(entry));
}

std::uint64_t getCardTarget(SCARDHANDLE card) noexcept {
    return readEntry(card, [](const CardHandleEntry& entry) { return entry.target; });
}

SCARDCONTEXT getCardContext(SCARDHANDLE card) noexcept {
    return readEntry(card, [](const CardHandleEntry& entry) { return entry.context; });
}

HeapPtr<char> getCardReaderName(SCARDHANDLE card) {
    return readEntry(card,
                     [](const CardHandleEntry& entry) { return copyName(entry.readerName.get()); });
}

bool isLocalCard(SCARDHANDLE card) noexcept {
    return readEntry(card, [](const CardHandleEntry& entry) { return entry.isLocal; });
}

void unregisterCardHandle(SCARDHANDLE card) noexcept {
    std::unique_ptr<CardHandleEntry> entry;
    const SlimGuard guard(cards->lock);
    cards->table.take(card, entry);
}

}  // namespace tez
