#include "readers/known_readers.h"

#include <algorithm>
#include <utility>

#include "context/context_registry.h"

namespace tez {

void KnownReaders::compareNames(std::vector<std::string> names, const ReaderCounts& counts) {
    std::sort(names.begin(), names.end());
    hasNewNames_ = names != *told_.names;
    if (!hasNewNames_) {
        told_.counts = counts;
    }
}

bool KnownReaders::isNews(DWORD state, DWORD count) const noexcept {
    if (const DWORD told = state >> 16) {
        return count != told;
    }
    if (told_.counts) {
        return count != told_.counts->sum();
    }
    return told_.names ? hasNewNames_ : count != 0;
}

void tellReaders(SCARDCONTEXT context, ToldReaders told) {
    noteToldReaders(context, std::move(told));
    // A release forgets what was told behind the context: here is seen what came too late for it.
    if (!isContextKnown(context)) {
        forgetToldReaders(context);
    }
}

}  // namespace tez
