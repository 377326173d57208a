#include "core/request_queue.h"

#include <utility>

namespace tez::pcscd {
namespace {

// A client that keeps to the protocol has one exchange on a connection at a time.
constexpr std::size_t kMostWaiting = 16;
// Two of the longest requests; without this limit one connection could take 256 MiB.
constexpr std::size_t kMostBytes = std::size_t{32} << 20;

}  // namespace

bool RequestQueue::put(Request request) {
    const std::scoped_lock lock(mutex_);
    if (closed_ || requests_.size() == kMostWaiting || bytes_ + request.body.size() > kMostBytes) {
        return false;
    }
    bytes_ += request.body.size();
    requests_.push_back(std::move(request));
    changed_.notify_one();
    return true;
}

std::optional<Request> RequestQueue::take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !requests_.empty(); });
    if (requests_.empty()) {
        return std::nullopt;
    }
    Request next = std::move(requests_.front());
    requests_.pop_front();
    bytes_ -= next.body.size();
    return next;
}

void RequestQueue::close() {
    const std::scoped_lock lock(mutex_);
    closed_ = true;
    changed_.notify_one();
}

}  // namespace tez::pcscd
