#include "link/frame.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "link/little_endian.h"

namespace tez::link {
namespace {

bool isFrameLength(std::size_t length) {
    return length > 0 && length <= kLargestFrame;
}

}  // namespace

std::vector<std::uint8_t> encodeFrame(std::span<const std::uint8_t> piece) {
    if (!isFrameLength(piece.size())) {
        throw std::length_error("a piece that no frame can carry");
    }
    std::array<std::uint8_t, 4> length = {};
    putLittleEndian(length, static_cast<std::uint32_t>(piece.size()));
    std::vector<std::uint8_t> frame;
    frame.reserve(length.size() + piece.size());
    frame.insert(frame.end(), length.begin(), length.end());
    frame.insert(frame.end(), piece.begin(), piece.end());
    return frame;
}

bool FrameDecoder::decode(std::span<const std::uint8_t> bytes, const Sink& sink) {
    while (!bytes.empty()) {
        if (lengthCount_ < length_.size()) {
            length_[lengthCount_++] = bytes.front();
            bytes = bytes.subspan(1);
            if (lengthCount_ == length_.size() && !isFrameLength(littleEndian(length_))) {
                return false;
            }
            continue;
        }
        const std::size_t size = littleEndian(length_);
        const std::span<const std::uint8_t> part =
            bytes.first(std::min(size - piece_.size(), bytes.size()));
        bytes = bytes.subspan(part.size());
        if (part.size() == size) {  // as a rule: no need to copy it
            lengthCount_ = 0;
            if (!sink(part)) {
                return false;
            }
            continue;
        }
        piece_.insert(piece_.end(), part.begin(), part.end());
        if (piece_.size() == size) {
            const std::vector<std::uint8_t> piece = std::exchange(piece_, {});
            lengthCount_ = 0;
            if (!sink(piece)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace tez::link
