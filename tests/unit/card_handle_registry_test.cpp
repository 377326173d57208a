#include "context/card_handle_registry.h"

#include <gtest/gtest.h>
#include <string>

#include "context/context_registry.h"

using namespace tez;

TEST(CardHandleRegistry, NumbersCardsFromOneApartFromContexts) {
    EXPECT_EQ(registerContext(0x7000, 0), 1U);
    EXPECT_EQ(registerContext(0x7001, 0), 2U);
    EXPECT_EQ(registerCardHandle(0x9000, 1, "A", true), 1U);
}

TEST(CardHandleRegistry, KeepsWhatStandsBehindACard) {
    const SCARDHANDLE local = registerCardHandle(0xFFFFFFFF00000001, 5, "Reader A", true);
    const SCARDHANDLE remote = registerCardHandle(0x5000001, 6, "Reader B", false);
    const auto localEntry = findCardHandle(local);
    ASSERT_NE(localEntry, nullptr);
    EXPECT_EQ(localEntry->target, 0xFFFFFFFF00000001);
    EXPECT_EQ(localEntry->context, 5U);
    EXPECT_STREQ(localEntry->readerName.get(), "Reader A");
    EXPECT_TRUE(localEntry->isLocal);
    const auto remoteEntry = findCardHandle(remote);
    ASSERT_NE(remoteEntry, nullptr);
    EXPECT_EQ(remoteEntry->target, 0x5000001U);
    EXPECT_EQ(remoteEntry->context, 6U);
    EXPECT_STREQ(remoteEntry->readerName.get(), "Reader B");
    EXPECT_FALSE(remoteEntry->isLocal);
}

TEST(CardHandleRegistry, GivesTwoConnectionsToOneReaderTwoHandles) {
    const SCARDHANDLE first = registerCardHandle(0x9000, 1, "A", true);
    EXPECT_NE(registerCardHandle(0x9000, 1, "A", true), first);
}

TEST(CardHandleRegistry, KeepsACopyOfTheReaderName) {
    std::string name = "Reader A";
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, name.c_str(), true);
    name = "overwritten";
    EXPECT_STREQ(findCardHandle(card)->readerName.get(), "Reader A");
}

TEST(CardHandleRegistry, TakesACardWithoutAReaderName) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, nullptr, false);
    EXPECT_EQ(findCardHandle(card)->readerName, nullptr);
    EXPECT_EQ(findCardHandle(card)->target, 0x9000U);
}

TEST(CardHandleRegistry, KnowsNothingOfOtherHandles) {
    for (const SCARDHANDLE unknown : {SCARDHANDLE{0}, SCARDHANDLE{1}, ~SCARDHANDLE{0}}) {
        EXPECT_EQ(findCardHandle(unknown), nullptr);
    }
}

TEST(CardHandleRegistry, ForgetsACardAndDoesNotIssueItsHandleAgain) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, "A", true);
    const SCARDHANDLE other = registerCardHandle(0x9001, 1, "B", true);
    unregisterCardHandle(card);
    EXPECT_EQ(findCardHandle(card), nullptr);
    EXPECT_EQ(findCardHandle(other)->target, 0x9001U);
    EXPECT_EQ(registerCardHandle(0x9002, 1, "C", true), 3U);
}

TEST(CardHandleRegistry, KeepsWhatACallHoldsWhenTheCardIsForgotten) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, "A", true);
    const auto held = findCardHandle(card);
    unregisterCardHandle(card);
    EXPECT_EQ(held->target, 0x9000U);
    EXPECT_STREQ(held->readerName.get(), "A");
}

TEST(CardHandleRegistry, IgnoresTheRemovalOfAnUnknownCard) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, "A", true);
    unregisterCardHandle(card + 256);
    unregisterCardHandle(0);
    EXPECT_EQ(findCardHandle(card)->target, 0x9000U);
}
