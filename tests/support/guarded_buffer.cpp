#include "guarded_buffer.h"

#include <windows.h>

#include <algorithm>
#include <new>

namespace tez::test {
namespace {

constexpr std::size_t kPageSize = 4096;
constexpr std::uint8_t kPattern = 0xA5;

bool isPattern(std::span<const std::uint8_t> bytes) {
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == kPattern; });
}

}  // namespace

GuardedBuffer::GuardedBuffer(std::size_t size, Guard guard) : size_(size) {
    // Address space for a page more than the data needs; the page that is never committed guards.
    const std::size_t dataPages = std::max<std::size_t>(1, (size + kPageSize - 1) / kPageSize);
    const std::size_t dataSize = dataPages * kPageSize;
    reservation_ = VirtualAlloc(nullptr, dataSize + kPageSize, MEM_RESERVE, PAGE_NOACCESS);
    if (reservation_ == nullptr) {
        throw std::bad_alloc();
    }
    auto* pages = static_cast<std::uint8_t*>(reservation_);
    if (guard == Guard::kInFront) {
        pages += kPageSize;
    }
    if (VirtualAlloc(pages, dataSize, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        VirtualFree(reservation_, 0, MEM_RELEASE);
        throw std::bad_alloc();
    }
    accessible_ = {pages, dataSize};
    data_ = guard == Guard::kInFront ? pages : pages + dataSize - size;
    refill();
}

GuardedBuffer::~GuardedBuffer() {
    VirtualFree(reservation_, 0, MEM_RELEASE);
}

bool GuardedBuffer::untouchedFrom(std::size_t offset) const noexcept {
    const auto start = static_cast<std::size_t>(data_ - accessible_.data());
    return isPattern(accessible_.first(start)) && isPattern(accessible_.subspan(start + offset));
}

void GuardedBuffer::refill() noexcept {
    std::ranges::fill(accessible_, kPattern);
}

}  // namespace tez::test
