#include "state/status_wait.h"

namespace tez {

bool StatusWait::awaitMark(Mark wanted, Mark other, DWORD timeout) noexcept {
    const ULONGLONG start = GetTickCount64();
    const SlimGuard guard(lock_);
    for (;;) {
        if (this->*wanted || (other != nullptr && this->*other)) {
            return this->*wanted;
        }
        const ULONGLONG elapsed = GetTickCount64() - start;
        if (timeout != INFINITE && elapsed >= timeout) {
            return false;
        }
        changed_.wait(lock_,
                      timeout == INFINITE ? INFINITE : timeout - static_cast<DWORD>(elapsed));
    }
}

}  // namespace tez
