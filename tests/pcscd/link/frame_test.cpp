#include "link/frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>

using namespace tez::link;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A decoder with all that it has handed out.
struct Receiver {
    FrameDecoder decoder;
    std::vector<Bytes> pieces;

    bool take(std::span<const std::uint8_t> bytes) {
        return decoder.decode(bytes, [this](std::span<const std::uint8_t> piece) {
            pieces.emplace_back(piece.begin(), piece.end());
            return true;
        });
    }
};

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

}  // namespace

TEST(Frame, IsTheLengthAndThePiece) {
    EXPECT_THAT(encodeFrame(Bytes{7, 8, 9}), ElementsAre(3, 0, 0, 0, 7, 8, 9));
    const Bytes large = encodeFrame(Bytes(0x10203, 5));
    EXPECT_THAT(Bytes(large.begin(), large.begin() + 5), ElementsAre(3, 2, 1, 0, 5));
    EXPECT_EQ(large.size(), 4U + 0x10203U);
}

TEST(Frame, CarriesNeitherNothingNorTooMuch) {
    EXPECT_THROW(encodeFrame({}), std::length_error);
    EXPECT_THROW(encodeFrame(Bytes(kLargestFrame + 1)), std::length_error);
    EXPECT_EQ(encodeFrame(Bytes(kLargestFrame)).size(), kLargestFrame + 4);
}

TEST(FrameDecoder, HandsOutEachPieceOfOneRead) {
    Receiver receiver;
    EXPECT_TRUE(receiver.take(joined({encodeFrame(Bytes{1}), encodeFrame(Bytes{2, 3})})));
    EXPECT_THAT(receiver.pieces, ElementsAre(Bytes{1}, Bytes{2, 3}));
    EXPECT_TRUE(receiver.decoder.isBetweenFrames());
}

TEST(FrameDecoder, PutsAPieceTogetherThatCameByteByByte) {
    Receiver receiver;
    for (const std::uint8_t byte : joined({encodeFrame(Bytes{1, 2, 3}), encodeFrame(Bytes{4})})) {
        EXPECT_TRUE(receiver.take({&byte, 1}));
    }
    EXPECT_THAT(receiver.pieces, ElementsAre(Bytes{1, 2, 3}, Bytes{4}));
}

TEST(FrameDecoder, KeepsAPieceBackUntilItsLastByte) {
    Receiver receiver;
    const Bytes frame = encodeFrame(Bytes{1, 2, 3});
    EXPECT_TRUE(receiver.take(std::span(frame).first(frame.size() - 1)));
    EXPECT_THAT(receiver.pieces, IsEmpty());
    EXPECT_FALSE(receiver.decoder.isBetweenFrames());
    EXPECT_TRUE(receiver.take(std::span(frame).last(1)));
    EXPECT_THAT(receiver.pieces, ElementsAre(Bytes{1, 2, 3}));
}

TEST(FrameDecoder, TakesTheLargestFrame) {
    Receiver receiver;
    const Bytes piece(kLargestFrame, 9);
    const Bytes frame = encodeFrame(piece);
    EXPECT_TRUE(receiver.take(std::span(frame).first(1000)));
    EXPECT_TRUE(receiver.take(std::span(frame).subspan(1000)));
    EXPECT_THAT(receiver.pieces, ElementsAre(piece));
}

TEST(FrameDecoder, EndsAtALengthThatNoFrameHas) {
    constexpr std::size_t kTooLarge = kLargestFrame + 1;
    static_assert(kTooLarge == 0x1010001);
    for (const Bytes& length :
         {Bytes{0, 0, 0, 0}, Bytes{1, 0, 1, 1}, Bytes{0xFF, 0xFF, 0xFF, 0xFF}}) {
        Receiver receiver;
        EXPECT_TRUE(receiver.take(std::span(length).first(3)));
        EXPECT_FALSE(receiver.take(joined({{length.back()}, {1, 2, 3}})));
        EXPECT_THAT(receiver.pieces, IsEmpty());
    }
}

TEST(FrameDecoder, EndsWhenTheSinkWantsNoMore) {
    for (const std::size_t cut : {std::size_t{5}, std::size_t{10}}) {
        const Bytes stream = joined({encodeFrame(Bytes{1, 2}), encodeFrame(Bytes{3, 4})});
        int calls = 0;
        const auto refuse = [&](std::span<const std::uint8_t>) { return ++calls > 1; };
        FrameDecoder decoder;
        const bool first = decoder.decode(std::span(stream).first(cut), refuse);
        EXPECT_EQ(first && decoder.decode(std::span(stream).subspan(cut), refuse), false);
        EXPECT_EQ(calls, 1);
    }
}

TEST(FrameDecoder, GivesBackWhatWasFramedHoweverTheStreamIsCut) {
    std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same run each time
    for (int round = 0; round < 200; ++round) {
        std::vector<Bytes> pieces;
        Bytes stream;
        for (int i = 0; i < 20; ++i) {
            pieces.emplace_back(1 + random() % 300, static_cast<std::uint8_t>(random()));
            const Bytes frame = encodeFrame(pieces.back());
            stream.insert(stream.end(), frame.begin(), frame.end());
        }
        Receiver receiver;
        std::span<const std::uint8_t> rest = stream;
        while (!rest.empty()) {
            const std::size_t cut = std::min<std::size_t>(random() % 400, rest.size());
            ASSERT_TRUE(receiver.take(rest.first(cut)));
            rest = rest.subspan(cut);
        }
        ASSERT_EQ(receiver.pieces, pieces);
    }
}
