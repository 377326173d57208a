// The daemon's answers about card types, cached data, icons, device types and audits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/commands.h"
#include "core/reader_icon.h"
#include "core/text.h"
#include "record_codec.h"
#include "record_layout.h"
#include "simulated/simulated_service.h"

namespace tez::pcscd {
namespace {

using test::putU64;
using test::RecordBytes;
using test::u32At;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

using Audit = test::AuditLayout;
using Cache = test::CacheLayout;
using Cards = test::ListCardsLayout;
using Forget = test::ForgetLayout;
using Icon = test::ListLayout;
using Introduce = test::IntroduceLayout;
using Provider = test::ProviderNameLayout;
using Type = test::DeviceTypeLayout;

constexpr const char* kDatabaseReader = "Reader";
constexpr const char* kKnownCard = "Known Card";
constexpr std::uint32_t kProviderId = 2;
constexpr Clients::Process kProcess = 1;

class DaemonDatabaseTest : public testing::Test {
  protected:
    DaemonDatabaseTest() {
        service_.addReader(kDatabaseReader);
        EXPECT_EQ(service_.establishContext(scope::kUser, context_), result::kSuccess);
        CardType type = cardTypeOf(makeDemoCard("Ada").atr());
        type.interfaces = {Guid{1, 0, 0, 0, 2, 0, 3, 0, 4}};
        type.providers[kProviderId] = "A Provider";
        EXPECT_EQ(service_.cardStore().introduce(kKnownCard, type), result::kSuccess);
    }

    /// The answer to a request whose context has been put into its record.
    Reply ask(Command command, Bytes body) {
        putU64(body, 0, context_);
        return askAsIs(command, std::move(body));
    }

    Reply askAsIs(Command command, Bytes body) {
        Request request;
        request.command = command;
        request.body = std::move(body);
        Reply reply = answerRequest(service_, clients_, kProcess, request);
        record_ = reply.blocks.empty() ? Bytes{} : reply.blocks[0];
        return reply;
    }

    /// What follows the record in an answer whose result is success.
    template <class Layout>
    static Bytes dataOf(const Reply& reply) {
        EXPECT_THAT(reply.blocks, SizeIs(2));
        EXPECT_FALSE(reply.close);
        if (reply.blocks.size() != 2) {
            return {};
        }
        EXPECT_THAT(reply.blocks[0], SizeIs(Layout::kSize));
        EXPECT_EQ(u32At(reply.blocks[0], Layout::kResult), 0U);
        return reply.blocks[1];
    }

    /// The result in an answer without a data phase.
    template <class Layout>
    static Result resultOf(const Reply& reply) {
        EXPECT_THAT(reply.blocks, ElementsAre(SizeIs(Layout::kSize)));
        EXPECT_FALSE(reply.close);
        return reply.blocks.empty() ? -1
                                    : static_cast<Result>(u32At(reply.blocks[0], Layout::kResult));
    }

