#pragma once

#include <cstring>
#include <deque>
#include <memory>
#include <optional>

#include "daemon/connection_pool.h"
#include "daemon/daemon_connection.h"
#include "pipe/transfer.h"
#include "request_matchers.h"

namespace tez::test {

/// A request as it left the library, and whether it was sent as a redirected one.
struct SentRequest : Request {
    std::optional<bool> flag;  ///< of sendRequestFlagged
};

/// Matches a request as IsRequest does, and the flag that it was sent with, if with any.
inline testing::Matcher<const SentRequest&> IsSent(Command command, const Bytes& body,
                                                   std::optional<bool> flag = std::nullopt) {
    return testing::AllOf(IsRequest(command, body),
                          testing::Field("flag", &SentRequest::flag, flag));
}

/// Matches an ESTABLISH for a context of the scope.
inline testing::Matcher<const SentRequest&> IsSentEstablish(std::uint32_t scope, bool flag) {
    return IsSent(Command::kEstablishContext,
                  RecordBytes(EstablishLayout::kSize).u32(EstablishLayout::kScope, scope), flag);
}

/// The daemon's answer to an ESTABLISH with SCARD_SCOPE_SYSTEM.
inline RecordBytes establishAnswer(std::uint64_t daemonContext, std::uint32_t rv = 0) {
    return RecordBytes(EstablishLayout::kSize)
        .u32(EstablishLayout::kScope, SCARD_SCOPE_SYSTEM)
        .u64(EstablishLayout::kContext, daemonContext)
        .u32(EstablishLayout::kResult, rv);
}

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
        Bytes& body = state_.requests.back().body;
        const Bytes more = copyBytes(data, size);
        body.insert(body.end(), more.begin(), more.end());
        return SCARD_S_SUCCESS;
    }
    LONG sendHeaderForward(std::uint32_t command, std::uint64_t size) override {
        return sendHeader(command, size);
    }
    LONG sendHeader(std::uint32_t command, std::uint64_t size) override {
        SentRequest& request = state_.requests.emplace_back();
        request.command = static_cast<Command>(command);
        request.header = requestHeader(request.command, size);
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
    UniqueHandle ended_ = makeEvent();
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

}  // namespace tez::test
