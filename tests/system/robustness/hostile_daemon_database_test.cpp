// A daemon that answers the calls on the card database, the cache and the icon with what nobody has
// room for, or leaves off in the middle.
#include <algorithm>

#include "database_calls.h"
#include "guarded_buffer.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

class HostileDatabaseAnswerTest : public RemoteCardTest,
                                  public testing::WithParamInterface<DatabaseQuery> {
  protected:
    static constexpr std::uint32_t kLargestData = 16U * 1024 * 1024;

    void SetUp() override {
        redirectDatabaseCalls();
        connectCard();
        serveQueries(daemon, host);
    }

    /// The next call gets its own answer.
    void TearDown() override {
        EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardEndTransaction(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        serveQueries(daemon, host);
        length_ = 0;
        EXPECT_THAT(GetParam().make(context, nullptr, &length_), Gives(SCARD_S_SUCCESS));
    }

    /// Calls with a buffer of some bytes, auto-allocation, and for the length alone.
    void expectNothingPastTheBuffer() {
        const DatabaseQuery& query = GetParam();
        const GuardedBuffer buffer(10 * query.unit);
        length_ = 10;
        const LONG rv = query.make(context, buffer.data(), &length_);
        EXPECT_TRUE(buffer.untouchedFrom(buffer.size()));
        if (rv != SCARD_S_SUCCESS) {
            EXPECT_TRUE(buffer.untouched());
        }
        void* block = nullptr;
        length_ = SCARD_AUTOALLOCATE;
        if (query.make(context, static_cast<void*>(&block), &length_) != SCARD_S_SUCCESS) {
            EXPECT_EQ(block, nullptr);
        }
        EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
        length_ = 0;
        query.make(context, nullptr, &length_);
    }

    /// What the call gives when the daemon's part of it fails so.
    static LONG resultOf(LONG remoteFailure) {
        switch (GetParam().command) {
            case Command::kListCards:
                return SCARD_S_SUCCESS;  // the host's cards alone
            case Command::kGetCardTypeProviderName:
                return SCARD_E_UNKNOWN_CARD;         // the host's word
            case Command::kSetCardTypeProviderName:  // the host takes no null context
            case Command::kForgetCardType:
                return SCARD_E_INVALID_HANDLE;
            default:
                return remoteFailure;
        }
    }

    void expectResult(LONG remoteFailure) {
        length_ = 0;
        EXPECT_THAT(GetParam().make(context, nullptr, &length_), Gives(resultOf(remoteFailure)));
    }

    /// Whether the library hangs up on every one of these connections.
    bool hangsUpOnAll(const std::vector<std::uint64_t>& connections) {
        return daemon.waitUntil(
            [&] {
                const auto open = daemon.openConnections();
                return std::ranges::none_of(connections, [&](std::uint64_t connection) {
                    return std::ranges::find(open, connection) != open.end();
                });
            },
            kPatience);
    }

    std::vector<std::uint64_t> connectionsUsed() const {
        std::vector<std::uint64_t> connections;
        for (const Request& request : daemon.requests(GetParam().command)) {
            connections.push_back(request.connection);
        }
        return connections;
    }

    DWORD length_ = 0;
};

TEST_P(HostileDatabaseAnswerTest, IsNoServiceWhenItDoesNotCome) {
    daemon.on(GetParam().command, closing());
    expectResult(SCARD_E_NO_SERVICE);
    expectNothingPastTheBuffer();
}

TEST_P(HostileDatabaseAnswerTest, IsNoServiceWhenItsRecordIsCutShort) {
    daemon.on(GetParam().command, answeringAndClosing(GetParam().recordSize - 1, {}));
    expectResult(SCARD_E_NO_SERVICE);
    expectNothingPastTheBuffer();
}

TEST_P(HostileDatabaseAnswerTest, AnnouncesNothingWithAFailure) {
    const DatabaseQuery& query = GetParam();
    std::vector<AnswerField> fields = {{query.resultOffset, 0xC0FFEE01}};
    if (query.hasData()) {
        fields.push_back({query.lengthOffset, 0xFFFF});
    }
    daemon.on(query.command, answering(query.recordSize, fields));
    const std::size_t opens = transport().opens();
    expectResult(static_cast<LONG>(0xC0FFEE01));
    expectNothingPastTheBuffer();
    EXPECT_EQ(transport().opens(), opens) << "the connection is still in order";
}

using HostileDatabaseDataTest = HostileDatabaseAnswerTest;

TEST_P(HostileDatabaseDataTest, IsNoServiceWhenItIsCutShort) {
    const DatabaseQuery& query = GetParam();
    const Bytes some(query.data.begin(), query.data.end() - 1);
    daemon.on(query.command,
              answeringAndClosing(
                  query.recordSize,
                  {{query.lengthOffset, static_cast<std::uint32_t>(query.data.size())}}, some));
    expectResult(SCARD_E_NO_SERVICE);
    expectNothingPastTheBuffer();
}

TEST_P(HostileDatabaseDataTest, IsNotTakenWhenItIsGiant) {
    const DatabaseQuery& query = GetParam();
    for (const std::uint32_t size : {kLargestData + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(size);
        daemon.on(query.command, answering(query.recordSize, {{query.lengthOffset, size}}));
        // The cache and the icon count what there is no memory for as no data.
        expectResult(SCARD_S_SUCCESS);
        expectNothingPastTheBuffer();
    }
    EXPECT_TRUE(hangsUpOnAll(connectionsUsed()));
}

TEST_P(HostileDatabaseDataTest, MayBeWithoutAnyNul) {
    const DatabaseQuery& query = GetParam();
    for (const std::uint32_t size : {0U, 1U, 9U, 10U, 11U, 2049U}) {
        SCOPED_TRACE(size);
        daemon.on(query.command,
                  answering(query.recordSize, {{query.lengthOffset, size}}, Bytes(size, 'x')));
        length_ = 0;
        ASSERT_THAT(query.make(context, nullptr, &length_), Gives(SCARD_S_SUCCESS));
        EXPECT_GE(length_, size);
        expectNothingPastTheBuffer();
    }
}

TEST_P(HostileDatabaseDataTest, MayBeNoText) {
    const DatabaseQuery& query = GetParam();
    for (const Bytes& data : {Bytes{0xFF, 0xFE, 0xC0, 0x80, 0xF8}, Bytes{0xE2, 0x82},
                              Bytes{0, 0, 0, 0}, Bytes{0xED, 0xA0, 0x80, 0}}) {
        daemon.on(query.command,
                  answering(query.recordSize,
                            {{query.lengthOffset, static_cast<std::uint32_t>(data.size())}}, data));
        length_ = 0;
        EXPECT_THAT(query.make(context, nullptr, &length_), Gives(SCARD_S_SUCCESS));
        expectNothingPastTheBuffer();
    }
}

INSTANTIATE_TEST_SUITE_P(EveryQuery, HostileDatabaseAnswerTest,
                         testing::ValuesIn(databaseQueries()), nameOfCall<DatabaseQuery>);

INSTANTIATE_TEST_SUITE_P(EveryUpdate, HostileDatabaseAnswerTest,
                         testing::ValuesIn(redirectedUpdates()), nameOfCall<DatabaseQuery>);

INSTANTIATE_TEST_SUITE_P(EveryQuery, HostileDatabaseDataTest, testing::ValuesIn(queriesWithData()),
                         nameOfCall<DatabaseQuery>);

}  // namespace
}  // namespace tez::test
