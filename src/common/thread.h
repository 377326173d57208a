#pragma once

#include <windows.h>

#include <memory>
#include <utility>

#include "common/owned_handle.h"

namespace tez {

/// A thread of the library, empty until started.
///
/// Not std::thread: joining one takes locks inside the thread library, and a thread that the end of
/// the process has stopped in the middle of anything may hold them for ever. Here a join is one
/// wait on the thread's handle, which is signalled however the thread ended.
class Thread {
  public:
    constexpr Thread() noexcept = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    /// A thread that is still held has to be joined or detached before.
    ~Thread() = default;

    /// Starts a thread that runs body(), which must not throw. The object must be empty. False when
    /// memory or threads are exhausted; the object then stays empty.
    template <class Body>
    bool start(Body body) noexcept {
        std::unique_ptr<Task> task(new (std::nothrow) BodyTask<Body>(std::move(body)));
        return task != nullptr && launch(std::move(task));
    }

    /// Lets the thread go on by itself and leaves the object empty.
    void detach() noexcept { handle_.reset(); }

    bool joinable() const noexcept { return handle_ != nullptr; }

    /// Waits for the thread's end and leaves the object empty. Joining the calling thread, which
    /// could never end, throws std::system_error (resource deadlock would occur).
    void join();

  private:
    struct Task {
        Task() = default;
        Task(const Task&) = delete;
        Task& operator=(const Task&) = delete;
        virtual ~Task() = default;
        virtual void run() noexcept = 0;
    };
    template <class Body>
    struct BodyTask final : Task {
        explicit BodyTask(Body given) : body(std::move(given)) {}
        void run() noexcept override { body(); }
        Body body;
    };

    bool launch(std::unique_ptr<Task> task) noexcept;
    static unsigned WINAPI enter(void* task);

    OwnedHandle handle_;
};

}  // namespace tez
