#pragma once

#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <thread>

#include "core/daemon.h"
#include "memory_stream.h"
#include "wire/card_records.h"
#include "wire/context_records.h"
#include "wire/message_header.h"
#include "wire/reader_records.h"

namespace tez::pcscd {

/// One connection of a client to a daemon in this process, with the thread that serves it.
class DaemonClient {
  public:
    DaemonClient(Daemon& daemon, Clients::Process process)
        : serving_([this, &daemon, process] {
              try {
                  daemon.serve(stream_, reinterpret_cast<std::uintptr_t>(this), process);
              } catch (const std::exception&) {
                  failed_ = true;
              }
          }) {}
    /// Ends the connection and waits until it is served no more.
    ~DaemonClient() { awaitEnd(); }
    DaemonClient(const DaemonClient&) = delete;
    DaemonClient& operator=(const DaemonClient&) = delete;

    MemoryStream& stream() { return stream_; }

    /// Ends the connection. @return whether something went wrong in serving it.
    bool awaitEnd() {
        stream_.hangUp();
        if (serving_.joinable()) {
            serving_.join();
        }
        return failed_;
    }

    /// @return the version record.
    std::optional<Bytes> shakeHands() {
        stream_.send(Bytes{0, 0xFF, 0xFF, 0xFF, 0xFF});
        return stream_.takePiece();
    }

    void sendHeader(std::uint32_t command, std::size_t size) {
        const MessageHeader header{static_cast<std::uint32_t>(size), command, 0};
        stream_.send(std::span(reinterpret_cast<const std::uint8_t*>(&header), sizeof header));
    }

    /// Sends a request: the bytes of its record and what follows them.
    template <typename Record>
    void send(std::uint32_t command, const Record& record,
              std::span<const std::uint8_t> data = {}) {
        sendHeader(command, sizeof record + data.size());
        stream_.send(std::span(reinterpret_cast<const std::uint8_t*>(&record), sizeof record));
        stream_.send(data);
    }

    /// The record of the next answer; nullopt when there is none.
    template <typename Record>
    std::optional<Record> receive() {
        const std::optional<Bytes> piece = stream_.takePiece();
        if (!piece || piece->size() != sizeof(Record)) {
            return std::nullopt;
        }
        Record record = {};
        std::memcpy(&record, piece->data(), sizeof record);
        return record;
    }

    template <typename Record>
    std::optional<Record> call(std::uint32_t command, const Record& record,
                               std::span<const std::uint8_t> data = {}) {
        send(command, record, data);
        return receive<Record>();
    }

    Context establish() {
        return call(CMD_ESTABLISH_CONTEXT, EstablishRecord{}).value_or(EstablishRecord{}).hContext;
    }

    ConnectRecord connect(Context context, const char* reader,
                          std::uint32_t shareMode = share::kShared) {
        ConnectRecord record{context, {}, shareMode, protocol::kT0 | protocol::kT1, 0, 0, 0};
        std::strncpy(record.szReader, reader, sizeof record.szReader - 1);
        return call(CMD_SCARD_CONNECT, record).value_or(ConnectRecord{});
    }

  private:
    MemoryStream stream_;
    bool failed_ = false;  // written by the thread, to be read behind its end
    std::thread serving_;
};

}  // namespace tez::pcscd
