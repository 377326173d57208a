#include "daemon/service_state.h"

#include <atomic>

namespace tez {

namespace {

std::atomic<ServiceState> current = ServiceState::LocalOnly;

}  // namespace

ServiceState getServiceState() noexcept {
    return current;
}

void setServiceState(ServiceState state) noexcept {
    current = state;
}

}  // namespace tez
