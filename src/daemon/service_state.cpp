#include "daemon/service_state.h"

#include "common/slim_lock.h"

namespace tez {

namespace {

SlimLock stateLock;
ServiceState current TEZ_GUARDED_BY(stateLock) = ServiceState::LocalOnly;

}  // namespace

ServiceState getServiceState() noexcept {
    const SlimGuard guard(stateLock);
    return current;
}

void setServiceState(ServiceState state) noexcept {
    const SlimGuard guard(stateLock);
    current = state;
}

}  // namespace tez
