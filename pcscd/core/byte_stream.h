#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tez::pcscd {

/// One client's connection. One thread reads, any may write or close; close ends the reads and
/// writes in progress.
class ByteStream {
  public:
    ByteStream() = default;
    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;
    virtual ~ByteStream() = default;

    /// Fills the buffer, however the client cut the bytes up. @return how many it got: fewer only
    /// when either side has closed.
    virtual std::size_t read(std::span<std::uint8_t> buffer) = 0;

    /// Writes the bytes as one piece, which the client gets with one read; blocks while the client
    /// does not take them. @return false when either side has closed.
    virtual bool write(std::span<const std::uint8_t> bytes) = 0;

    /// Closes at once; what was written already stays readable for the client.
    virtual void close() = 0;
};

}  // namespace tez::pcscd
