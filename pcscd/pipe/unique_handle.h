#pragma once

#include <windows.h>

#include <utility>

namespace tez::pcscd {

/// Owns a kernel handle; INVALID_HANDLE_VALUE and null count as none.
class UniqueHandle {
  public:
    UniqueHandle() = default;
    explicit UniqueHandle(HANDLE handle)
        : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        other.reset();
        return *this;
    }
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { reset(); }

    HANDLE get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

    void reset() {
        if (handle_ != nullptr) {
            CloseHandle(std::exchange(handle_, nullptr));
        }
    }

  private:
    HANDLE handle_ = nullptr;
};

}  // namespace tez::pcscd
