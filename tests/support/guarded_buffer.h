#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tez::test {

/// A caller's buffer that touches an inaccessible page, so that the first byte written or read
/// outside of it on that side ends the process with an access violation. It is filled with a
/// pattern at first, and so is the rest of its own pages, so that a test can tell what was written.
///
///     GuardedBuffer receive(258);
///     DWORD length = 258;
///     SCardTransmit(..., receive.data(), &length);
///     EXPECT_TRUE(receive.untouchedFrom(length));
class GuardedBuffer {
  public:
    enum class Guard : std::uint8_t { kBehind, kInFront };

    /// @param size in bytes; 0 is a valid buffer whose every access faults (kBehind).
    /// Throws std::bad_alloc when there is no memory.
    explicit GuardedBuffer(std::size_t size, Guard guard = Guard::kBehind);
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;
    ~GuardedBuffer();

    std::uint8_t* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::span<std::uint8_t> bytes() const noexcept { return {data_, size_}; }

    /// The buffer's start as another type of data.
    template <class Value>
    Value* as() const noexcept {
        return reinterpret_cast<Value*>(data_);
    }

    /// Whether the bytes from offset on, and the accessible rest of the pages on either side of the
    /// buffer, still hold the pattern.
    bool untouchedFrom(std::size_t offset) const noexcept;
    bool untouched() const noexcept { return untouchedFrom(0); }

    /// Fills everything with the pattern anew.
    void refill() noexcept;

  private:
    std::span<std::uint8_t> accessible_;
    void* reservation_;
    std::uint8_t* data_;
    std::size_t size_;
};

}  // namespace tez::test
