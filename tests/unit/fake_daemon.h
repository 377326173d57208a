#pragma once

#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <optional>

#include "byte_string.h"
#include "common/owned_handle.h"
#include "daemon/connection_pool.h"
#include "daemon/daemon_connection.h"

namespace tez::test {

/// A request as it left the library, and whether it was sent as a redirected one.
struct SentRequest {
    std::uint32_t command = 0;
    std::uint64_t announced = 0;  ///< the size in the header
    Bytes bytes;                  ///< the record and what followed it
    std::optional<bool> flag;     ///< of sendRequestFlagged

    friend bool operator==(const SentRequest&, const SentRequest&) = default;
};

/// What a FakeDaemon has received and what it is to answer.
struct FakeDaemonState {
    std::deque<SentRequest> requests;
    /// Each read takes the next one whole; without one, or when the size differs, it fails.
    std::deque<Bytes> answers;
    std::uint32_t versionMajor = 0;
    std::uint32_t versionMinor = 4;
    int timesClosed = 0;
};

/// A connection of a service that takes all calls, with a daemon behind it that says what a test
/// tells it to.
class FakeDaemonConnection : public DaemonConnection {
  public:
    explicit FakeDaemonConnection(FakeDaemonState& state) : state_(state) {}

    bool connect() override { return true; }
    void closeSocket() override { ++state_.timesClosed; }
    LONG sendMessage(const void* data, std::uint64_t size) override {
        Bytes& bytes = state_.requests.back().bytes;
        const Bytes more = copyBytes(data, size);
        bytes.insert(bytes.end(), more.begin(), more.end());
        return SCARD_S_SUCCESS;
    }
    LONG sendHeaderForward(std::uint32_t command, std::uint64_t size) override {
        return sendHeader(command, size);
    }
    LONG sendHeader(std::uint32_t command, std::uint64_t size) override {
        state_.requests.push_back({command, size, {}, std::nullopt});
        return SCARD_S_SUCCESS;
    }
    LONG sendRequestFlagged(std::uint32_t command, const void* data, std::uint64_t size,
                            bool flag) override {
        sendRequest(command, data, size);
        state_.requests.back().flag = flag;
        return SCARD_S_SUCCESS;
    }
    LONG sendRequest(std::uint32_t command, const void* data, std::uint64_t size) override {
        sendHeader(command, size);
        return sendMessage(data, size);
    }
    LONG receiveMessage(void* buffer, std::uint64_t size, std::uint32_t /*timeout*/) override {
        return readMessage(buffer, size);
    }
    LONG readMessage(void* buffer, std::uint64_t size) override {
        if (state_.answers.empty() || state_.answers.front().size() != size) {
            return SCARD_E_NO_SERVICE;
        }
        if (size != 0) {
            std::memcpy(buffer, state_.answers.front().data(), size);
        }
        state_.answers.pop_front();
        return SCARD_S_SUCCESS;
    }
    bool isProtocolAtLeast(std::uint32_t major, std::uint32_t minor) const override {
        return state_.versionMajor > major ||
               (state_.versionMajor == major && state_.versionMinor >= minor);
    }
    bool checkDaemonAvailability() override { return true; }
    ServiceState serviceKind() const override { return ServiceState::RemoteOnly; }
    /// The answer is there at once.
    LONG startReceive(void* buffer, std::uint64_t size, HANDLE& ended) override {
        received_ = readMessage(buffer, size);
        SetEvent(ended_.get());
        ended = ended_.get();
        return SCARD_S_SUCCESS;
    }
    LONG finishReceive() override { return received_; }

  private:
    FakeDaemonState& state_;
    OwnedHandle ended_{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
    LONG received_ = SCARD_S_SUCCESS;
};

/// Puts the process into the state in which every call goes to the daemon, with one connection in
/// the pool. Nothing stores that state at run time, so there is no other way to it.
class RemoteOnlyService {
  public:
    RemoteOnlyService() {
        setServiceState(ServiceState::RemoteOnly);
        releaseConnection(std::make_unique<FakeDaemonConnection>(daemon_));
    }
    RemoteOnlyService(const RemoteOnlyService&) = delete;
    RemoteOnlyService& operator=(const RemoteOnlyService&) = delete;
    ~RemoteOnlyService() {
        clearConnectionPool();
        setServiceState(ServiceState::LocalOnly);
    }

    FakeDaemonState& daemon() { return daemon_; }

    /// The oldest request that was not looked at yet; an empty one when there is none.
    SentRequest takeRequest() {
        if (daemon_.requests.empty()) {
            return {};
        }
        SentRequest request = daemon_.requests.front();
        daemon_.requests.pop_front();
        return request;
    }

  private:
    FakeDaemonState daemon_;
};

/// GoogleTest prints requests with it.
inline void PrintTo(const SentRequest& request, std::ostream* stream) {
    *stream << "command " << request.command << ", announced " << request.announced << ", "
            << testing::PrintToString(request.bytes) << ", flag "
            << testing::PrintToString(request.flag);
}

}  // namespace tez::test
