#pragma once

#include <cstdint>
#include <span>
#include <utility>

#include "pipe/transfer.h"

namespace tez::pcscd {

/// The server's end of one client's pipe, in byte mode. One thread may read while another one
/// writes. Its end closes the pipe; what was written stays readable for the client.
class PipeEnd {
  public:
    /// Takes over an instance, opened for overlapped use, to which a client has connected.
    explicit PipeEnd(UniqueHandle pipe) : pipe_(std::move(pipe)) {}

    /// The client's process; 0 when the system does not know it.
    std::uint32_t clientProcess() const;

    /// Reads what there is, at least a byte; fails when the client is gone.
    Outcome read(std::span<std::uint8_t> buffer, Interrupts interrupts);
    /// Writes the bytes with one WriteFile; returns when the client has taken what exceeds the
    /// pipe's buffer. False when the client is gone, or when interrupted, before it had them all.
    bool write(std::span<const std::uint8_t> bytes, Interrupts interrupts);

  private:
    const UniqueHandle pipe_;
    Transfer reading_;
    Transfer writing_;
};

}  // namespace tez::pcscd
