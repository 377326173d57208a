#pragma once

#include <windows.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

#include "pipe/unique_handle.h"
#include "simulated/virtual_card.h"

namespace tez::test {

/// The server's end of one client's pipe. One thread reads and any thread may write, pause or
/// close: close and pauseReading end reads and writes in progress instead of waiting for the
/// client.
class PipeConnection {
  public:
    /// Takes over an instance, opened for overlapped use, to which a client has connected.
    PipeConnection(std::uint64_t number, UniqueHandle pipe);

    std::uint64_t number() const { return number_; }

    /// Reads as many bytes as the buffer holds, however the client cut them up. Returns how many it
    /// got: fewer only when the pipe was closed by either side.
    std::size_t read(std::span<std::uint8_t> buffer);

    /// Writes the bytes with one WriteFile; blocks while the client does not take what exceeds the
    /// pipe's buffer. False when the pipe was closed by either side.
    bool write(std::span<const std::uint8_t> bytes);

    /// After it has returned nothing is taken from the pipe until resumeReading.
    void pauseReading();
    void resumeReading();

    /// Closes the pipe at once; what was written already stays readable for the client.
    void close();

  private:
    // Between the two the pipe stays open. beginTransfer is false when it is closed already.
    bool beginTransfer(bool reading);
    void endTransfer(bool reading);

    const std::uint64_t number_;
    const UniqueHandle closing_;  // manual-reset events that end transfers in progress
    const UniqueHandle pausing_;
    std::mutex writing_;  // one write at a time

    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    UniqueHandle pipe_;
    bool closed_ = false;
    bool paused_ = false;
    bool reading_ = false;
    int transfers_ = 0;
};

}  // namespace tez::test
