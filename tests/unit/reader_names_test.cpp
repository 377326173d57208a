#include "state/reader_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string_view>

using namespace tez;
using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ReaderNames, AreEmptyAndNotListedAtFirst) {
    EXPECT_THAT(copyLocalReaderNames(), IsEmpty());
    EXPECT_THAT(copyRemoteReaderNames(), IsEmpty());
    EXPECT_FALSE(wasListReadersCalled());
}

TEST(ReaderNames, AreReplacedWholeAndKeptInOrder) {
    setLocalReaderNames("old\0"sv);
    setLocalReaderNames("Z\0A\0\0"sv);
    setRemoteReaderNames("M\0A\0\0"sv);
    EXPECT_THAT(copyLocalReaderNames(), ElementsAre("Z", "A"));
    EXPECT_THAT(copyRemoteReaderNames(), ElementsAre("M", "A"));
}

TEST(ReaderNames, OfTheHostAreForgottenWithTheListing) {
    setLocalReaderNames("L\0\0"sv);
    setRemoteReaderNames("R\0\0"sv);
    markListReadersCalled(currentReaderListing());
    EXPECT_TRUE(wasListReadersCalled());
    forgetLocalReaderNames();
    EXPECT_THAT(copyLocalReaderNames(), IsEmpty());
    EXPECT_THAT(copyRemoteReaderNames(), ElementsAre("R"));
    EXPECT_FALSE(wasListReadersCalled());
}

TEST(ReaderNames, AreNotListedByAListingThatTheDaemonsComingHasOvertaken) {
    const ReaderListing listing = currentReaderListing();
    forgetLocalReaderNames();
    markListReadersCalled(listing);
    EXPECT_FALSE(wasListReadersCalled());
    markListReadersCalled(currentReaderListing());
    EXPECT_TRUE(wasListReadersCalled());
}

TEST(ReaderNames, OfTheDaemonAreForgottenAlone) {
    setLocalReaderNames("L\0\0"sv);
    setRemoteReaderNames("R\0\0"sv);
    markListReadersCalled(currentReaderListing());
    forgetRemoteReaderNames();
    EXPECT_THAT(copyLocalReaderNames(), ElementsAre("L"));
    EXPECT_THAT(copyRemoteReaderNames(), IsEmpty());
    EXPECT_TRUE(wasListReadersCalled());
}
