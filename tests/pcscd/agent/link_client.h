#pragma once

#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>

#include "agent/file_descriptor.h"
#include "core/bytes.h"
#include "core/platform.h"
#include "link/token.h"
#include "wire/card_records.h"
#include "wire/command_codes.h"
#include "wire/context_records.h"
#include "wire/message_header.h"
#include "wire/reader_records.h"

namespace tez::agent {

/// What the relay is to the agent: one connection of it, and the library that talks through it.
class LinkClient {
  public:
    /// Connects, without a word.
    explicit LinkClient(const std::filesystem::path& path);

    void send(std::span<const std::uint8_t> bytes) const;
    /// Exactly so many bytes; nullopt when the agent closes or is silent.
    std::optional<pcscd::Bytes> receive(std::size_t size) const;
    /// The contents of the next frame.
    std::optional<pcscd::Bytes> receiveFrame() const;
    /// Whether the agent closes without having said anything.
    bool isClosed() const { return !receive(1); }

    /// Shows the token for a client of this process of the relay. @return whether the agent shows
    /// its half.
    bool sayHello(const link::Token& token, std::uint32_t process, std::uint32_t relay = 1) const;
    /// The library's handshake. @return whether the agent answers with its version.
    bool shakeHands() const;

    void sendHeader(std::uint32_t command, std::size_t size) const;

    template <typename Record>
    void sendRequest(std::uint32_t command, const Record& record,
                     std::span<const std::uint8_t> data = {}) const {
        sendHeader(command, sizeof record + data.size());
        send(std::span(reinterpret_cast<const std::uint8_t*>(&record), sizeof record));
        send(data);
    }

    /// The record of the next answer; its rv is 0xFFFFFFFF when there is none.
    template <typename Record>
    Record receiveRecord() const {
        Record record{};
        const std::optional<pcscd::Bytes> frame = receiveFrame();
        if (frame && frame->size() == sizeof record) {
            std::memcpy(&record, frame->data(), sizeof record);
        } else {
            record.rv = 0xFFFFFFFF;
        }
        return record;
    }

    template <typename Record>
    Record call(std::uint32_t command, const Record& record,
                std::span<const std::uint8_t> data = {}) const {
        sendRequest(command, record, data);
        return receiveRecord<Record>();
    }

    std::uint64_t establish() const;
    ConnectRecord connect(std::uint64_t context, const char* reader,
                          std::uint32_t shareMode = pcscd::share::kShared) const;
    /// The response; empty after a failure.
    pcscd::Bytes transmit(const ConnectRecord& card, const pcscd::Bytes& command) const;
    pcscd::Bytes listReaders(std::uint64_t context) const;
    /// One reader's state, which the application takes for `known`; waits up to the time-out.
    void sendWait(std::uint64_t context, const char* reader, std::uint32_t known,
                  std::uint32_t timeout = pcscd::kInfinite) const;
    /// The answer to it: the result, and the reader's new state.
    std::pair<pcscd::Result, std::uint32_t> receiveWait() const;

  private:
    FileDescriptor socket_;
};

}  // namespace tez::agent
