#include "common/heap.h"

#include <cstdlib>
#include <cstring>

namespace tez {

void* heapAllocate(std::size_t size) noexcept {
    return size == 0 ? std::calloc(2, 1) : std::malloc(size);
}

void heapFree(void* block) noexcept {
    std::free(block);
}

char* heapDuplicate(const char* text) noexcept {
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t size = std::strlen(text) + 1;
    void* const copy = heapAllocate(size);
    return copy == nullptr ? nullptr : static_cast<char*>(std::memcpy(copy, text, size));
}

}  // namespace tez
