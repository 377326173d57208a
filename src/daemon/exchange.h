#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "common/heap.h"
#include "daemon/daemon_connection.h"
#include "daemon/version_gate.h"
#include "log/function_log.h"
#include "wire/command_codes.h"

namespace tez {

/// What an exchange logs when sending its request as a whole, or reading the record back, fails.
struct FailureLines {
    LogLevel level;
    const char* send;
    const char* receive;
};

/// Whether the header's 32-bit size can announce a record and what follows it. A request for which
/// it cannot is refused with SCARD_E_INVALID_PARAMETER; this is for calls that would make or read
/// its data before.
constexpr bool isSendable(std::uint64_t recordSize, std::uint64_t tailSize) noexcept {
    return tailSize <= std::numeric_limits<std::uint32_t>::max() - recordSize;
}

inline constexpr FailureLines kFailureLines = {LogLevel::Warning, "Failed to send header",
                                               "Failed to receive data"};

/// One exchange with the daemon: takes a connection from the pool, sends a request, reads the
/// answer, and gives the connection back on every path.
///
///     Exchange exchange(call.log());
///     if (!exchange.hasConnection()) {
///         return SCARD_E_NO_SERVICE;
///     }
///     HandleRecord record = {handle, 0};
///     return exchange.call(CMD_BEGIN_TRANSACTION, record);
///
/// A failed step logs a warning under the caller's name and returns the transport's code. Output
/// fields of a record are valid only when its rv, which the calls return, is 0.
class Exchange {
  public:
    /// Takes a connection. The log and the lines must outlive the exchange.
    explicit Exchange(const FunctionLog& log, const FailureLines& failureLines = kFailureLines);
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;
    /// Gives the connection back. When the daemon has announced bytes that were not read, or its
    /// answer was not waited for, the pipe is closed first: the next call on this connection must
    /// not take them for its answer.
    ~Exchange();

    // A call looks at its connection first, in one of two ways:
    /// Whether there is one. For the commands up to CMD_GET_ATTRIB but the wait, which every PC/SC
    /// daemon serves: on a pipe that could not be opened their header fails, and the log says so.
    bool hasConnection() const noexcept { return connection_ != nullptr; }

    /// Whether there is one and it is open, which is tried once more. For the wait, and for
    /// CMD_SET_ATTRIB and all commands behind it: without an open pipe they fail silently.
    bool isConnected() { return hasConnection() && connection_->connect(); }

    // Nothing of what follows may be called without a connection.

    /// The daemon's version counts from major 1 while it serves behind the host, from 0 else.
    bool isMinorAtLeast(ServiceState state, std::uint32_t minor) const;

    /// Whether the daemon's version, as it told it last, meets a gate.
    bool meets(ServiceState state, const VersionGate& gate) const;

    /// Makes an exchange whose request or limits depend on a gate: attempt(isMet) checks and makes
    /// the request accordingly, exchanges it, and returns a PC/SC code.
    ///
    /// The version that the connection knows may be that of a daemon which has gone: a header that
    /// cannot be written to a stale pipe is carried over to the daemon that serves it now. When
    /// the gate is another matter there, that header is given up with its pipe, before anything has
    /// followed it, and attempt is called again; all other exchanges just go on.
    template <class Attempt>
    [[nodiscard]] LONG adapt(ServiceState state, const VersionGate& gate, Attempt attempt) {
        if (!gate.minorFor(state)) {
            return attempt(true);
        }
        LONG rv = SCARD_S_SUCCESS;
        do {
            gate_ = AskedGate{state, gate, meets(state, gate)};
            rv = attempt(gate_->isMet);
        } while (std::exchange(isGivenUp_, false));
        gate_.reset();
        return rv;
    }

    /// As adapt, for the calls that only Windows has: with a daemon that does not know them,
    /// attempt() is not called. Logs that, and returns SCARD_F_INTERNAL_ERROR.
    template <class Attempt>
    [[nodiscard]] LONG ifCompatible(ServiceState state, Attempt attempt) {
        return adapt(state, kWindowsCalls, [&](bool isCompatible) {
            return isCompatible ? attempt() : refuseIncompatible();
        });
    }

    /// Sends the record, and behind it in the same piece the bytes of a tail, and reads the
    /// daemon's copy of the record back.
    template <class Record>
    [[nodiscard]] LONG call(CommandCode command, Record& record, std::string_view tail = {}) {
        const LONG rv = sendWhole(command, bytesOf(record), tail, std::nullopt);
        return rv == SCARD_S_SUCCESS ? readBack(record) : rv;
    }

    /// As call, for requests that tell a connection whether they are redirected ones.
    template <class Record>
    [[nodiscard]] LONG callFlagged(CommandCode command, Record& record, bool flag,
                                   std::string_view tail = {}) {
        const LONG rv = sendWhole(command, bytesOf(record), tail, flag);
        return rv == SCARD_S_SUCCESS ? readBack(record) : rv;
    }

