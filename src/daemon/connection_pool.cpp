#include "daemon/connection_pool.h"

#include <array>
#include <utility>

#include "common/never_destroyed.h"
#include "common/slim_lock.h"
#include "daemon/daemon_connection_tez.h"

namespace tez {

namespace {

/// The idle connections. Connecting, exchanging and giving back happen outside its lock.
class ConnectionPool {
  public:
    std::unique_ptr<DaemonConnection> take() noexcept {
        const SlimGuard guard(poolLock_);
        for (auto& slot : slots_) {
            if (slot != nullptr) {
                return std::move(slot);
            }
        }
        return nullptr;
    }

    /// Returns the connection again when all slots are full, null otherwise.
    std::unique_ptr<DaemonConnection> put(std::unique_ptr<DaemonConnection> connection) noexcept {
        const SlimGuard guard(poolLock_);
        for (auto& slot : slots_) {
            if (slot == nullptr) {
                slot = std::move(connection);
                return nullptr;
            }
        }
        return connection;
    }

    void clear() noexcept {
        const SlimGuard guard(poolLock_);
        for (auto& slot : slots_) {
            if (slot != nullptr) {
                slot->closeSocket();
                slot.reset();
            }
        }
    }

  private:
    SlimLock poolLock_;
    std::array<std::unique_ptr<DaemonConnection>, 8> slots_ TEZ_GUARDED_BY(poolLock_);
};

constinit NeverDestroyed<ConnectionPool> pool;

}  // namespace

std::unique_ptr<DaemonConnection> acquireConnection() {
    std::unique_ptr<DaemonConnection> connection = pool->take();
    if (connection == nullptr && getServiceState() == ServiceState::LocalFirst) {
        connection = std::make_unique<DaemonConnectionTEZ>();
    }
    if (connection != nullptr) {
        connection->connect();
    }
    return connection;
}

void releaseConnection(std::unique_ptr<DaemonConnection> connection) noexcept {
    if (connection == nullptr) {
        return;
    }
    if (connection->serviceKind() == getServiceState()) {
        connection = pool->put(std::move(connection));
    }
    if (connection != nullptr) {
        connection->closeSocket();
    }
}

void clearConnectionPool() noexcept {
    pool->clear();
}

}  // namespace tez
