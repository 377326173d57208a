#include "pipe/waiting_instance.h"

#include <utility>

#include "pipe/system_failure.h"

namespace tez::pcscd {

WaitingInstance::WaitingInstance(UniqueHandle instance) : instance_(std::move(instance)) {
    overlapped_.hEvent = connected_.get();
    if (ConnectNamedPipe(instance_.get(), &overlapped_) != FALSE) {
        return;
    }
    switch (GetLastError()) {
        case ERROR_IO_PENDING:
            break;
        case ERROR_PIPE_CONNECTED:
        case ERROR_NO_DATA:
            SetEvent(connected_.get());
            break;
        default:
            throw systemFailure("a pipe cannot wait for a client");
    }
}

WaitingInstance::~WaitingInstance() {
    if (instance_) {
        CancelIoEx(instance_.get(), &overlapped_);
        // The kernel writes to the structure until the operation has ended.
        WaitForSingleObject(connected_.get(), INFINITE);
    }
}

UniqueHandle WaitingInstance::take() {
    return std::move(instance_);
}

}  // namespace tez::pcscd