    /// As call, for a request whose record is followed by a data phase.
    template <class Record>
    [[nodiscard]] LONG callWithData(CommandCode command, Record& record, const void* data,
                                    std::uint32_t size, const char* dataFailure) {
        LONG rv = sendHeader(command, sizeof(record), size);
        if (rv == SCARD_S_SUCCESS) {
            rv = send(&record, sizeof(record), "Failed to send data");
        }
        if (rv == SCARD_S_SUCCESS) {
            rv = send(data, size, dataFailure);
        }
        return rv == SCARD_S_SUCCESS ? readBack(record) : rv;
    }

    // The steps of an exchange whose request is made of more than these:

    /// Announces a record and what follows it. SCARD_E_INVALID_PARAMETER, with nothing sent, when
    /// the header's 32-bit size cannot hold the sum.
    [[nodiscard]] LONG sendHeader(CommandCode command, std::uint32_t recordSize,
                                  std::uint32_t dataSize);

    /// Sends a piece of the request. No bytes are no piece: a write of none would end the daemon's
    /// next read with none, which it may take for the end of the connection.
    [[nodiscard]] LONG send(const void* data, std::uint32_t size, const char* failure);

    /// Reads the daemon's copy of the record; returns the transport's code only.
    template <class Record>
    [[nodiscard]] LONG receive(Record& record) {
        static_assert(std::is_trivially_copyable_v<Record>);
        return warnUnless(connection_->readMessage(&record, sizeof(record)), failureLines_.receive);
    }

    /// Starts to read the daemon's copy of the record, for a caller that waits for other things
    /// too. The record has to outlive the exchange, whose end gives up a read that is not finished.
    /// Returns the transport's code.
    template <class Record>
    [[nodiscard]] LONG startReceive(Record& record) {
        static_assert(std::is_trivially_copyable_v<Record>);
        return startReceive(&record, sizeof(record));
    }
    /// An event that is set when the started read is over.
    HANDLE received() const noexcept { return received_; }
    /// Finishes that read, waiting for its end if need be; returns the transport's code.
    [[nodiscard]] LONG finishReceive();

    /// Reads the daemon's copy of the record; returns the transport's code or the daemon's.
    template <class Record>
    [[nodiscard]] LONG readBack(Record& record) {
        const LONG rv = receive(record);
        return rv == SCARD_S_SUCCESS ? static_cast<LONG>(record.rv) : rv;
    }

    // The data phase of an answer:

    /// To be called as soon as the answer has announced size bytes; giving up before all of them
    /// have been read closes the pipe.
    void announce(std::uint64_t size) noexcept { announced_ = size; }

    /// Reads the next size of the announced bytes into a buffer that has room for them.
    [[nodiscard]] LONG readAnnounced(void* buffer, std::uint32_t size, const char* failure);

    /// Announces and reads a data phase of whatever length into a new block, which ends in a NUL of
    /// its own behind it. SCARD_E_NO_MEMORY, with a null block, when there is no memory for it;
    /// more than 16 MiB, far above all that a daemon has to send, counts as that.
    [[nodiscard]] LONG readBlock(std::uint32_t size, HeapPtr<char>& block, const char* failure);

  private:
    template <class Record>
    static std::string_view bytesOf(const Record& record) noexcept {
        return {reinterpret_cast<const char*>(&record), sizeof(record)};
    }

    [[nodiscard]] LONG sendWhole(CommandCode command, std::string_view record,
                                 std::string_view tail, std::optional<bool> flag);

    [[nodiscard]] LONG startReceive(void* record, std::uint32_t size);

    [[nodiscard]] LONG warnUnless(LONG rv, const char* failure) const;

    [[nodiscard]] LONG refuseIncompatible() const;

    /// A gate that the request depends on, as it was found before.
    struct AskedGate {
        ServiceState state;
        VersionGate gate;
        bool isMet;
    };

    const FunctionLog& log_;
    const FailureLines& failureLines_;
    std::unique_ptr<DaemonConnection> connection_;
    std::optional<AskedGate> gate_;
    bool isGivenUp_ = false;  ///< the header, for the gate is another matter now
    std::uint64_t announced_ = 0;
    HANDLE received_ = nullptr;  ///< of a read that is started and not finished
};

/// The whole of an exchange that has neither gates nor data phases.
/// @return SCARD_E_NO_SERVICE when there is no connection, else as Exchange::call.
template <class Record>
[[nodiscard]] LONG exchangeRecord(const FunctionLog& log, CommandCode command, Record& record) {
    Exchange exchange(log);
    return exchange.hasConnection() ? exchange.call(command, record) : SCARD_E_NO_SERVICE;
}

}  // namespace tez
