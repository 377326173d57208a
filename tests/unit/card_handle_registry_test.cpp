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
    EXPECT_EQ(getCardTarget(local), 0xFFFFFFFF00000001);
    EXPECT_EQ(getCardContext(local), 5U);
    EXPECT_STREQ(getCardReaderName(local).get(), "Reader A");
    EXPECT_TRUE(isLocalCard(local));
    EXPECT_EQ(getCardTarget(remote), 0x5000001U);
    EXPECT_EQ(getCardContext(remote), 6U);
    EXPECT_STREQ(getCardReaderName(remote).get(), "Reader B");
    EXPECT_FALSE(isLocalCard(remote));
}

TEST(CardHandleRegistry, GivesTwoConnectionsToOneReaderTwoHandles) {
    const SCARDHANDLE first = registerCardHandle(0x9000, 1, "A", true);
    EXPECT_NE(registerCardHandle(0x9000, 1, "A", true), first);
}

TEST(CardHandleRegistry, KeepsACopyOfTheReaderName) {
    std::string name = "Reader A";
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, name.c_str(), true);
    name = "overwritten";
    EXPECT_STREQ(getCardReaderName(card).get(), "Reader A");
    const HeapPtr<char> first = getCardReaderName(card);
    const HeapPtr<char> second = getCardReaderName(card);
    EXPECT_NE(first.get(), second.get()) << "each look gives a copy of its own";
}

TEST(CardHandleRegistry, TakesACardWithoutAReaderName) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, nullptr, false);
    EXPECT_EQ(getCardReaderName(card), nullptr);
    EXPECT_EQ(getCardTarget(card), 0x9000U);
}

TEST(CardHandleRegistry, KnowsNothingOfOtherHandles) {
    for (const SCARDHANDLE unknown : {SCARDHANDLE{0}, SCARDHANDLE{1}, ~SCARDHANDLE{0}}) {
        EXPECT_EQ(getCardTarget(unknown), 0U);
        EXPECT_EQ(getCardContext(unknown), 0U);
        EXPECT_EQ(getCardReaderName(unknown), nullptr);
        EXPECT_FALSE(isLocalCard(unknown));
    }
}

TEST(CardHandleRegistry, ForgetsACardAndDoesNotIssueItsHandleAgain) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, "A", true);
    const SCARDHANDLE other = registerCardHandle(0x9001, 1, "B", true);
    unregisterCardHandle(card);
    EXPECT_EQ(getCardTarget(card), 0U);
    EXPECT_EQ(getCardContext(card), 0U);
    EXPECT_EQ(getCardReaderName(card), nullptr);
    EXPECT_FALSE(isLocalCard(card));
    EXPECT_EQ(getCardTarget(other), 0x9001U);
    EXPECT_EQ(registerCardHandle(0x9002, 1, "C", true), 3U);
}

TEST(CardHandleRegistry, IgnoresTheRemovalOfAnUnknownCard) {
    const SCARDHANDLE card = registerCardHandle(0x9000, 1, "A", true);
    unregisterCardHandle(card + 256);
    unregisterCardHandle(0);
    EXPECT_EQ(getCardTarget(card), 0x9000U);
}
