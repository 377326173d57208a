#include "common/workers.h"

#include <cstddef>

#include "common/deadline.h"
#include "common/module_reference.h"
#include "common/slim_lock.h"
#include "common/thread.h"

namespace tez {

namespace {

constexpr DWORD kIdleTime = 5000;  // milliseconds

}  // namespace

/// The jobs that no thread has begun, and the threads that wait for one.
class WorkerQueue {
  public:
    /// False when there are more jobs now than idle threads: the caller sees to one more thread.
    bool put(Job& job) noexcept {
        const SlimGuard guard(lock_);
        job.next_ = nullptr;
        *end() = &job;
        ++waitingJobs_;
        handedOver_.notifyOne();
        return waitingJobs_ <= idleThreads_;
    }

    /// Takes a given job out again. False when it is not there any more.
    bool remove(Job& job) noexcept {
        const SlimGuard guard(lock_);
        for (Job** link = &first_; *link != nullptr; link = &(*link)->next_) {
            if (*link == &job) {
                *link = job.next_;
                --waitingJobs_;
                return true;
            }
        }
        return false;
    }

    /// Waits for a job and runs it. False when none has come for the idle time.
    bool runNext() noexcept {
        Job* const job = take();
        if (job != nullptr) {
            job->run_(*job);
        }
        return job != nullptr;
    }

  private:
    Job* take() noexcept {
        const Deadline deadline(kIdleTime);
        const SlimGuard guard(lock_);
        ++idleThreads_;
        while (first_ == nullptr) {
            const DWORD remaining = deadline.remaining();
            if (remaining == 0) {
                break;
            }
            handedOver_.wait(lock_, remaining);
        }
        --idleThreads_;
        Job* const job = first_;
        if (job != nullptr) {
            first_ = job->next_;
            --waitingJobs_;
        }
        return job;
    }

    Job** end() noexcept TEZ_REQUIRES(lock_) {
        Job** link = &first_;
        while (*link != nullptr) {
            link = &(*link)->next_;
        }
        return link;
    }

    SlimLock lock_;
    SlimCondition handedOver_;
    Job* first_ TEZ_GUARDED_BY(lock_) = nullptr;
    std::size_t waitingJobs_ TEZ_GUARDED_BY(lock_) = 0;
    std::size_t idleThreads_ TEZ_GUARDED_BY(lock_) = 0;
};

namespace {

constinit WorkerQueue queue;

void work() noexcept {
    while (queue.runNext()) {
    }
}

bool startWorker() noexcept {
    Thread thread;
    const bool isStarted = pinOwnModule() && thread.start([]() noexcept { work(); });
    thread.detach();
    return isStarted;
}

}  // namespace

bool runOnWorker(Job& job) noexcept {
    // A thread that has just become idle may have begun the job that no new one could be had for.
    return queue.put(job) || startWorker() || !queue.remove(job);
}

bool withdrawFromWorkers(Job& job) noexcept {
    return queue.remove(job);
}

}  // namespace tez
