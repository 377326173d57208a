#pragma once

#include <winscard.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/status_change.h"

namespace tez::agent {

/// A reader of the service as it is now.
struct MonitoredReader {
    std::string name;
    pcscd::ObservedReader observed;
};

/// Watches the service's readers on a thread of its own, with a context of its own, and goes on
/// when the service ends and comes back: it has no readers meanwhile.
class ReaderMonitor {
  public:
    /// Called on the monitor's thread with all readers, whenever one has changed.
    using Publish = std::function<void(std::vector<MonitoredReader>)>;

    explicit ReaderMonitor(Publish publish);
    ~ReaderMonitor();
    ReaderMonitor(const ReaderMonitor&) = delete;
    ReaderMonitor& operator=(const ReaderMonitor&) = delete;

    /// Waits until the readers have been published for the first time.
    void awaitFirst();

  private:
    void run();
    void watch(SCARDCONTEXT context);
    bool stopping() const;

    const Publish publish_;
    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::optional<SCARDCONTEXT> waiting_;  // the context of the wait in progress
    bool published_ = false;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tez::agent
