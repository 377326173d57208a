#include "heap_spy.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "system_test.h"

namespace tez::test {

HeapSpy::HeapSpy(Threads watched)
    : watched_(watched),
      thread_(GetCurrentThreadId()),
      malloc_(libraryModule(), "msvcrt.dll", "malloc",
              [this](std::size_t size) {
                  return isRefused(size) ? nullptr : noteTaken(std::malloc(size), size);
              }),
      free_(libraryModule(), "msvcrt.dll", "free", [this](void* block) {
          noteFreed(block);
          std::free(block);
      }) {}

std::size_t HeapSpy::outstanding() const {
    const std::scoped_lock lock(mutex_);
    return taken_.size();
}

std::size_t HeapSpy::outstanding(std::size_t size) const {
    const std::scoped_lock lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        taken_.begin(), taken_.end(), [size](const auto& block) { return block.second == size; }));
}

bool HeapSpy::wasFreed(const void* block) const {
    const std::scoped_lock lock(mutex_);
    return freed_.contains(block);
}

void HeapSpy::refuse(std::size_t size) {
    const std::scoped_lock lock(mutex_);
    refused_ = size;
}

void HeapSpy::refuseNth(std::size_t n) {
    const std::scoped_lock lock(mutex_);
    untilRefusal_ = n;
}

bool HeapSpy::stopRefusing() {
    const std::scoped_lock lock(mutex_);
    refused_.reset();
    untilRefusal_ = 0;
    return std::exchange(hasRefused_, false);
}

void* HeapSpy::noteTaken(void* block, std::size_t size) {
    if (block != nullptr && isWatchedThread()) {
        const std::scoped_lock lock(mutex_);
        taken_[block] = size;
        freed_.erase(block);
    }
    return block;
}

void HeapSpy::noteFreed(void* block) {
    const std::scoped_lock lock(mutex_);
    taken_.erase(block);
    if (isWatchedThread()) {
        freed_.insert(block);
    }
}

bool HeapSpy::isRefused(std::size_t size) {
    if (!isOwnThread()) {
        return false;
    }
    const std::scoped_lock lock(mutex_);
    const bool isRefused = refused_ == size || (untilRefusal_ != 0 && --untilRefusal_ == 0);
    hasRefused_ = hasRefused_ || isRefused;
    return isRefused;
}

}  // namespace tez::test