    SimulatedService service_;
    Context context_ = 0;
    Clients clients_;
    Bytes record_;  // of the last answer
};

const auto kClosesThePipe = AllOf(Field(&Reply::blocks, IsEmpty()), Field(&Reply::close, true));

TEST_F(DaemonDatabaseTest, ListsCardsAsAMultiString) {
    service_.cardStore().introduce("Other", {});
    const Bytes list = dataOf<Cards>(ask(Command::kListCards, Bytes(Cards::kSize)));
    EXPECT_EQ(list, multiString({kKnownCard, "Other"}));
    EXPECT_EQ(u32At(record_, Cards::kLength), list.size());
    EXPECT_EQ(dataOf<Cards>(askAsIs(Command::kListCards, Bytes(Cards::kSize))), list)
        << "without a context";
}

TEST_F(DaemonDatabaseTest, ListsCardsByAtr) {
    const Bytes atr = makeDemoCard("Ada").atr();
    EXPECT_EQ(dataOf<Cards>(
                  ask(Command::kListCards,
                      RecordBytes(Cards::kSize).raw(Cards::kHasAtr, {1}).raw(Cards::kAtr, atr))),
              multiString({kKnownCard}));
    EXPECT_EQ(
        dataOf<Cards>(ask(
            Command::kListCards,
            RecordBytes(Cards::kSize).raw(Cards::kHasAtr, {1}).raw(Cards::kAtr, Bytes(33, 0xFF)))),
        multiString({}))
        << "no ATR at all";
    EXPECT_EQ(dataOf<Cards>(
                  ask(Command::kListCards, RecordBytes(Cards::kSize)
                                               .raw(Cards::kHasAtr, {1})
                                               .raw(Cards::kAtr, makeAtr(protocol::kT0, "other")))),
              multiString({}));
}

TEST_F(DaemonDatabaseTest, ListsCardsByInterface) {
    const Bytes guid = RecordBytes(16).raw(0, {1}).raw(4, {2}).raw(6, {3}).raw(8, {4});
    const auto ask1 = [&](const Bytes& tail, std::uint32_t count) {
        return dataOf<Cards>(
            ask(Command::kListCards,
                RecordBytes(Cards::kSize).u32(Cards::kInterfaces, count).append(tail)));
    };
    EXPECT_EQ(ask1(guid, 1), multiString({kKnownCard}));
    EXPECT_EQ(ask1(Bytes(16), 1), multiString({}));
    EXPECT_EQ(ask1(Bytes(16), 0), multiString({kKnownCard})) << "not counted";
    EXPECT_THAT(
        ask(Command::kListCards, RecordBytes(Cards::kSize).u32(Cards::kInterfaces, 2).append(guid)),
        kClosesThePipe);
    EXPECT_THAT(ask(Command::kListCards, RecordBytes(Cards::kSize).append(Bytes(15))),
                kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, RefusesAnUnknownContext) {
    const auto refused = [this]<class Layout>(Layout /*layout*/, Command command, Bytes body) {
        putU64(body, Layout::kContext, 4711);
        EXPECT_EQ(resultOf<Layout>(askAsIs(command, body)), result::kInvalidHandle);
    };
    const Bytes name = terminated("name");
    refused(Cards(), Command::kListCards, Bytes(Cards::kSize));
    refused(Type(), Command::kGetDeviceTypeId, Bytes(Type::kSize));
    refused(Provider(), Command::kGetCardTypeProviderName, Bytes(Provider::kSize));
    refused(Cache(), Command::kReadCache, RecordBytes(Cache::kSize).append(name));
    refused(Cache(), Command::kWriteCache, RecordBytes(Cache::kSize).append(name));
    refused(Icon(), Command::kGetReaderIcon, RecordBytes(Icon::kSize).append(name));
    refused(Audit(), Command::kAudit, Bytes(Audit::kSize));
    refused(Provider(), Command::kSetCardTypeProviderName,
            RecordBytes(Provider::kSize).raw(Provider::kLength, {5}).append(name));
    refused(Introduce(), Command::kIntroduceCardType,
            RecordBytes(Introduce::kSize)
                .raw(Introduce::kHasAtr, {1})
                .raw(Introduce::kAtr, makeAtr(protocol::kT0, "")));
    refused(Forget(), Command::kForgetCardType, Bytes(Forget::kSize));
}

TEST_F(DaemonDatabaseTest, TellsTheDeviceTypeOfAReader) {
    const Bytes reader = terminated(kDatabaseReader);
    EXPECT_EQ(resultOf<Type>(ask(Command::kGetDeviceTypeId,
                                 RecordBytes(Type::kSize).raw(Type::kReader, reader))),
              result::kSuccess);
    EXPECT_EQ(u32At(record_, Type::kType), kReaderTypeUsb);
    EXPECT_EQ(resultOf<Type>(ask(Command::kGetDeviceTypeId, Bytes(Type::kSize))),
              result::kUnknownReader);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId,
                    RecordBytes(Type::kSize).raw(Type::kReader, Bytes(128, 'R'))),
                kClosesThePipe);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId, Bytes(Type::kSize + 1)), kClosesThePipe);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId, Bytes(Type::kSize - 1)), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, TellsAndTakesProviderNames) {
    const Bytes card = terminated(kKnownCard);
    const Bytes asking = RecordBytes(Provider::kSize)
                             .raw(Provider::kCard, card)
                             .raw(Provider::kProvider, {kProviderId});
    EXPECT_EQ(dataOf<Provider>(ask(Command::kGetCardTypeProviderName, asking)),
              terminated("A Provider"));
    EXPECT_EQ(u32At(record_, Provider::kLength), 11U);

    const auto setting = [&](std::uint8_t length, const Bytes& name) {
        return ask(Command::kSetCardTypeProviderName, RecordBytes(Provider::kSize)
                                                          .raw(Provider::kCard, card)
                                                          .raw(Provider::kProvider, {kProviderId})
                                                          .raw(Provider::kLength, {length})
                                                          .append(name));
    };
    EXPECT_EQ(resultOf<Provider>(setting(4, terminated("New"))), result::kSuccess);
    EXPECT_EQ(dataOf<Provider>(ask(Command::kGetCardTypeProviderName, asking)), terminated("New"));
    EXPECT_EQ(resultOf<Provider>(setting(1, terminated(""))), result::kSuccess);
    EXPECT_THAT(setting(3, terminated("New")), kClosesThePipe);
    EXPECT_THAT(setting(3, {'N', 'e', 'w'}), kClosesThePipe);
    EXPECT_THAT(setting(4, {'N', 0, 'w', 0}), kClosesThePipe);
    EXPECT_THAT(setting(0, {}), kClosesThePipe);

    EXPECT_EQ(resultOf<Provider>(ask(Command::kGetCardTypeProviderName, Bytes(Provider::kSize))),
              result::kUnknownCard);
    EXPECT_EQ(resultOf<Provider>(ask(Command::kGetCardTypeProviderName,
                                     RecordBytes(Provider::kSize).raw(Provider::kCard, card))),
              result::kFileNotFound);
}

