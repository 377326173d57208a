#include "state/reader_names.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "common/multi_string.h"
#include "common/never_destroyed.h"
#include "common/slim_lock.h"

namespace tez {

namespace {

using NameList = std::vector<std::string>;

struct ReaderNames {
    SlimLock readerListMutex;
    NameList localReaderNames TEZ_GUARDED_BY(readerListMutex);
    NameList remoteReaderNames TEZ_GUARDED_BY(readerListMutex);
    std::atomic<bool> listReadersCalled = false;
    bool isLocalUntold TEZ_GUARDED_BY(readerListMutex) = false;
    ReaderListing currentListing TEZ_GUARDED_BY(readerListMutex) = 0;
};

constinit NeverDestroyed<ReaderNames> names;

/// Swaps a new list in; the old one is freed after the lock has been given back.
void replace(NameList ReaderNames::*list, NameList fresh) noexcept {
    const SlimGuard guard(names->readerListMutex);
    std::swap((*names).*list, fresh);
}

NameList parse(std::string_view multiString) {
    NameList list;
    forEachName(multiString, [&list](std::string_view name) { list.emplace_back(name); });
    return list;
}

NameList copy(NameList ReaderNames::*list) {
    const SlimGuard guard(names->readerListMutex);
    return (*names).*list;
}

}  // namespace

void setLocalReaderNames(std::string_view multiString) {
    NameList fresh = parse(multiString);
    const SlimGuard guard(names->readerListMutex);
    names->isLocalUntold = false;
    std::swap(names->localReaderNames, fresh);
}

void setRemoteReaderNames(std::string_view multiString) {
    replace(&ReaderNames::remoteReaderNames, parse(multiString));
}

void forgetLocalReaderNames() noexcept {
    NameList old;
    const SlimGuard guard(names->readerListMutex);
    // As one: a listing that came between would be taken for one that is up to date.
    names->listReadersCalled.exchange(false);
    ++names->currentListing;
    names->isLocalUntold = false;
    std::swap(names->localReaderNames, old);
}

void forgetRemoteReaderNames() noexcept {
    replace(&ReaderNames::remoteReaderNames, {});
}

void markLocalReaderNamesUntold() noexcept {
    const SlimGuard guard(names->readerListMutex);
    names->isLocalUntold = true;
}

bool areLocalReaderNamesUntold() noexcept {
    const SlimGuard guard(names->readerListMutex);
    return names->isLocalUntold;
}

ReaderListing currentReaderListing() noexcept {
    const SlimGuard guard(names->readerListMutex);
    return names->currentListing;
}

void markListReadersCalled(ReaderListing listing) noexcept {
    const SlimGuard guard(names->readerListMutex);
    if (listing == names->currentListing) {
        names->listReadersCalled.exchange(true);
    }
}

bool wasListReadersCalled() noexcept {
    return names->listReadersCalled;
}

std::vector<ReaderSide> findReaderSides(const std::vector<std::string_view>& readers) {
    std::vector<ReaderSide> sides;
    sides.reserve(readers.size());
    const auto isIn = [](const NameList& list, std::string_view name) {
        return std::find(list.begin(), list.end(), name) != list.end();
    };
    const SlimGuard guard(names->readerListMutex);
    for (const std::string_view name : readers) {
        if (isIn(names->localReaderNames, name)) {
            sides.push_back(ReaderSide::Local);
        } else {
            sides.push_back(isIn(names->remoteReaderNames, name) ? ReaderSide::Remote
                                                                 : ReaderSide::Neither);
        }
    }
    return sides;
}

std::vector<std::string> copyLocalReaderNames() {
    return copy(&ReaderNames::localReaderNames);
}

std::vector<std::string> copyRemoteReaderNames() {
    return copy(&ReaderNames::remoteReaderNames);
}

}  // namespace tez
