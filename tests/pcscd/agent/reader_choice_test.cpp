#include "agent/reader_choice.h"

#include <gtest/gtest.h>

namespace tez::agent {
namespace {

TEST(ReaderChoiceTest, ServesAllReadersUnlessToldOtherwise) {
    EXPECT_TRUE(ReaderChoice{}.isChosen("Reader 0"));
    EXPECT_EQ(ReaderChoice{}.servedName("Reader 0"), "Reader 0");
    const ReaderChoice choice{{"Reader *", "Pad"}, {"*1"}, "Home "};
    EXPECT_EQ(choice.servedName("Reader 0"), "Home Reader 0");
    EXPECT_TRUE(choice.isChosen("Reader 0"));
    EXPECT_TRUE(choice.isChosen("Pad"));
    EXPECT_FALSE(choice.isChosen("Reader 1")) << "denied";
    EXPECT_FALSE(choice.isChosen("Pad 2")) << "not chosen";
}

TEST(ReaderChoiceTest, LeavesOutWhatTheProtocolHasNoRoomFor) {
    EXPECT_TRUE(ReaderChoice{}.servedName(std::string(127, 'R')));
    EXPECT_FALSE(ReaderChoice{}.servedName(std::string(128, 'R')));
    const ReaderChoice prefixed{{}, {}, "x"};
    EXPECT_FALSE(prefixed.servedName(std::string(127, 'R')));
}

}  // namespace
}  // namespace tez::agent
