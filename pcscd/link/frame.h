#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tez::link {

// What the agent wrote as one piece must reach the pipe's client as one piece, which a byte stream
// alone does not keep together: it is sent as a frame, a length of 4 bytes and that many bytes.

/// Of a frame's contents: the largest data of an answer, 16 MiB, with the record before them.
inline constexpr std::size_t kLargestFrame = (16U << 20U) + (64U << 10U);

/// The frame of a piece. Throws std::length_error for an empty piece, which has no frame, and for
/// one of more than kLargestFrame bytes, which the relay would not take.
std::vector<std::uint8_t> encodeFrame(std::span<const std::uint8_t> piece);

/// Puts the pieces together again, however the stream cut them. It holds what has come of one frame
/// and grows with what came, not with what a length announces.
class FrameDecoder {
  public:
    /// Takes a whole piece, which it may use until it returns. False ends the decoding.
    using Sink = std::function<bool(std::span<const std::uint8_t> piece)>;

    /// Takes the next bytes of the stream and hands out each piece that they complete. False when
    /// the sink wants no more, or when the stream is none of frames (a length of 0 or beyond
    /// kLargestFrame); the decoder is of no use after that.
    bool decode(std::span<const std::uint8_t> bytes, const Sink& sink);

    /// Whether the stream could end here: nothing of a further frame has come.
    bool isBetweenFrames() const { return lengthCount_ == 0; }

  private:
    std::array<std::uint8_t, 4> length_ = {};
    std::size_t lengthCount_ = 0;  // bytes of length_ that have come
    std::vector<std::uint8_t> piece_;
};

}  // namespace tez::link
