#pragma once

#include <string_view>

#include "common/heap.h"
#include "common/scard_api.h"

namespace tez {

/// Receives an auto-allocated text from a local call and frees it.
///
///     LocalBuffer groups;
///     if (LocalSCardListReaderGroupsA(context, groups.destination(), groups.length()) == 0) {
///         use(groups.text());
///     }
class LocalBuffer {
  public:
    LocalBuffer() = default;
    LocalBuffer(const LocalBuffer&) = delete;
    LocalBuffer& operator=(const LocalBuffer&) = delete;
    ~LocalBuffer() { heapFree(block_); }

    /// What the platform's calls take for a buffer that they are to allocate.
    LPSTR destination() noexcept { return reinterpret_cast<LPSTR>(&block_); }
    LPDWORD length() noexcept { return &length_; }

    /// What was received; valid after a successful call.
    std::string_view text() const noexcept { return {block_, length_}; }

  private:
    LPSTR block_ = nullptr;
    DWORD length_ = SCARD_AUTOALLOCATE;
};

}  // namespace tez
