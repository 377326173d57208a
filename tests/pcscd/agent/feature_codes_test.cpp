#include "agent/feature_codes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tez::agent {
namespace {

using pcscd::Bytes;

/// A reader without features.
Bytes none() {
    return {};
}

TEST(FeatureCodesTest, GivesEachFeatureAControlCodeOfTheWindowsInterface) {
    FeatureCodes codes;
    Bytes features{0x06, 4, 0x42, 0x33, 0x00, 0x06, 0x12, 4, 0x42, 0x33, 0x00, 0x12};
    codes.translate(features);
    EXPECT_EQ(features, (Bytes{0x06, 4, 0x00, 0x31, 0x24, 0x18, 0x12, 4, 0x00, 0x31, 0x24, 0x48}));
    // Bits 2 to 13 of these are the function numbers that come back.
    EXPECT_EQ(codes.serviceCode(0x2418 >> 2, none), 0x42330006U);
    EXPECT_EQ(codes.serviceCode(0x2448 >> 2, none), 0x42330012U);
}

TEST(FeatureCodesTest, AsksTheReaderForWhatAnEarlierConnectionWasTold) {
    FeatureCodes codes;
    int requests = 0;
    const auto request = [&] {
        ++requests;
        return Bytes{0x06, 4, 0x42, 0x33, 0x00, 0x06};
    };
    EXPECT_EQ(codes.serviceCode(0x906, request), 0x42330006U);
    EXPECT_EQ(codes.serviceCode(0x906, request), 0x42330006U);
    EXPECT_EQ(requests, 1) << "known now";
    EXPECT_EQ(codes.serviceCode(0x907, request), 0x42000000U + 0x907) << "no feature";
    EXPECT_EQ(codes.serviceCode(0x8FF, request), 0x42000000U + 0x8FF);
    EXPECT_EQ(codes.serviceCode(0xA00, request), 0x42000000U + 0xA00);
    EXPECT_EQ(requests, 2) << "others are nobody's feature";
}

TEST(FeatureCodesTest, LeavesOtherFunctionsAndOtherAnswersAlone) {
    FeatureCodes codes;
    EXPECT_EQ(codes.serviceCode(3400, none), 0x42000000U + 3400);
    Bytes odd{0x06, 2, 0x42, 0x33, 0x00, 0x06, 0x01};
    const Bytes before = odd;
    codes.translate(odd);
    EXPECT_EQ(odd, before);
    Bytes torn{0x06, 4, 0x42};
    codes.translate(torn);
    EXPECT_EQ(torn, (Bytes{0x06, 4, 0x42}));
}

}  // namespace
}  // namespace tez::agent
