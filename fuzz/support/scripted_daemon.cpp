#include "support/scripted_daemon.h"

#include <cstring>
#include <memory>
#include <utility>

#include "daemon/connection_pool.h"
#include "support/answer_shape.h"
#include "support/holds.h"

namespace tez::fuzz {
namespace {

class ScriptedConnection final : public DaemonConnection {
  public:
    ScriptedConnection(const ScriptedDaemon::Behaviour& behaviour,
                       std::span<const std::uint8_t> answers)
        : behaviour_(behaviour), answers_(answers) {}

    bool connect() override {
        isOpen_ = isOpen_ || behaviour_.opensAgain;
        return isOpen_;
    }
    void closeSocket() override {
        isOpen_ = false;
        unsent_ = 0;
        unread_ = 0;
        shape_ = nullptr;
        received_ = SCARD_E_NO_SERVICE;
    }

    LONG sendMessage(const void* data, std::uint64_t size) override {
        if (!isOpen_) {
            return SCARD_E_NO_SERVICE;
        }
        holds(size != 0 && size <= unsent_);
        // Read byte by byte: all of it is there.
        const auto* const bytes = static_cast<const volatile std::uint8_t*>(data);
        for (std::uint64_t i = 0; i < size; ++i) {
            static_cast<void>(bytes[i]);
        }
        unsent_ -= size;
        return SCARD_S_SUCCESS;
    }
    LONG sendHeaderForward(std::uint32_t command, std::uint64_t size) override {
        return sendHeader(command, size);
    }
    LONG sendHeader(std::uint32_t command, std::uint64_t size) override {
        if (std::exchange(behaviour_.isStale, false)) {
            behaviour_.minor = behaviour_.staleMinor;
            closeSocket();
        }
        if (!connect()) {
            return SCARD_E_NO_SERVICE;
        }
        holds(isBetweenAnswers());
        shape_ = findAnswerShape(command);
        holds(shape_ != nullptr && size >= shape_->recordSize);
        unsent_ = size;
        unread_ = shape_->recordSize;
        return SCARD_S_SUCCESS;
    }
    LONG sendRequestFlagged(std::uint32_t command, const void* data, std::uint64_t size,
                            bool /*flag*/) override {
        return sendRequest(command, data, size);
    }
    LONG sendRequest(std::uint32_t command, const void* data, std::uint64_t size) override {
        const LONG rv = sendHeader(command, size);
        return rv == SCARD_S_SUCCESS ? sendMessage(data, size) : rv;
    }

    LONG receiveMessage(void* buffer, std::uint64_t size, std::uint32_t /*timeout*/) override {
        return readMessage(buffer, size);
    }
    LONG readMessage(void* buffer, std::uint64_t size) override {
        if (!isOpen_) {
            return SCARD_E_NO_SERVICE;
        }
        holds(unsent_ == 0);
        holds(size <= unread_);
        if (size > answers_.size()) {
            closeSocket();
            return SCARD_E_NO_SERVICE;
        }
        const std::span<const std::uint8_t> bytes = answers_.first(size);
        if (size != 0) {
            std::memcpy(buffer, bytes.data(), size);
        }
        answers_ = answers_.subspan(size);
        unread_ -= size;
        if (shape_ != nullptr) {
            holds(size == shape_->recordSize);
            unread_ = dataSize(bytes);
            shape_ = nullptr;
        }
        return SCARD_S_SUCCESS;
    }

    bool isProtocolAtLeast(std::uint32_t major, std::uint32_t minor) const override {
        const std::uint32_t own = isBehindHost() ? 1 : 0;
        return own > major || (own == major && behaviour_.minor >= minor);
    }
    bool checkDaemonAvailability() override { return true; }
    ServiceState serviceKind() const override { return behaviour_.state; }

    /// The answer is there at once.
    LONG startReceive(void* buffer, std::uint64_t size, HANDLE& ended) override {
        ended = this;
        received_ = readMessage(buffer, size);
        return SCARD_S_SUCCESS;
    }
    LONG finishReceive() override { return received_; }

    bool isOpen() const { return isOpen_; }
    bool isBetweenAnswers() const { return unsent_ == 0 && unread_ == 0 && shape_ == nullptr; }

  private:
    bool isBehindHost() const { return behaviour_.state == ServiceState::LocalFirst; }

    /// What is announced, except where daemons of early versions announced nothing.
    std::uint64_t dataSize(std::span<const std::uint8_t> record) const {
        const bool isInRecord =
            shape_->command == CMD_GET_ATTRIB && isBehindHost() && behaviour_.minor < 2;
        const bool isOldFailure = shape_->command == CMD_GET_STATUS_CHANGE && isBehindHost() &&
                                  behaviour_.minor < 1 && shape_->result(record) != 0;
        return isInRecord || isOldFailure ? 0 : shape_->dataSize(record);
    }

    ScriptedDaemon::Behaviour behaviour_;
    std::span<const std::uint8_t> answers_;
    bool isOpen_ = true;
    std::uint64_t unsent_ = 0;            // of the request that is being sent
    std::uint64_t unread_ = 0;            // of what the answer has announced so far
    const AnswerShape* shape_ = nullptr;  // of an answer whose record was not read
    LONG received_ = SCARD_E_NO_SERVICE;
};

std::unique_ptr<ScriptedConnection> pooled;

}  // namespace

ScriptedDaemon::ScriptedDaemon(const Behaviour& behaviour, std::span<const std::uint8_t> answers) {
    setServiceState(behaviour.state);
    pooled = std::make_unique<ScriptedConnection>(behaviour, answers);
}

ScriptedDaemon::~ScriptedDaemon() {
    holds(pooled != nullptr);
    pooled.reset();
    setServiceState(ServiceState::LocalOnly);
}

}  // namespace tez::fuzz

namespace tez {

std::unique_ptr<DaemonConnection> acquireConnection() {
    fuzz::holds(fuzz::pooled != nullptr);
    fuzz::pooled->connect();
    return std::move(fuzz::pooled);
}

void releaseConnection(std::unique_ptr<DaemonConnection> connection) noexcept {
    if (connection != nullptr) {
        fuzz::pooled.reset(static_cast<fuzz::ScriptedConnection*>(connection.release()));
        fuzz::holds(!fuzz::pooled->isOpen() || fuzz::pooled->isBetweenAnswers());
    }
}

void clearConnectionPool() noexcept {}

}  // namespace tez
