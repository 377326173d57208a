#pragma once

#include <chrono>
#include <mutex>
#include <optional>

#include "agent/file_descriptor.h"
#include "core/byte_stream.h"

namespace tez::agent {

/// A connection from the relay: the client's bytes come as they are, the answers go in frames.
class RelayStream final : public pcscd::ByteStream {
  public:
    explicit RelayStream(FileDescriptor socket) : socket_(std::move(socket)) {}

    /// Gives each of the reading thread's further reads so long for all that it is to get; nullopt:
    /// they wait for ever.
    void limitReads(std::optional<std::chrono::milliseconds> limit) { readLimit_ = limit; }

    std::size_t read(std::span<std::uint8_t> buffer) override;
    /// Writes the bytes as one frame.
    bool write(std::span<const std::uint8_t> bytes) override;
    /// Writes the bytes as they are.
    bool writeRaw(std::span<const std::uint8_t> bytes);
    void close() override;

  private:
    using Clock = std::chrono::steady_clock;

    bool awaitReadable(Clock::time_point deadline) const;

    const FileDescriptor socket_;
    std::optional<std::chrono::milliseconds> readLimit_;  // the reading thread's own
    std::mutex writing_;                                  // one frame at a time
};

}  // namespace tez::agent
