#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "core/byte_stream.h"
#include "core/bytes.h"

namespace tez::pcscd {

/// A stream whose client is a test: what the test sends is there to be read, and what the daemon
/// writes is there to be taken, piece by piece.
class MemoryStream final : public ByteStream {
  public:
    std::size_t read(std::span<std::uint8_t> buffer) override;
    bool write(std::span<const std::uint8_t> bytes) override;
    void close() override;

    /// The client's side: bytes for the daemon to read.
    void send(std::span<const std::uint8_t> bytes);
    /// The client goes: what it sent is read, and then the stream ends.
    void hangUp();
    /// The next piece that the daemon wrote; waits for it. nullopt when it has closed, or does not
    /// write in time.
    std::optional<Bytes> takePiece();
    bool closed() const;

  private:
    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::deque<std::uint8_t> sent_;
    std::deque<Bytes> written_;
    bool hungUp_ = false;
    bool closed_ = false;
};

}  // namespace tez::pcscd
