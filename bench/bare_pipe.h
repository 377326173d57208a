#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "pipe/unique_handle.h"

namespace tez::bench {

/// One write or read on the pipe.
struct Piece {
    bool isWrite = false;
    std::vector<std::uint8_t> bytes;  ///< what a write sends; for a read only how many they are
};

/// What a call sends and reads on the daemon's pipe, piece by piece.
using Pattern = std::vector<Piece>;

/// Makes a call, which must need one exchange on a connection that is there, and notes its pieces.
Pattern patternOf(const std::function<void()>& call);

/// A connection to the daemon with nothing around it but an event for each operation: the limit of
/// what the library can reach.
class BarePipe {
  public:
    /// Opens the pipe and shakes hands. Throws std::runtime_error.
    BarePipe();

    /// Writes and reads the same pieces.
    void play(const Pattern& pattern);

  private:
    void transfer(bool isWrite, void* data, DWORD size);

    pcscd::UniqueHandle pipe_;
    std::vector<std::uint8_t> buffer_;
};

}  // namespace tez::bench
