#include "state/told_readers.h"

#include <map>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"

namespace tez {

namespace {

struct ToldReadersTable {
    SlimLock lock;
    std::map<SCARDCONTEXT, ToldReaders> entries TEZ_GUARDED_BY(lock);
};

constinit NeverDestroyed<ToldReadersTable> table;

}  // namespace

ToldReaders getToldReaders(SCARDCONTEXT context) {
    const SlimGuard guard(table->lock);
    const auto found = table->entries.find(context);
    return found == table->entries.end() ? ToldReaders{} : found->second;
}

void noteToldReaders(SCARDCONTEXT context, ToldReaders told) {
    const SlimGuard guard(table->lock);
    table->entries.insert_or_assign(context, std::move(told));
}

void forgetToldReaders(SCARDCONTEXT context) noexcept {
    const SlimGuard guard(table->lock);
    table->entries.erase(context);
}

}  // namespace tez
