#pragma once

#include <windows.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>

#include "core/byte_stream.h"
#include "pipe/pipe_end.h"

namespace tez::pcscd {

/// The server's end of one client's pipe. One thread reads and any thread may write, pause or
/// close: close and pauseReading end reads and writes in progress instead of waiting for the
/// client.
class PipeConnection final : public ByteStream {
  public:
    /// Takes over an instance, opened for overlapped use, to which a client has connected.
    PipeConnection(std::uint64_t number, UniqueHandle pipe);

    std::uint64_t number() const { return number_; }

    /// The client's process; 0 when the system does not tell.
    std::uint32_t process() const { return process_; }

    std::size_t read(std::span<std::uint8_t> buffer) override;

    /// Writes the bytes with one WriteFile; blocks while the client does not take what exceeds the
    /// pipe's buffer.
    bool write(std::span<const std::uint8_t> bytes) override;

    /// After it has returned nothing is taken from the pipe until resumeReading.
    void pauseReading();
    void resumeReading();

    void close() override;

  private:
    // Between the two the pipe stays open. beginTransfer is false when it is closed already.
    bool beginTransfer(bool reading);
    void endTransfer(bool reading);

    const std::uint64_t number_;
    const UniqueHandle closing_ = makeEvent();  // these end transfers in progress
    const UniqueHandle pausing_ = makeEvent();
    std::mutex writing_;  // one write at a time

    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::optional<PipeEnd> pipe_;  // until it is closed
    const std::uint32_t process_;
    bool closed_ = false;
    bool paused_ = false;
    bool reading_ = false;
    int transfers_ = 0;
};

}  // namespace tez::pcscd
