#include "daemon_pipe.h"

#include <stdexcept>

namespace tez::test {

UniqueHandle openDaemonPipe() {
    return UniqueHandle(CreateFileA(kDaemonPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
}

MutePipe::MutePipe(DWORD instances, DWORD direction) {
    while (instances_.size() < instances) {
        instances_.emplace_back(CreateNamedPipeA(kDaemonPipe, direction, PIPE_TYPE_BYTE, instances,
                                                 4096, 4096, 0, nullptr));
        if (!instances_.back()) {
            throw std::runtime_error("the daemon's pipe cannot be made");
        }
    }
}

void MutePipe::take() {
    if (!clients_.emplace_back(openDaemonPipe())) {
        throw std::runtime_error("the daemon's pipe has no free instance");
    }
}

DWORD MutePipe::written() const {
    DWORD count = 0;
    PeekNamedPipe(instances_.front().get(), nullptr, 0, nullptr, &count, nullptr);
    return count;
}

}  // namespace tez::test
