#pragma once

#include <windows.h>

#include <memory>
#include <utility>

namespace tez {

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};

/// Owns an event or a thread; null when there is none.
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

/// Owns the handle of an open file or pipe. Apart from OwnedHandle because "none" is
/// INVALID_HANDLE_VALUE here, not null.
class OwnedFile {
  public:
    OwnedFile() = default;
    explicit OwnedFile(HANDLE handle) noexcept : handle_(handle) {}
    OwnedFile(const OwnedFile&) = delete;
    OwnedFile& operator=(const OwnedFile&) = delete;
    OwnedFile(OwnedFile&& other) noexcept
        : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    OwnedFile& operator=(OwnedFile&& other) noexcept {
        if (this != &other) {
            close();
            handle_ = std::exchange(other.handle_, INVALID_HANDLE_VALUE);
        }
        return *this;
    }
    ~OwnedFile() { close(); }

    bool isOpen() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return handle_; }

    /// Closes the handle if it is open; does nothing otherwise.
    void close() noexcept {
        if (isOpen()) {
            CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE));
        }
    }

  private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

}  // namespace tez
