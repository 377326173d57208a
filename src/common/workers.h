#pragma once

namespace tez {

/// A piece of work for another thread; to be derived from. It belongs to whoever hands it over and
/// has to outlive its run; the workers do not touch it any more once that has been entered.
class Job {
  public:
    using Run = void (*)(Job& job) noexcept;

    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

  protected:
    /// No virtual function: a job of static storage is to have a trivial destructor.
    constexpr explicit Job(Run run) noexcept : run_(run) {}
    ~Job() = default;

  private:
    friend class WorkerQueue;
    Run run_;
    Job* next_ = nullptr;
};

// The library's kept threads. Starting a thread costs many times what handing work to one that
// waits does, so each stays for some seconds after its last job. Any thread may call.

/// Runs a job on a thread of its own for as long as that takes: never behind another job. False,
/// with nothing done, when no thread can be had.
bool runOnWorker(Job& job) noexcept;

/// Takes a job back that no thread has begun yet. True: it will not be run. A new thread cannot
/// begin before the loader lock is free, for example, which the caller may be holding.
bool withdrawFromWorkers(Job& job) noexcept;

}  // namespace tez
