#include "system_library/started_event.h"

namespace tez::test {

HANDLE StartedEvent::access() {
    const std::lock_guard lock(mutex_);
    if (!event_) {
        event_ = UniqueHandle(CreateEventA(nullptr, TRUE, started_ ? TRUE : FALSE, nullptr));
    }
    if (event_) {
        ++users_;
    }
    return event_.get();
}

void StartedEvent::release() {
    const std::lock_guard lock(mutex_);
    if (users_ > 0 && --users_ == 0) {
        event_.reset();
    }
}

std::size_t StartedEvent::users() const {
    const std::lock_guard lock(mutex_);
    return users_;
}

void StartedEvent::setStarted(bool started) {
    const std::lock_guard lock(mutex_);
    started_ = started;
    if (event_) {
        started ? SetEvent(event_.get()) : ResetEvent(event_.get());
    }
}

}  // namespace tez::test
