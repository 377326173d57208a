#pragma once

#include <unistd.h>
#include <utility>

namespace tez::agent {

/// Owns a file descriptor.
class FileDescriptor {
  public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, kNone)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (*this) {
            ::close(descriptor_);
        }
    }

    int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ != kNone; }

  private:
    static constexpr int kNone = -1;
    int descriptor_ = kNone;
};

}  // namespace tez::agent
