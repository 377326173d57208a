#include "state/status_waits.h"

#include <unordered_map>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"

namespace tez {

namespace {

struct StatusWaits {
    SlimLock lock;
    std::unordered_multimap<SCARDCONTEXT, std::shared_ptr<StatusWait>> byContext;
};

StatusWaits& statusWaits() {
    static NeverDestroyed<StatusWaits> instance;
    return *instance;
}

}  // namespace

StatusWaitInProgress::StatusWaitInProgress(SCARDCONTEXT context)
    : context_(context), wait_(std::make_shared<StatusWait>()) {
    const SlimGuard guard(statusWaits().lock);
    statusWaits().byContext.emplace(context, wait_);
}

StatusWaitInProgress::~StatusWaitInProgress() {
    wait_->markEnded();
    const SlimGuard guard(statusWaits().lock);
    auto& byContext = statusWaits().byContext;
    const auto [first, last] = byContext.equal_range(context_);
    for (auto entry = first; entry != last; ++entry) {
        if (entry->second == wait_) {
            byContext.erase(entry);
            return;
        }
    }
}

std::vector<std::shared_ptr<StatusWait>> findStatusWaits(SCARDCONTEXT context) {
    std::vector<std::shared_ptr<StatusWait>> found;
    const SlimGuard guard(statusWaits().lock);
    const auto [first, last] = statusWaits().byContext.equal_range(context);
    for (auto entry = first; entry != last; ++entry) {
        found.push_back(entry->second);
    }
    return found;
}

}  // namespace tez