TEST_F(DaemonDatabaseTest, IntroducesAndForgetsCardTypes) {
    const Bytes card = terminated("New Card");
    const Bytes atr = makeAtr(protocol::kT1, "new");
    const Bytes guid = RecordBytes(16).raw(0, {9});
    const auto size = static_cast<std::uint8_t>(atr.size());
    const Bytes whole = RecordBytes(Introduce::kSize)
                            .raw(Introduce::kCard, card)
                            .raw(Introduce::kHasProvider, {1})
                            .raw(Introduce::kProvider, {7})
                            .raw(Introduce::kInterfaces, {1})
                            .raw(Introduce::kHasAtr, {1})
                            .raw(Introduce::kAtr, atr)
                            .raw(Introduce::kHasMask, {1})
                            .raw(Introduce::kMask, Bytes(size, 0xF0))
                            .raw(Introduce::kAtrLength, {size})
                            .append(guid);
    EXPECT_EQ(resultOf<Introduce>(ask(Command::kIntroduceCardType, whole)), result::kSuccess);
    const std::optional<CardType> type = service_.cardStore().find("New Card");
    ASSERT_TRUE(type);
    EXPECT_EQ(type->atr, atr);
    EXPECT_EQ(type->atrMask, Bytes(size, 0xF0));
    EXPECT_EQ(type->primaryProvider, Guid{7});
    EXPECT_THAT(type->interfaces, ElementsAre(Guid{9}));
    EXPECT_EQ(resultOf<Introduce>(ask(Command::kIntroduceCardType, whole)), result::kAlreadyExists);

    const Bytes forgetting = RecordBytes(Forget::kSize).raw(Forget::kCard, card);
    EXPECT_EQ(resultOf<Forget>(ask(Command::kForgetCardType, forgetting)), result::kSuccess);
    EXPECT_EQ(resultOf<Forget>(ask(Command::kForgetCardType, forgetting)), result::kUnknownCard);
    EXPECT_FALSE(service_.cardStore().find("New Card"));
}

TEST_F(DaemonDatabaseTest, IntroducesACardTypeOfWhichOnlyTheAtrIsTold) {
    const Bytes card = terminated("New Card");
    const Bytes atr = makeAtr(protocol::kT1, "new");
    EXPECT_EQ(resultOf<Introduce>(ask(Command::kIntroduceCardType, RecordBytes(Introduce::kSize)
                                                                       .raw(Introduce::kCard, card)
                                                                       .raw(Introduce::kHasAtr, {1})
                                                                       .raw(Introduce::kAtr, atr))),
              result::kSuccess);
    const std::optional<CardType> type = service_.cardStore().find("New Card");
    ASSERT_TRUE(type);
    EXPECT_EQ(type->atr, atr) << "as long as its structure says";
    EXPECT_EQ(type->atrMask, Bytes(atr.size(), 0xFF));
    EXPECT_FALSE(type->primaryProvider);
    EXPECT_THAT(type->interfaces, IsEmpty());
}

