#include "carddb/atr.h"

#include <algorithm>
#include <bit>
#include <gtest/gtest.h>
#include <random>
#include <string>

#include "guarded_buffer.h"
#include "record_codec.h"

using namespace tez;
using test::Bytes;
using test::GuardedBuffer;

namespace {

constexpr std::uint8_t kDirectConvention = 0x3B;

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

/// The length of an ATR whose last byte is followed by memory that cannot be read.
std::uint32_t lengthOf(const Bytes& atr) {
    const GuardedBuffer guarded(atr.size());
    std::ranges::copy(atr, guarded.data());
    return parseAtrLength(guarded.data());
}

/// The same in a field as the daemon's records have it: the rest is zero.
std::uint32_t lengthInField(Bytes atr) {
    atr.resize(kLongestAtr);
    return lengthOf(atr);
}

/// The byte that makes the XOR of all behind TS zero.
void appendCheckByte(Bytes& atr) {
    std::uint8_t sum = 0;
    for (std::size_t i = 1; i < atr.size(); ++i) {
        sum ^= atr[i];
    }
    atr.push_back(sum);
}

/// A well-formed ATR of any length; one in four or so is too long to be allowed.
Bytes randomAtr(std::mt19937& random) {
    const auto anyByte = [&random] { return static_cast<std::uint8_t>(random() & 0xFF); };
    const std::size_t historicalBytes = random() % 16;
    Bytes atr = {static_cast<std::uint8_t>(random() % 2 == 0 ? 0x3B : 0x3F)};
    auto lowNibble = static_cast<unsigned>(historicalBytes);
    bool needsCheckByte = false;
    for (std::size_t more = random() % 12 + 1; more > 0; --more) {
        const unsigned present = random() % 8;
        atr.push_back(
            static_cast<std::uint8_t>((more > 1 ? 0x80U : 0U) | present << 4U | lowNibble));
        for (int i = std::popcount(present); i > 0; --i) {
            atr.push_back(anyByte());
        }
        // Protocol 0 three times out of four: else hardly any ATR would do without a check byte.
        lowNibble = more > 1 && random() % 4 == 0 ? random() % 16 : 0U;
        needsCheckByte = needsCheckByte || lowNibble != 0;
    }
    for (std::size_t i = 0; i < historicalBytes; ++i) {
        atr.push_back(anyByte());
    }
    if (needsCheckByte) {
        appendCheckByte(atr);
    }
    return atr;
}

struct KnownAtr {
    const char* description;
    const char* hex;
    /// What the first bytes alone give, from none on, with zeros behind them.
    std::vector<std::uint32_t> truncated;
    /// Without TS the interface bytes are looked for one place earlier, in the daemon's way too.
    std::uint32_t withoutTs;
};

const std::vector<KnownAtr>& knownAtrs() {
    static const std::vector<KnownAtr> atrs = {
        {"NothingButT0", "3B00", {1, 2}, 1},
        {"T0WithHistoricalBytes", "3B021450", {1, 2, 4, 4}, 3},
        {"T0InverseConventionWithInterfaceBytes",
         "3F6525002C09699000",
         {1, 2, 9, 9, 9, 9, 9, 9, 9},
         8},
        {"T0AndT1WithoutHistoricalBytes", "3B80800101", {1, 2, 3, 4, 0}, 5},
        {"T0AndT1Contactless",
         "3B8F8001804F0CA000000306030001000000006A",
         {1, 2, 18, 19, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         20},
        {"T0AndGlobalInterfaceBytes",
         "3B9F95801FC38031E073FE21135786810286984418A8",
         {1, 2, 19, 19, 20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         22},
        {"T1",
         "3BDA18FF81B1FE751F030031C573C001400090000C",
         {1, 2, 15, 15, 15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
         22},
    };
    return atrs;
}

void PrintTo(const KnownAtr& atr, std::ostream* stream) {
    *stream << atr.hex;
}

class KnownAtrTest : public testing::TestWithParam<KnownAtr> {
  protected:
    const Bytes atr_ = fromHex(GetParam().hex);
};

TEST_P(KnownAtrTest, HasTheLengthOfItsBytes) {
    EXPECT_EQ(lengthOf(atr_), atr_.size());
}

TEST_P(KnownAtrTest, HasThatLengthWhateverStandsBehindIt) {
    Bytes longer = atr_;
    longer.resize(kLongestAtr, 0xA5);
    EXPECT_EQ(lengthOf(longer), atr_.size());
}

TEST_P(KnownAtrTest, CutShortIsMeasuredByWhatIsLeftOfItsStructure) {
    ASSERT_EQ(GetParam().truncated.size(), atr_.size());
    for (std::size_t size = 0; size < atr_.size(); ++size) {
        EXPECT_EQ(lengthInField({atr_.begin(), atr_.begin() + static_cast<int>(size)}),
                  GetParam().truncated[size])
            << "of " << size << " bytes";
    }
}

TEST_P(KnownAtrTest, WithoutTsIsCountedFromT0) {
    EXPECT_EQ(lengthInField({atr_.begin() + 1, atr_.end()}), GetParam().withoutTs);
}

TEST_P(KnownAtrTest, WithAnyBitFlippedBehindTheInterfaceBytesIsMalformedIfItHasACheckByte) {
    const bool hasCheckByte = GetParam().truncated.back() == 0;
    const std::size_t historicalBytes = atr_[1] & 0x0F;
    for (std::size_t i = atr_.size() - (hasCheckByte ? 1 : 0) - historicalBytes; i < atr_.size();
         ++i) {
        for (unsigned bit = 0; i >= 2 && bit < 8; ++bit) {
            Bytes damaged = atr_;
            damaged[i] = static_cast<std::uint8_t>(damaged[i] ^ 1U << bit);
            EXPECT_EQ(lengthOf(damaged), hasCheckByte ? 0 : atr_.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Atr, KnownAtrTest, testing::ValuesIn(knownAtrs()),
                         [](const auto& given) { return std::string(given.param.description); });

TEST(ParseAtrLengthTest, OfNothingIsNone) {
    EXPECT_EQ(parseAtrLength(nullptr), 0U);
}

TEST(ParseAtrLengthTest, OfTheLongestAtrsIs33) {
    const Bytes withCheckByte =
        fromHex("3BFF112233F1445566F177889971AABBCC0102030405060708090A0B0C0D0E0F42");
    const Bytes without =
        fromHex("3BFF112233F0445566F0778899F0AABBCC000102030405060708090A0B0C0D0E0F");
    ASSERT_EQ(withCheckByte.size(), kLongestAtr);
    ASSERT_EQ(without.size(), kLongestAtr);
    EXPECT_EQ(lengthOf(withCheckByte), kLongestAtr);
    EXPECT_EQ(lengthOf(without), kLongestAtr);
}

TEST(ParseAtrLengthTest, OfOneByteMoreIsMalformed) {
    Bytes withCheckByte =
        fromHex("3BFF112233F1445566F1778899F1AABBCC000102030405060708090A0B0C0D0E0F");
    appendCheckByte(withCheckByte);
    const Bytes without =
        fromHex("3BFF112233F0445566F0778899F0AABBCC10000102030405060708090A0B0C0D0E0F");
    ASSERT_EQ(withCheckByte.size(), kLongestAtr + 1);
    ASSERT_EQ(without.size(), kLongestAtr + 1);
    for (const Bytes& atr : {withCheckByte, without}) {
        EXPECT_EQ(lengthOf(atr), kLongestAtr + 1);
    }
}

TEST(ParseAtrLengthTest, OfInterfaceBytesWithoutEndIsNone) {
    EXPECT_EQ(lengthOf(Bytes(kLongestAtr, 0xFF)), 0U);
    EXPECT_EQ(lengthOf(Bytes(kLongestAtr, 0x80)), 0U);
    Bytes atr(kLongestAtr, 0x80);
    atr[0] = kDirectConvention;
    EXPECT_EQ(lengthOf(atr), 0U);
    std::fill(atr.begin() + 1, atr.end(), 0xFF);
    EXPECT_EQ(lengthOf(atr), 0U);
}

TEST(ParseAtrLengthTest, NeverReadsPastAWellFormedAtr) {
    std::mt19937 random(20240229);  // NOLINT(bugprone-random-generator-seed): the same every time
    const GuardedBuffer guarded(kLongestAtr);
    int allowed = 0;
    int tooLong = 0;
    for (int i = 0; i < 100000; ++i) {
        const Bytes atr = randomAtr(random);
        if (atr.size() <= kLongestAtr) {
            ++allowed;
            // The bytes end where nothing can be read.
            std::uint8_t* const start = guarded.data() + kLongestAtr - atr.size();
            std::ranges::copy(atr, start);
            ASSERT_EQ(parseAtrLength(start), atr.size()) << testing::PrintToString(atr);
        } else {
            ++tooLong;
            const Bytes first(atr.begin(), atr.begin() + static_cast<int>(kLongestAtr));
            const std::uint32_t length = lengthOf(first);
            ASSERT_TRUE(length == 0 || length > kLongestAtr) << testing::PrintToString(atr);
        }
    }
    EXPECT_GT(allowed, 10000);
    EXPECT_GT(tooLong, 10000);
}

TEST(ParseAtrLengthTest, NeverReadsPast33BytesOfAnything) {
    std::mt19937 random(20240301);  // NOLINT(bugprone-random-generator-seed): the same every time
    const GuardedBuffer guarded(kLongestAtr);
    int accepted = 0;
    for (int i = 0; i < 200000; ++i) {
        // Bits that are often set make for long chains, zero low nibbles for no check byte.
        const auto often = static_cast<std::uint8_t>(random() % 4 * 0x40);
        const auto mask = static_cast<std::uint8_t>(random() % 2 == 0 ? 0xF0 : 0xFF);
        for (std::uint8_t& byte : guarded.bytes()) {
            byte = static_cast<std::uint8_t>(((random() & 0xFF) | often) & mask);
        }
        if (random() % 2 == 0) {
            guarded.bytes()[0] = kDirectConvention;
        }
        const std::uint32_t length = parseAtrLength(guarded.data());
        ASSERT_LE(length, 33U + 15U);
        if (length == 0 || length > kLongestAtr) {
            continue;
        }
        ++accepted;
        // What was accepted is measured alike when nothing but its own bytes can be read.
        const Bytes atr(guarded.data(), guarded.data() + length);
        const Bytes rest(guarded.data() + length, guarded.data() + kLongestAtr);
        std::ranges::copy(atr, guarded.data() + rest.size());
        ASSERT_EQ(parseAtrLength(guarded.data() + rest.size()), length)
            << testing::PrintToString(atr);
    }
    EXPECT_GT(accepted, 10000);
}

TEST(AtrToHexTest, ShowsTwoUpperCaseDigitsForEachByte) {
    const Bytes bytes = {0x3B, 0x00, 0xAF, 0x9E};
    EXPECT_EQ(atrToHex(bytes.data(), 4), "3B00AF9E");
    EXPECT_EQ(atrToHex(bytes.data(), 1), "3B");
}

TEST(AtrToHexTest, ShowsNothingOfNothing) {
    const Bytes bytes = {0x3B};
    EXPECT_EQ(atrToHex(bytes.data(), 0), "");
    EXPECT_EQ(atrToHex(nullptr, 5), "");
}

}  // namespace
