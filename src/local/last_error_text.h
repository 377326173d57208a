#pragma once

#include "common/heap.h"

namespace tez {

/// The system's message for GetLastError(), read first of all. Null when there is no error or no
/// message for it; the log prints that as "(null)".
HeapPtr<char> lastErrorText() noexcept;

}  // namespace tez
