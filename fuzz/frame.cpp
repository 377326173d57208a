// The stream that an agent sends to its relay: any bytes, cut anywhere.
#include "link/frame.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/holds.h"

using namespace tez::link;
using tez::fuzz::holds;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A decoder with all that it has handed out.
struct Receiver {
    FrameDecoder decoder;
    std::vector<Bytes> pieces;

    bool take(std::span<const std::uint8_t> bytes) {
        return decoder.decode(bytes, [this](std::span<const std::uint8_t> piece) {
            holds(!piece.empty() && piece.size() <= kLargestFrame);
            pieces.emplace_back(piece.begin(), piece.end());
            return true;
        });
    }
};

/// The frames of the pieces, one behind the other.
Bytes framesOf(const std::vector<Bytes>& pieces) {
    Bytes frames;
    for (const Bytes& piece : pieces) {
        const Bytes frame = encodeFrame(piece);
        frames.insert(frames.end(), frame.begin(), frame.end());
    }
    return frames;
}

/// The stream in parts of a size, and whether it was one of frames.
bool takeInParts(Receiver& receiver, std::span<const std::uint8_t> stream, std::size_t size) {
    while (!stream.empty()) {
        const std::size_t part = std::min(size, stream.size());
        if (!receiver.take(stream.first(part))) {
            return false;
        }
        stream = stream.subspan(part);
    }
    return true;
}

}  // namespace

/// The first byte says how large the parts are that the stream comes in.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::span<const std::uint8_t> stream(data + 1, size - 1);
    Receiver atOnce;
    const bool isOfFrames = atOnce.take(stream);
    Receiver inParts;
    holds(takeInParts(inParts, stream, std::size_t{1} + data[0]) == isOfFrames);
    holds(inParts.pieces == atOnce.pieces);

    // What was handed out is what stands in front; the rest is a frame that has begun, or a length
    // that no frame has.
    const Bytes frames = framesOf(atOnce.pieces);
    holds(frames.size() <= stream.size());
    holds(std::ranges::equal(frames, stream.first(frames.size())));
    const std::span<const std::uint8_t> rest = stream.subspan(frames.size());
    std::uint32_t announced = 0;
    for (std::size_t i = 0; i < 4 && rest.size() >= 4; ++i) {
        announced |= std::uint32_t{rest[i]} << 8 * i;
    }
    const bool isNoFrame = rest.size() >= 4 && (announced == 0 || announced > kLargestFrame);
    holds(isOfFrames != isNoFrame);
    if (isOfFrames) {
        holds(atOnce.decoder.isBetweenFrames() == rest.empty());
        holds(inParts.decoder.isBetweenFrames() == rest.empty());
        holds(rest.size() < 4 || rest.size() - 4 < announced);
    }

    // And a piece of any bytes comes back as it was.
    if (!stream.empty()) {
        Receiver back;
        holds(takeInParts(back, encodeFrame(stream), std::size_t{1} + data[0]));
        holds(back.pieces.size() == 1 && std::ranges::equal(back.pieces[0], stream));
        holds(back.decoder.isBetweenFrames());
    }
    return 0;
}
