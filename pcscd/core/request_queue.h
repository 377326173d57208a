#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

#include "core/traffic.h"

namespace tez::pcscd {

/// Requests on their way from the thread that reads a connection to the one that answers.
class RequestQueue {
  public:
    /// False when it is closed, or when the client sends on and on without taking an answer.
    bool put(Request request);
    /// Waits for a request; nullopt when there is none and the queue is closed.
    std::optional<Request> take();
    /// Takes no more requests, for none can be read or answered any more.
    void close();

  private:
    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::deque<Request> requests_;
    std::size_t bytes_ = 0;  // of their bodies
    bool closed_ = false;
};

}  // namespace tez::pcscd
