#include "readers/known_readers.h"

#include <gtest/gtest.h>

#include "context/context_registry.h"

namespace tez {
namespace {

constexpr DWORD kTold2 = DWORD{2} << 16;

TEST(KnownReaders, AreNoneOfAContextThatWasToldNothing) {
    const KnownReaders known(registerContext(1, 0));
    EXPECT_TRUE(known.isFirst(SCARD_STATE_UNAWARE));
    EXPECT_TRUE(known.isNews(SCARD_STATE_UNAWARE, 1));
    EXPECT_FALSE(known.isNews(SCARD_STATE_UNAWARE, 0));
}

TEST(KnownReaders, AreThoseThatTheApplicationCounts) {
    const SCARDCONTEXT context = registerContext(1, 0);
    tellReaders(context, {std::nullopt, {}, ReaderCounts{2, 1}});
    const KnownReaders known(context);
    EXPECT_FALSE(known.isFirst(kTold2));
    EXPECT_FALSE(known.isNews(kTold2, 2));
    EXPECT_TRUE(known.isNews(kTold2, 3)) << "what its context was told is nothing to it";
    EXPECT_FALSE(known.isNews(SCARD_STATE_EMPTY, 3));
}

TEST(KnownReaders, AreTheNamesThatWereListed) {
    const SCARDCONTEXT context = registerContext(1, 0);
    tellReaders(context, {std::vector<std::string>{"A", "B"}, {}, std::nullopt});
    KnownReaders same(context);
    EXPECT_TRUE(same.areNamesToBeCompared());
    same.compareNames({"B", "A"}, {1, 1});
    EXPECT_FALSE(same.areNamesToBeCompared());
    EXPECT_FALSE(same.isNews(SCARD_STATE_UNAWARE, 2));
    EXPECT_TRUE(same.isNews(SCARD_STATE_UNAWARE, 3));
    KnownReaders others(context);
    others.compareNames({"B", "C"}, {1, 1});
    EXPECT_TRUE(others.isNews(SCARD_STATE_UNAWARE, 2));
}

TEST(KnownReaders, AreForgottenWithTheirContext) {
    const SCARDCONTEXT context = registerContext(1, 0);
    static_cast<void>(unregisterContext(context));
    tellReaders(context, {std::nullopt, {}, ReaderCounts{2, 1}});
    EXPECT_TRUE(KnownReaders(context).isFirst(0)) << "told too late, and kept for nobody";
}

}  // namespace
}  // namespace tez
