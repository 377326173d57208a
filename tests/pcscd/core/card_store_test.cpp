// The card database and the data cache that both sides of the tests have.
#include "core/card_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/text.h"
#include "simulated/virtual_card.h"

namespace tez::pcscd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Guid kInterface{1, 2, 3, 4, 5, 6, 7, 8};
constexpr Guid kOtherInterface{1, 2, 3, 4, 5, 6, 7, 9};

class CardStoreTest : public testing::Test {
  protected:
    CardStore store_;
    CardType type_ = cardTypeOf(makeDemoCard("Ada").atr());
};

TEST_F(CardStoreTest, KnowsATypeFromItsIntroductionToItsEnd) {
    EXPECT_EQ(store_.forget("Card"), result::kUnknownCard);
    type_.primaryProvider = kInterface;
    EXPECT_EQ(store_.introduce("Card", type_), result::kSuccess);
    EXPECT_EQ(store_.introduce("Card", {}), result::kAlreadyExists);
    const std::optional<CardType> found = store_.find("Card");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->atr, makeDemoCard("Ada").atr());
    EXPECT_EQ(found->atrMask, Bytes(found->atr.size(), 0xFF));
    EXPECT_EQ(found->primaryProvider, kInterface);
    EXPECT_EQ(store_.forget("Card"), result::kSuccess);
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
    constexpr Guid both[] = {kOtherInterface, kInterface};
    constexpr Guid unknown[] = {kInterface, Guid{}};
    EXPECT_THAT(store_.list({}, both), ElementsAre("With"));
    EXPECT_THAT(store_.list({}, unknown), IsEmpty());
}

TEST_F(CardStoreTest, KnowsProvidersByTheirIdentifier) {
    std::string name;
    EXPECT_EQ(store_.setProvider("Card", 2, "Two"), result::kUnknownCard);
    store_.introduce("Card", type_);
    EXPECT_EQ(store_.setProvider("Card", 2, "Two"), result::kSuccess);
    EXPECT_EQ(store_.setProvider("Card", 2, "Second"), result::kSuccess);
    EXPECT_EQ(store_.provider("Card", 2, name), result::kSuccess);
    EXPECT_EQ(name, "Second");
    EXPECT_EQ(store_.provider("Card", 3, name), result::kFileNotFound);
    EXPECT_EQ(store_.provider("Other", 2, name), result::kUnknownCard);
}

TEST_F(CardStoreTest, CachesByCardNameAndFreshness) {
    Bytes data;
    store_.writeCache(kInterface, "name", 7, {1, 2});
    EXPECT_EQ(store_.readCache(kInterface, "name", 7, data), result::kSuccess);
    EXPECT_THAT(data, ElementsAre(1, 2));
    EXPECT_EQ(store_.readCache(kInterface, "name", 8, data), result::kCacheItemStale);
    EXPECT_EQ(store_.readCache(kInterface, "Name", 7, data), result::kCacheItemNotFound);
    EXPECT_EQ(store_.readCache(kOtherInterface, "name", 7, data), result::kCacheItemNotFound);
    store_.writeCache(kInterface, "name", 8, {3});
    EXPECT_EQ(store_.readCache(kInterface, "name", 8, data), result::kSuccess);
    EXPECT_THAT(data, ElementsAre(3));
}

TEST_F(CardStoreTest, TakesNoMoreTypesThanAListOfThemCanName) {
    constexpr std::size_t kLongestList = std::size_t{16} << 20;
    Result last = result::kSuccess;
    std::size_t count = 0;
    std::string name;
    while (last == result::kSuccess && count * 1000 < kLongestList) {
        name = std::to_string(count++) + std::string(1000, 'C');
        last = store_.introduce(name, type_);
    }
    EXPECT_EQ(last, result::kNoMemory);
    EXPECT_LT(multiString(store_.list({}, {})).size(), kLongestList);
    EXPECT_FALSE(store_.find(name));
    const std::string first = '0' + std::string(1000, 'C');
    EXPECT_EQ(store_.setProvider(first, 1, std::string(1000, 'P')), result::kNoMemory);
    EXPECT_EQ(store_.provider(first, 1, name), result::kFileNotFound);
    EXPECT_EQ(store_.forget(first), result::kSuccess);
    EXPECT_EQ(store_.introduce(first, type_), result::kSuccess) << "there is room for it again";
}

TEST_F(CardStoreTest, KeepsWhatIsCachedWhenThereIsNoRoomForMore) {
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    Result last = result::kSuccess;
    int count = 0;
    while (last == result::kSuccess && count < 100) {
        last = store_.writeCache(kInterface, std::to_string(count++), 1, Bytes(kPiece, 7));
    }
    EXPECT_EQ(last, result::kNoMemory);
    EXPECT_GT(count, 32);
    Bytes data;
    EXPECT_EQ(store_.writeCache(kInterface, "0", 2, Bytes(2 * kPiece)), result::kNoMemory);
    EXPECT_EQ(store_.readCache(kInterface, "0", 1, data), result::kSuccess);
    EXPECT_EQ(data, Bytes(kPiece, 7));
    EXPECT_EQ(store_.writeCache(kInterface, "0", 2, {}), result::kSuccess);
    EXPECT_EQ(store_.writeCache(kInterface, "1", 2, Bytes(kPiece)), result::kSuccess);
}

TEST(AtrLengthTest, ComesFromTheStructure) {
    for (const std::uint32_t protocols :
         {protocol::kT0, protocol::kT1, protocol::kT0 | protocol::kT1}) {
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
}  // namespace tez::pcscd
