#include "detached_thread.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <process.h>
#include <stdexcept>
#include <utility>

namespace tez::test {
namespace {

using Task = std::function<void()>;

unsigned WINAPI enter(void* owned) {
    const std::unique_ptr<Task> task(static_cast<Task*>(owned));
    (*task)();
    return 0;
}

}  // namespace

void runDetached(std::function<void()> task) {
    auto owned = std::make_unique<Task>(std::move(task));
    const std::uintptr_t thread = _beginthreadex(nullptr, 0, &enter, owned.get(), 0, nullptr);
    if (thread == 0) {
        throw std::runtime_error("no thread");
    }
    static_cast<void>(owned.release());  // the thread owns it now
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the runtime returns the handle as a number
    CloseHandle(reinterpret_cast<HANDLE>(thread));
}

}  // namespace tez::test