TEST_F(DaemonDatabaseTest, TakesNoCardTypeWithoutAnAtrOrOfAnImpossibleForm) {
    EXPECT_EQ(resultOf<Introduce>(ask(Command::kIntroduceCardType, Bytes(Introduce::kSize))),
              result::kInvalidParameter);
    EXPECT_THAT(ask(Command::kIntroduceCardType,
                    RecordBytes(Introduce::kSize).raw(Introduce::kAtrLength, {34})),
                kClosesThePipe);
    EXPECT_THAT(
        ask(Command::kIntroduceCardType,
            RecordBytes(Introduce::kSize).raw(Introduce::kInterfaces, {2}).append(Bytes(16))),
        kClosesThePipe);
    EXPECT_THAT(ask(Command::kIntroduceCardType,
                    RecordBytes(Introduce::kSize).raw(Introduce::kCard, Bytes(1024, 'C'))),
                kClosesThePipe);
    EXPECT_THAT(ask(Command::kForgetCardType,
                    RecordBytes(Forget::kSize).raw(Forget::kCard, Bytes(1024, 'C'))),
                kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, CachesDataBehindTheRecord) {
    const Bytes name = terminated("name");
    const Bytes data{1, 0, 2};
    const auto writing = [&](std::uint8_t length, const Bytes& told, const Bytes& tail) {
        return ask(Command::kWriteCache, RecordBytes(Cache::kSize)
                                             .raw(Cache::kCard, {9})
                                             .raw(Cache::kFreshness, {5})
                                             .raw(Cache::kLength, {length})
                                             .append(told)
                                             .append(tail));
    };
    const auto reading = [&](std::uint8_t freshness) {
        return ask(Command::kReadCache, RecordBytes(Cache::kSize)
                                            .raw(Cache::kCard, {9})
                                            .raw(Cache::kFreshness, {freshness})
                                            .append(name));
    };
    EXPECT_EQ(resultOf<Cache>(reading(5)), result::kCacheItemNotFound);
    EXPECT_EQ(resultOf<Cache>(writing(3, data, name)), result::kSuccess);
    EXPECT_EQ(dataOf<Cache>(reading(5)), data);
    EXPECT_EQ(u32At(record_, Cache::kLength), 3U);
    EXPECT_EQ(resultOf<Cache>(reading(6)), result::kCacheItemStale);
    EXPECT_EQ(resultOf<Cache>(writing(0, {}, name)), result::kSuccess);
    EXPECT_THAT(dataOf<Cache>(reading(5)), IsEmpty());
    EXPECT_THAT(writing(9, data, name), kClosesThePipe) << "more than there is";
    EXPECT_THAT(writing(1, data, name), kClosesThePipe) << "a NUL within";
    EXPECT_THAT(writing(3, data, {}), kClosesThePipe);
    EXPECT_THAT(ask(Command::kReadCache, Bytes(Cache::kSize)), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, GivesEveryReaderAnIcon) {
    const auto asking = [&](const Bytes& name) {
        return ask(Command::kGetReaderIcon, RecordBytes(Icon::kSize).append(name));
    };
    const Bytes icon = dataOf<Icon>(asking(terminated(kDatabaseReader)));
    EXPECT_EQ(icon, Bytes(readerIcon().begin(), readerIcon().end()));
    EXPECT_EQ(u32At(record_, Icon::kLength), icon.size());
    EXPECT_EQ(resultOf<Icon>(asking({0})), result::kUnknownReader);
    EXPECT_THAT(asking({'R'}), kClosesThePipe);
    EXPECT_THAT(asking({}), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, AuditsTheTwoEventsOfAContext) {
    const auto auditing = [&](std::uint8_t event) {
        return resultOf<Audit>(
            ask(Command::kAudit, RecordBytes(Audit::kSize).raw(Audit::kEvent, {event})));
    };
    EXPECT_EQ(auditing(kAuditFailure), result::kSuccess);
    EXPECT_EQ(auditing(kAuditSuccess), result::kSuccess);
    EXPECT_EQ(auditing(2), result::kInvalidParameter);
    EXPECT_EQ(resultOf<Audit>(askAsIs(Command::kAudit, Bytes(Audit::kSize))), result::kSuccess)
        << "without a context";
}

TEST_F(DaemonDatabaseTest, TakesCardTypeChangesWithoutAContext) {
    const Bytes card = terminated(kKnownCard);
    EXPECT_EQ(resultOf<Provider>(
                  askAsIs(Command::kSetCardTypeProviderName, RecordBytes(Provider::kSize)
                                                                 .raw(Provider::kCard, card)
                                                                 .raw(Provider::kLength, {2})
                                                                 .append(terminated("X")))),
              result::kSuccess);
    EXPECT_EQ(resultOf<Forget>(askAsIs(Command::kForgetCardType,
                                       RecordBytes(Forget::kSize).raw(Forget::kCard, card))),
              result::kSuccess);
}

TEST_F(DaemonDatabaseTest, ClosesThePipeOnAnUnknownCommand) {
    EXPECT_THAT(ask(static_cast<Command>(0x80C), Bytes(16)), kClosesThePipe);
    EXPECT_THAT(ask(static_cast<Command>(14), Bytes(16)), kClosesThePipe);
}

}  // namespace
}  // namespace tez::pcscd
