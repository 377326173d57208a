#include "common/thread.h"

#include <cstdint>
#include <process.h>
#include <system_error>

namespace tez {

unsigned WINAPI Thread::enter(void* task) {
    const std::unique_ptr<Task> owned(static_cast<Task*>(task));
    owned->run();
    return 0;
}

bool Thread::launch(std::unique_ptr<Task> task) noexcept {
    // The C runtime's own start function, because the thread uses that runtime.
    const std::uintptr_t handle = _beginthreadex(nullptr, 0, &enter, task.get(), 0, nullptr);
    if (handle == 0) {
        return false;
    }
    static_cast<void>(task.release());  // the thread owns it now
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the runtime returns the handle as a number
    handle_.reset(reinterpret_cast<HANDLE>(handle));
    return true;
}

void Thread::join() {
    if (GetThreadId(handle_.get()) == GetCurrentThreadId()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
    }
    WaitForSingleObject(handle_.get(), INFINITE);
    handle_.reset();
}

}  // namespace tez
