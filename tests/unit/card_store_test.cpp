// The card database and the data cache that both sides of the tests have.
#include "core/card_store.h"

#include <winscard.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tez::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr GUID kInterface{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
constexpr GUID kOtherInterface{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 12}};

class CardStoreTest : public testing::Test {
  protected:
    CardStore store_;
    CardType type_ = cardTypeOf(makeDemoCard("Ada"));
};

TEST_F(CardStoreTest, KnowsATypeFromItsIntroductionToItsEnd) {
    EXPECT_EQ(store_.forget("Card"), SCARD_E_UNKNOWN_CARD);
    type_.primaryProvider = kInterface;
    EXPECT_EQ(store_.introduce("Card", type_), SCARD_S_SUCCESS);
    EXPECT_EQ(store_.introduce("Card", {}), ERROR_ALREADY_EXISTS);
    const std::optional<CardType> found = store_.find("Card");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->atr, makeDemoCard("Ada").atr());
    EXPECT_EQ(found->atrMask, Bytes(found->atr.size(), 0xFF));
    EXPECT_TRUE(found->primaryProvider && IsEqualGUID(*found->primaryProvider, kInterface));
    EXPECT_EQ(store_.forget("Card"), SCARD_S_SUCCESS);
    EXPECT_FALSE(store_.find("Card"));
}

TEST_F(CardStoreTest, ListsTheTypesThatMatchTheAtrUnderTheirMasks) {
    store_.introduce("Exact", type_);
    type_.atrMask.back() = 0;
    store_.introduce("Masked", type_);
    Bytes atr = type_.atr;
    EXPECT_THAT(store_.list(atr, {}), ElementsAre("Exact", "Masked"));
    atr.back() ^= 1;
    EXPECT_THAT(store_.list(atr, {}), ElementsAre("Masked"));
    atr.pop_back();
    EXPECT_THAT(store_.list(atr, {}), IsEmpty());
    EXPECT_THAT(store_.list({}, {}), ElementsAre("Exact", "Masked"));
}

TEST_F(CardStoreTest, ListsTheTypesThatHaveAllInterfaces) {
    store_.introduce("Without", type_);
    type_.interfaces = {kInterface, kOtherInterface};
    store_.introduce("With", type_);
    const GUID both[] = {kOtherInterface, kInterface};
    const GUID unknown[] = {kInterface, GUID{}};
    EXPECT_THAT(store_.list({}, both), ElementsAre("With"));
    EXPECT_THAT(store_.list({}, unknown), IsEmpty());
}

TEST_F(CardStoreTest, KnowsProvidersByTheirIdentifier) {
    std::string name;
    EXPECT_EQ(store_.setProvider("Card", 2, "Two"), SCARD_E_UNKNOWN_CARD);
    store_.introduce("Card", type_);
    EXPECT_EQ(store_.setProvider("Card", 2, "Two"), SCARD_S_SUCCESS);
    EXPECT_EQ(store_.setProvider("Card", 2, "Second"), SCARD_S_SUCCESS);
    EXPECT_EQ(store_.provider("Card", 2, name), SCARD_S_SUCCESS);
    EXPECT_EQ(name, "Second");
    EXPECT_EQ(store_.provider("Card", 3, name), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(store_.provider("Other", 2, name), SCARD_E_UNKNOWN_CARD);
}

TEST_F(CardStoreTest, CachesByCardNameAndFreshness) {
    Bytes data;
    store_.writeCache(kInterface, "name", 7, {1, 2});
    EXPECT_EQ(store_.readCache(kInterface, "name", 7, data), SCARD_S_SUCCESS);
    EXPECT_THAT(data, ElementsAre(1, 2));
    EXPECT_EQ(store_.readCache(kInterface, "name", 8, data), SCARD_W_CACHE_ITEM_STALE);
    EXPECT_EQ(store_.readCache(kInterface, "Name", 7, data), SCARD_W_CACHE_ITEM_NOT_FOUND);
    EXPECT_EQ(store_.readCache(kOtherInterface, "name", 7, data), SCARD_W_CACHE_ITEM_NOT_FOUND);
    store_.writeCache(kInterface, "name", 8, {3});
    EXPECT_EQ(store_.readCache(kInterface, "name", 8, data), SCARD_S_SUCCESS);
    EXPECT_THAT(data, ElementsAre(3));
}

TEST(AtrLengthTest, ComesFromTheStructure) {
    for (const std::uint32_t protocols : {kProtocolT0, kProtocolT1, kProtocolT0 | kProtocolT1}) {
        for (const char* historicalBytes : {"", "card", "fifteen letters"}) {
            Bytes atr = makeAtr(protocols, historicalBytes);
            const std::size_t size = atr.size();
            atr.resize(kLongestAtr);
            EXPECT_EQ(atrLength(atr.data()), size);
        }
    }
}

TEST(AtrLengthTest, IsNoneWhenTheStructureLeadsTooFar) {
    const Bytes endless(kLongestAtr, 0xFF);
    EXPECT_EQ(atrLength(endless.data()), 0U);
}

}  // namespace
}  // namespace tez::test
