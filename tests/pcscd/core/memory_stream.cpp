#include "memory_stream.h"

#include <algorithm>
#include <utility>

#include "patience.h"

namespace tez::pcscd {

using test::kPatience;

std::size_t MemoryStream::read(std::span<std::uint8_t> buffer) {
    std::unique_lock lock(mutex_);
    std::size_t count = 0;
    while (count < buffer.size()) {
        changed_.wait(lock, [this] { return closed_ || hungUp_ || !sent_.empty(); });
        if (closed_ || sent_.empty()) {
            break;
        }
        buffer[count++] = sent_.front();
        sent_.pop_front();
    }
    return count;
}

bool MemoryStream::write(std::span<const std::uint8_t> bytes) {
    const std::scoped_lock lock(mutex_);
    if (closed_ || hungUp_) {
        return false;
    }
    written_.emplace_back(bytes.begin(), bytes.end());
    changed_.notify_all();
    return true;
}

void MemoryStream::close() {
    const std::scoped_lock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

void MemoryStream::send(std::span<const std::uint8_t> bytes) {
    const std::scoped_lock lock(mutex_);
    sent_.insert(sent_.end(), bytes.begin(), bytes.end());
    changed_.notify_all();
}

void MemoryStream::hangUp() {
    const std::scoped_lock lock(mutex_);
    hungUp_ = true;
    changed_.notify_all();
}

std::optional<Bytes> MemoryStream::takePiece() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return closed_ || !written_.empty(); });
    if (written_.empty()) {
        return std::nullopt;
    }
    Bytes piece = std::move(written_.front());
    written_.pop_front();
    return piece;
}

bool MemoryStream::closed() const {
    const std::scoped_lock lock(mutex_);
    return closed_;
}

}  // namespace tez::pcscd
