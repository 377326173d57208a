#include "pipe/pipe_connection.h"

#include <iterator>
#include <utility>

namespace tez::pcscd {
namespace {

UniqueHandle manualResetEvent() {
    return UniqueHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr));
}

std::uint32_t processAt(HANDLE pipe) {
    ULONG process = 0;
    return GetNamedPipeClientProcessId(pipe, &process) == FALSE ? 0 : process;
}

struct Moved {
    bool broken = false;  // nothing more can be moved
    DWORD count = 0;
};

/// Runs one overlapped operation to its end, which one of the interrupting events brings about too.
template <typename Start>
Moved finish(HANDLE pipe, std::span<const HANDLE> interrupts, Start start) {
    const UniqueHandle done = manualResetEvent();
    OVERLAPPED overlapped{};
    overlapped.hEvent = done.get();
    if (start(&overlapped) == FALSE) {
        if (GetLastError() != ERROR_IO_PENDING) {
            return {true, 0};
        }
        HANDLE events[3] = {done.get()};
        DWORD count = 1;
        for (const HANDLE interrupt : interrupts) {
            events[count++] = interrupt;
        }
        if (WaitForMultipleObjects(count, events, FALSE, INFINITE) != WAIT_OBJECT_0) {
            CancelIoEx(pipe, &overlapped);
        }
    }
    Moved moved;
    if (GetOverlappedResult(pipe, &overlapped, &moved.count, TRUE) == FALSE) {
        moved.broken = GetLastError() != ERROR_OPERATION_ABORTED;
    }
    return moved;
}

}  // namespace

PipeConnection::PipeConnection(std::uint64_t number, UniqueHandle pipe)
    : number_(number),
      process_(processAt(pipe.get())),
      closing_(manualResetEvent()),
      pausing_(manualResetEvent()),
      pipe_(std::move(pipe)) {}

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
    const HANDLE interrupts[] = {closing_.get(), pausing_.get()};
    std::size_t done = 0;
    while (done < buffer.size() && beginTransfer(true)) {
        const std::span<std::uint8_t> rest = buffer.subspan(done);
        const Moved moved = finish(pipe_.get(), interrupts, [&](OVERLAPPED* overlapped) {
            return ReadFile(pipe_.get(), rest.data(), static_cast<DWORD>(rest.size()), nullptr,
                            overlapped);
        });
        endTransfer(true);
        done += moved.count;
        if (moved.broken) {
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
    const HANDLE interrupts[] = {closing_.get()};
    const Moved moved = finish(pipe_.get(), interrupts, [&](OVERLAPPED* overlapped) {
        return WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                         overlapped);
    });
    endTransfer(false);
    return moved.count == bytes.size();
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
