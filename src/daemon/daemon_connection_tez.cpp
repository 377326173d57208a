#include "daemon/daemon_connection_tez.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "log/function_log.h"
#include "log/switches.h"
#include "wire/message_header.h"

namespace tez {

namespace {

constexpr const char* kPipeName = R"(\\.\pipe\tez-pcscd-0)";
/// The daemon of this host asks for no secret: the pipe's own access rights guard it.
constexpr const char* kToken = "";
constexpr std::uint32_t kWriteTimeout = 1000;

unsigned long long printable(HANDLE handle) {
    return reinterpret_cast<std::uintptr_t>(handle);
}

}  // namespace

DaemonConnectionTEZ::~DaemonConnectionTEZ() {
    DaemonConnectionTEZ::closeSocket();
}

void DaemonConnectionTEZ::makePathAndToken() {
    if (socketPath_ == nullptr) {
        socketPath_.reset(heapDuplicate(kPipeName));
        authToken_.reset(heapDuplicate(kToken));
    }
    if (authToken_ == nullptr) {
        socketPath_.reset(heapDuplicate(kPipeName));
        authToken_.reset(heapDuplicate(kToken));
    }
}

bool DaemonConnectionTEZ::connect() {
    static constexpr FunctionLog log("DaemonConnectionTEZ::connect");
    if (pipeHandle_.isOpen()) {
        return true;
    }
    makePathAndToken();
    if (socketPath_ == nullptr) {
        log.warning("Unable to get socket path");
        return false;
    }
    if (authToken_ == nullptr) {
        log.warning("Unable to get auth token");
        return false;
    }
    static constinit Switch cacheSwitch("TEZ_PCSC_ENABLE_CACHE");
    const std::optional<bool> cache = cacheSwitch.read(log);
    if (!cache) {
        log.debug("%s is not set", cacheSwitch.name());
    }
    if (!connectSocket(socketPath_.get())) {
        return false;
    }
    if (!handshake(authToken_.get(), cache ? static_cast<std::int32_t>(*cache) : -1)) {
        closeSocket();
        return false;
    }
    return true;
}

void DaemonConnectionTEZ::closeSocket() {
    giveUpStartedRead();
    pipeHandle_.close();
    if (cancelled_ != nullptr) {
        OverlappedTransfer::retire(std::move(cancelled_));
    }
}

bool DaemonConnectionTEZ::connectSocket(const char* path) {
    static constexpr FunctionLog log("DaemonConnectionTEZ::connectSocket");
    isPipeMissing_ = false;
    for (;;) {
        pipeHandle_ = OwnedFile(CreateFileA(path, GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (pipeHandle_.isOpen()) {
            log.debug("Pipe %llu connected", printable(pipeHandle_.get()));
            return true;
        }
        const DWORD error = GetLastError();
        if (error != ERROR_PIPE_BUSY) {
            isPipeMissing_ = error == ERROR_FILE_NOT_FOUND;
            log.debug("Failed to connect to pipe: 0x%08X", static_cast<unsigned>(error));
            return false;
        }
        if (WaitNamedPipeA(path, NMPWAIT_USE_DEFAULT_WAIT) == FALSE) {
            log.debug("Failed to connect to pipe: timed out");
            return false;
        }
    }
}

bool DaemonConnectionTEZ::handshake(const char* token, std::int32_t cacheOption) {
    static constexpr FunctionLog log("DaemonConnectionTEZ::handshake");
    if (!pipeHandle_.isOpen()) {
        log.warning("Socket not connected");
        return false;
    }
    if (sendMessage(token, std::strlen(token) + 1) != SCARD_S_SUCCESS) {
        log.warning("Unable send auth token to socket '%s'", socketPath_.get());
        return false;
    }
    if (sendMessage(&cacheOption, sizeof(cacheOption)) != SCARD_S_SUCCESS) {
        log.warning("Unable to send options to socket '%s'", socketPath_.get());
        return false;
    }
    std::uint32_t version[2] = {};
    if (readMessage(version, sizeof(version)) != SCARD_S_SUCCESS) {
        log.warning("Unable to retrieve protocol info from socket '%s'", socketPath_.get());
        return false;
    }
    protocolMajor_ = version[0];
    protocolMinor_ = version[1];
    const char* const cacheWord =
        cacheOption < 0 ? "unset" : (cacheOption > 0 ? "enabled" : "disabled");
    log.info("Using TEZ's pcsclite library, version 0.0 (r86), protocol version %u.%u, cache %s",
             protocolMajor_, protocolMinor_, cacheWord);
    return true;
}

/// What the two directions say in the log.
struct DaemonConnectionTEZ::Direction {
    FunctionLog functionLog;
    void (*logRefused)(const FunctionLog& log, HANDLE pipe, DWORD error);
    void (*logTimeout)(const FunctionLog& log);
    void (*logPartial)(const FunctionLog& log, DWORD count, std::uint64_t n);

    static const Direction writing;
    static const Direction reading;
};

constexpr DaemonConnectionTEZ::Direction DaemonConnectionTEZ::Direction::writing = {
    FunctionLog("DaemonConnectionTEZ::writen"),
    [](const FunctionLog& log, HANDLE pipe, DWORD error) {
        log.debug("Failed to write to pipe %llu: 0x%08X", printable(pipe),
                  static_cast<unsigned>(error));
    },
    [](const FunctionLog& log) { log.debug("Timeout while writing to pipe"); },
    [](const FunctionLog& log, DWORD count, std::uint64_t n) {
        log.debug("Message written partially %lu < %lu", count, static_cast<unsigned long>(n));
    }};

constexpr DaemonConnectionTEZ::Direction DaemonConnectionTEZ::Direction::reading = {
    FunctionLog("DaemonConnectionTEZ::readn"),
    [](const FunctionLog& log, HANDLE pipe, DWORD error) {
        log.debug("Failed to read from pipe %llu: 0x%08X", printable(pipe),
                  static_cast<unsigned>(error));
    },
    [](const FunctionLog& log) { log.debug("Timeout while reading from pipe"); },
    [](const FunctionLog& log, DWORD count, std::uint64_t n) {
        log.debug("Message read partially %lu < %lu", count, static_cast<unsigned long>(n));
    }};

template <class Start>
auto DaemonConnectionTEZ::startTransfer(const Direction& direction, std::uint64_t n, Start start)
    -> Transfer {
    Transfer operation = OverlappedTransfer::create(std::move(spare_));
    if (operation == nullptr) {
        direction.functionLog.debug("Could not create an overlapped operation: 0x%08X",
                                    static_cast<unsigned>(GetLastError()));
        return nullptr;
    }
    const HANDLE pipe = pipeHandle_.get();
    // Records never exceed what the kernel's 32-bit count can carry.
    if (start(pipe, static_cast<DWORD>(n), operation->overlapped()) == FALSE) {
        const DWORD error = GetLastError();
        if (error != ERROR_IO_PENDING) {
            direction.logRefused(direction.functionLog, pipe, error);
            return nullptr;
        }
        operation->markPending();
    }
    return operation;
}

std::uint64_t DaemonConnectionTEZ::finishTransfer(const Direction& direction, Transfer operation,
                                                  std::uint64_t n, std::uint32_t timeout) {
    const HANDLE pipe = pipeHandle_.get();
    if (operation->isPending() &&
        WaitForSingleObject(operation->event(), timeout) != WAIT_OBJECT_0) {
        direction.logTimeout(direction.functionLog);
        CancelIoEx(pipe, operation->overlapped());
        OverlappedTransfer::push(cancelled_, std::move(operation));
        return kFailed;
    }
    DWORD count = 0;
    if (GetOverlappedResult(pipe, operation->overlapped(), &count, FALSE) == FALSE) {
        direction.functionLog.debug("Could not get the result of the overlapped operation: 0x%08X",
                                    static_cast<unsigned>(GetLastError()));
        return kFailed;
    }
    if (count < n) {
        direction.logPartial(direction.functionLog, count, n);
    }
    operation->closeEvent();
    spare_ = std::move(operation);
    return count;
}

auto DaemonConnectionTEZ::startRead(void* buffer, std::uint64_t n) -> Transfer {
    return startTransfer(Direction::reading, n,
                         [buffer](HANDLE pipe, DWORD size, OVERLAPPED* overlapped) {
                             return ReadFile(pipe, buffer, size, nullptr, overlapped);
                         });
}

std::uint64_t DaemonConnectionTEZ::finishRead(Transfer operation, std::uint64_t n,
                                              std::uint32_t timeout) {
    const std::uint64_t count =
        finishTransfer(Direction::reading, std::move(operation), n, timeout);
    // Unlike a short write, a short read is no count that a caller could use: what is missing of
    // the record may never come.
    return count == n ? count : kFailed;
}

std::uint64_t DaemonConnectionTEZ::writen(const void* buffer, std::uint64_t n) {
    Transfer operation = startTransfer(
        Direction::writing, n, [buffer](HANDLE pipe, DWORD size, OVERLAPPED* overlapped) {
            return WriteFile(pipe, buffer, size, nullptr, overlapped);
        });
    return operation == nullptr
               ? kFailed
               : finishTransfer(Direction::writing, std::move(operation), n, kWriteTimeout);
}

std::uint64_t DaemonConnectionTEZ::readn(void* buffer, std::uint64_t n, std::uint32_t timeout) {
    if (n == 0) {
        return 0;
    }
    Transfer operation = startRead(buffer, n);
    return operation == nullptr ? kFailed : finishRead(std::move(operation), n, timeout);
}

LONG DaemonConnectionTEZ::sendMessage(const void* data, std::uint64_t size) {
    static constexpr FunctionLog log("DaemonConnectionTEZ::sendMessage");
    if (!pipeHandle_.isOpen()) {
        return SCARD_E_NO_SERVICE;
    }
    if (writen(data, size) == size) {
        return SCARD_S_SUCCESS;
    }
    log.debug("Could not write data on socket");
    closeSocket();
    return SCARD_E_NO_SERVICE;
}

LONG DaemonConnectionTEZ::sendHeaderForward(std::uint32_t command, std::uint64_t size) {
    return sendHeader(command, size);
}

LONG DaemonConnectionTEZ::sendHeader(std::uint32_t command, std::uint64_t size) {
    static constexpr FunctionLog log("DaemonConnectionTEZ::sendHeader");
    const MessageHeader header = {static_cast<std::uint32_t>(size), command, 0};
    if (!pipeHandle_.isOpen()) {
        return SCARD_E_NO_SERVICE;
    }
    // An idle connection may be stale: the daemon that it led to has gone and another one serves
    // the pipe now. As nothing of the request is out yet, it can go to the new one. There is no
    // bound on the attempts, but each needs a daemon that has just completed a handshake.
    while (writen(&header, sizeof(header)) != sizeof(header)) {
        log.debug("Could not write header command %u", command);
        closeSocket();
        if (!connect()) {
            return SCARD_E_NO_SERVICE;
        }
    }
    return SCARD_S_SUCCESS;
}

LONG DaemonConnectionTEZ::sendRequestFlagged(std::uint32_t command, const void* data,
                                             std::uint64_t size, bool /*flag*/) {
    return sendRequest(command, data, size);
}

LONG DaemonConnectionTEZ::sendRequest(std::uint32_t command, const void* data, std::uint64_t size) {
    const LONG rv = sendHeader(command, size);
    return rv == SCARD_S_SUCCESS ? sendMessage(data, size) : rv;
}

LONG DaemonConnectionTEZ::receiveMessage(void* buffer, std::uint64_t size, std::uint32_t timeout) {
    if (!pipeHandle_.isOpen()) {
        return SCARD_E_NO_SERVICE;
    }
    return received(readn(buffer, size, timeout), size);
}

LONG DaemonConnectionTEZ::received(std::uint64_t count, std::uint64_t size) {
    if (count == size) {
        return SCARD_S_SUCCESS;
    }
    closeSocket();
    return SCARD_E_NO_SERVICE;
}

LONG DaemonConnectionTEZ::startReceive(void* buffer, std::uint64_t size, HANDLE& ended) {
    if (!pipeHandle_.isOpen()) {
        return SCARD_E_NO_SERVICE;
    }
    startedRead_ = startRead(buffer, size);
    if (startedRead_ == nullptr) {
        return received(kFailed, size);
    }
    startedSize_ = size;
    ended = startedRead_->event();
    return SCARD_S_SUCCESS;
}

LONG DaemonConnectionTEZ::finishReceive() {
    return received(finishRead(std::move(startedRead_), startedSize_, INFINITE), startedSize_);
}

/// The buffer is its owner's again once this has returned, so the cancelled read is waited for: the
/// kernel ends it without asking the other end of the pipe.
void DaemonConnectionTEZ::giveUpStartedRead() {
    if (startedRead_ != nullptr) {
        DWORD count = 0;
        CancelIoEx(pipeHandle_.get(), startedRead_->overlapped());
        GetOverlappedResult(pipeHandle_.get(), startedRead_->overlapped(), &count, TRUE);
        startedRead_ = nullptr;
    }
}

LONG DaemonConnectionTEZ::readMessage(void* buffer, std::uint64_t size) {
    return receiveMessage(buffer, size, INFINITE);
}

bool DaemonConnectionTEZ::isProtocolAtLeast(std::uint32_t major, std::uint32_t minor) const {
    return protocolMajor_ > major || (protocolMajor_ == major && protocolMinor_ >= minor);
}

bool DaemonConnectionTEZ::checkDaemonAvailability() {
    static constexpr FunctionLog log("DaemonConnectionTEZ::checkDaemonAvailability");
    static constexpr const char* kNoName = "No socket name is defined for PCSC service";
    makePathAndToken();
    if (socketPath_ != nullptr && *socketPath_ != '\0') {
        return true;
    }
    std::fprintf(stderr, "%s\n", kNoName);
    log.warning("%s", kNoName);
    return false;
}

}  // namespace tez
