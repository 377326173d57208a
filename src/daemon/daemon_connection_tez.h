#pragma once

#include <memory>

#include "common/heap.h"
#include "common/owned_handle.h"
#include "daemon/daemon_connection.h"
#include "daemon/overlapped_transfer.h"

namespace tez {

/// The connection over the daemon's named pipe on this host.
class DaemonConnectionTEZ : public DaemonConnection {
  public:
    DaemonConnectionTEZ() = default;
    DaemonConnectionTEZ(const DaemonConnectionTEZ&) = delete;
    DaemonConnectionTEZ& operator=(const DaemonConnectionTEZ&) = delete;
    ~DaemonConnectionTEZ() override;

    bool connect() override;
    void closeSocket() override;
    [[nodiscard]] LONG sendMessage(const void* data, std::uint64_t size) override;
    [[nodiscard]] LONG sendHeaderForward(std::uint32_t command, std::uint64_t size) override;
    [[nodiscard]] LONG sendHeader(std::uint32_t command, std::uint64_t size) override;
    [[nodiscard]] LONG sendRequestFlagged(std::uint32_t command, const void* data,
                                          std::uint64_t size, bool flag) override;
    [[nodiscard]] LONG sendRequest(std::uint32_t command, const void* data,
                                   std::uint64_t size) override;
    [[nodiscard]] LONG receiveMessage(void* buffer, std::uint64_t size,
                                      std::uint32_t timeout) override;
    [[nodiscard]] LONG readMessage(void* buffer, std::uint64_t size) override;
    bool isProtocolAtLeast(std::uint32_t major, std::uint32_t minor) const override;
    bool checkDaemonAvailability() override;
    ServiceState serviceKind() const override { return ServiceState::LocalFirst; }
    [[nodiscard]] LONG startReceive(void* buffer, std::uint64_t size, HANDLE& ended) override;
    [[nodiscard]] LONG finishReceive() override;

    /// What writen and readn return when nothing could be moved.
    static constexpr std::uint64_t kFailed = ~std::uint64_t{0};

    /// Opens the pipe, waiting while all its instances are busy. True when it is open.
    bool connectSocket(const char* path);
    /// Whether there was no pipe to open the last time: no daemon runs.
    bool isPipeMissing() const { return isPipeMissing_; }

    /// Introduces this library on a freshly opened pipe: the token with its NUL, the cache option
    /// (-1 unset, 0 disabled, 1 enabled), then reads the daemon's version. Any version will do. A
    /// daemon that never answers is waited for without limit.
    bool handshake(const char* token, std::int32_t cacheOption);

    /// One overlapped write, waited for 1000 ms at most. Returns the bytes written, which may be
    /// fewer than n, or kFailed. After anything but n the caller closes the connection, and the
    /// buffer stays alive until then.
    std::uint64_t writen(const void* buffer, std::uint64_t n);
    /// One overlapped read, waited for timeout milliseconds at most. Returns n or kFailed: a short
    /// read is a failure. The same care for the buffer as writen.
    std::uint64_t readn(void* buffer, std::uint64_t n, std::uint32_t timeout);

  private:
    struct Direction;
    using Transfer = std::unique_ptr<OverlappedTransfer>;

    /// Starts one overlapped operation; null, with the reason logged, when it cannot be started.
    template <class Start>
    Transfer startTransfer(const Direction& direction, std::uint64_t n, Start start);
    Transfer startRead(void* buffer, std::uint64_t n);
    /// Waits for it, and logs what is short of n. Returns the bytes moved or kFailed.
    std::uint64_t finishTransfer(const Direction& direction, Transfer operation, std::uint64_t n,
                                 std::uint32_t timeout);
    std::uint64_t finishRead(Transfer operation, std::uint64_t n, std::uint32_t timeout);
    /// What a read that moved this many of size bytes means; closes the connection on a failure.
    [[nodiscard]] LONG received(std::uint64_t count, std::uint64_t size);
    void giveUpStartedRead();
    void makePathAndToken();

    std::uint32_t protocolMajor_ = 0;
    std::uint32_t protocolMinor_ = 0;
    bool isPipeMissing_ = false;
    HeapPtr<char> socketPath_;
    HeapPtr<char> authToken_;
    OwnedFile pipeHandle_;
    /// Cancelled transfers that the kernel may still write to; kept until the pipe is closed.
    Transfer cancelled_;
    Transfer startedRead_;  ///< of startReceive
    Transfer spare_;        ///< the memory of the last transfer, for the next one
    std::uint64_t startedSize_ = 0;
};

}  // namespace tez
