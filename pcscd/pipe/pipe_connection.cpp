#include "pipe/pipe_connection.h"

#include <utility>

namespace tez::pcscd {

PipeConnection::PipeConnection(std::uint64_t number, UniqueHandle pipe)
    : number_(number), pipe_(std::move(pipe)), process_(pipe_->clientProcess()) {}

bool PipeConnection::beginTransfer(bool reading) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closed_ || !reading || !paused_; });
    if (closed_) {
        return false;
    }
    ++transfers_;
    reading_ = reading_ || reading;
    return true;
}

void PipeConnection::endTransfer(bool reading) {
    const std::scoped_lock lock(mutex_);
    --transfers_;
    if (reading) {
        reading_ = false;
    }
    changed_.notify_all();
}

std::size_t PipeConnection::read(std::span<std::uint8_t> buffer) {
    std::size_t done = 0;
    while (done < buffer.size() && beginTransfer(true)) {
        const Outcome outcome = pipe_->read(buffer.subspan(done), {closing_.get(), pausing_.get()});
        endTransfer(true);
        done += outcome.count;
        if (outcome.error != ERROR_SUCCESS && outcome.error != ERROR_OPERATION_ABORTED) {
            break;
        }
    }
    return done;
}

bool PipeConnection::write(std::span<const std::uint8_t> bytes) {
    const std::scoped_lock writing(writing_);
    if (!beginTransfer(false)) {
        return false;
    }
    const bool written = pipe_->write(bytes, {closing_.get()});
    endTransfer(false);
    return written;
}

void PipeConnection::pauseReading() {
    std::unique_lock lock(mutex_);
    paused_ = true;
    SetEvent(pausing_.get());
    changed_.wait(lock, [this] { return !reading_; });
}

void PipeConnection::resumeReading() {
    const std::scoped_lock lock(mutex_);
    paused_ = false;
    ResetEvent(pausing_.get());
    changed_.notify_all();
}

void PipeConnection::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    SetEvent(closing_.get());
    changed_.notify_all();
    changed_.wait(lock, [this] { return transfers_ == 0; });
    pipe_.reset();
}

}  // namespace tez::pcscd
