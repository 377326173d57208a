#pragma once

#include <windows.h>

#include <cstddef>
#include <mutex>

#include "pcscd_names.h"
#include "pipe/unique_handle.h"

namespace tez::test {

/// The host's started event: set while its smart-card service runs, one handle for the process,
/// which lives as long as someone uses it. Thread-safe.
class StartedEvent {
  public:
    /// One user more. Null when no event can be made.
    HANDLE access();
    /// One user less; the last one closes the handle.
    void release();
    std::size_t users() const;

    /// Starts or stops the service; it runs at first.
    void setStarted(bool started);

  private:
    mutable std::mutex mutex_;
    UniqueHandle event_;
    std::size_t users_ = 0;
    bool started_ = true;
};

}  // namespace tez::test
