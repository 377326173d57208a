// The daemon's answers about card types, cached data, icons, device types and audits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <initializer_list>

#include "core/commands.h"
#include "core/reader_icon.h"
#include "core/text.h"
#include "record_codec.h"
#include "simulated/simulated_service.h"

namespace tez::pcscd {
namespace {

using test::putBytes;
using test::putU32;
using test::putU64;
using test::u32At;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kDatabaseReader = "Reader";
constexpr const char* kKnownCard = "Known Card";
constexpr std::uint32_t kProviderId = 2;
constexpr Clients::Process kProcess = 1;

struct Filled {
    std::size_t offset;
    Bytes bytes;
};

Bytes numberBytes(std::uint32_t value) {
    Bytes bytes(4);
    putU32(bytes, 0, value);
    return bytes;
}

/// A request's body: zero but for the fields, and a data phase.
Bytes bodyOf(std::size_t recordSize, std::initializer_list<Filled> fields, const Bytes& data = {}) {
    Bytes body(recordSize);
    for (const Filled& field : fields) {
        putBytes(body, field.offset, field.bytes);
    }
    body.insert(body.end(), data.begin(), data.end());
    return body;
}

Bytes joined(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

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

    /// What follows the record in an answer whose result, at its offset, is success.
    static Bytes dataOf(const Reply& reply, std::size_t resultOffset) {
        EXPECT_THAT(reply.blocks, SizeIs(2));
        EXPECT_FALSE(reply.close);
        if (reply.blocks.size() != 2) {
            return {};
        }
        EXPECT_EQ(u32At(reply.blocks[0], resultOffset), 0U);
        return reply.blocks[1];
    }

    /// The result in an answer without a data phase.
    static Result resultOf(const Reply& reply, std::size_t resultOffset) {
        EXPECT_THAT(reply.blocks, SizeIs(1));
        EXPECT_FALSE(reply.close);
        return reply.blocks.empty() ? -1
                                    : static_cast<Result>(u32At(reply.blocks[0], resultOffset));
    }

    SimulatedService service_;
    Context context_ = 0;
    Clients clients_;
    Bytes record_;  // of the last answer
};

const auto kClosesThePipe = AllOf(Field(&Reply::blocks, IsEmpty()), Field(&Reply::close, true));

TEST_F(DaemonDatabaseTest, ListsCardsAsAMultiString) {
    service_.cardStore().introduce("Other", {});
    const Bytes list = dataOf(ask(Command::kListCards, Bytes(54)), 50);
    EXPECT_EQ(list, multiString({kKnownCard, "Other"}));
    EXPECT_EQ(u32At(record_, 46), list.size());
    EXPECT_EQ(dataOf(askAsIs(Command::kListCards, Bytes(54)), 50), list) << "without a context";
}

TEST_F(DaemonDatabaseTest, ListsCardsByAtr) {
    const Bytes atr = makeDemoCard("Ada").atr();
    EXPECT_EQ(dataOf(ask(Command::kListCards, bodyOf(54, {{8, {1}}, {9, atr}})), 50),
              multiString({kKnownCard}));
    EXPECT_EQ(dataOf(ask(Command::kListCards, bodyOf(54, {{8, {1}}, {9, Bytes(33, 0xFF)}})), 50),
              multiString({}))
        << "no ATR at all";
    EXPECT_EQ(dataOf(ask(Command::kListCards,
                         bodyOf(54, {{8, {1}}, {9, makeAtr(protocol::kT0, "other")}})),
                     50),
              multiString({}));
}

TEST_F(DaemonDatabaseTest, ListsCardsByInterface) {
    const Bytes guid = bodyOf(16, {{0, {1}}, {4, {2}}, {6, {3}}, {8, {4}}});
    const auto ask1 = [&](const Bytes& tail, std::uint32_t count) {
        return dataOf(ask(Command::kListCards, bodyOf(54, {{42, numberBytes(count)}}, tail)), 50);
    };
    EXPECT_EQ(ask1(guid, 1), multiString({kKnownCard}));
    EXPECT_EQ(ask1(Bytes(16), 1), multiString({}));
    EXPECT_EQ(ask1(Bytes(16), 0), multiString({kKnownCard})) << "not counted";
    EXPECT_THAT(ask(Command::kListCards, bodyOf(54, {{42, numberBytes(2)}}, guid)), kClosesThePipe);
    EXPECT_THAT(ask(Command::kListCards, bodyOf(54, {}, Bytes(15))), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, RefusesAnUnknownContext) {
    const auto refused = [this](Command command, std::size_t resultOffset, Bytes body) {
        putU64(body, 0, 4711);
        EXPECT_EQ(resultOf(askAsIs(command, body), resultOffset), result::kInvalidHandle);
    };
    const Bytes name = terminated("name");
    refused(Command::kListCards, 50, Bytes(54));
    refused(Command::kGetDeviceTypeId, 140, Bytes(144));
    refused(Command::kGetCardTypeProviderName, 1040, Bytes(1044));
    refused(Command::kReadCache, 32, bodyOf(36, {}, name));
    refused(Command::kWriteCache, 32, bodyOf(36, {}, name));
    refused(Command::kGetReaderIcon, 12, bodyOf(16, {}, name));
    refused(Command::kAudit, 12, Bytes(16));
    refused(Command::kSetCardTypeProviderName, 1040, bodyOf(1044, {{1036, {5}}}, name));
    refused(Command::kIntroduceCardType, 1125,
            bodyOf(1129, {{1053, {1}}, {1054, makeAtr(protocol::kT0, "")}}));
    refused(Command::kForgetCardType, 1032, Bytes(1036));
}

TEST_F(DaemonDatabaseTest, TellsTheDeviceTypeOfAReader) {
    const Bytes reader = terminated(kDatabaseReader);
    EXPECT_EQ(resultOf(ask(Command::kGetDeviceTypeId, bodyOf(144, {{8, reader}})), 140),
              result::kSuccess);
    EXPECT_EQ(u32At(record_, 136), kReaderTypeUsb);
    EXPECT_EQ(resultOf(ask(Command::kGetDeviceTypeId, Bytes(144)), 140), result::kUnknownReader);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId, bodyOf(144, {{8, Bytes(128, 'R')}})),
                kClosesThePipe);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId, Bytes(145)), kClosesThePipe);
    EXPECT_THAT(ask(Command::kGetDeviceTypeId, Bytes(143)), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, TellsAndTakesProviderNames) {
    const Bytes card = terminated(kKnownCard);
    const Bytes asking = bodyOf(1044, {{8, card}, {1032, {kProviderId}}});
    EXPECT_EQ(dataOf(ask(Command::kGetCardTypeProviderName, asking), 1040),
              terminated("A Provider"));
    EXPECT_EQ(u32At(record_, 1036), 11U);

    const auto setting = [&](std::uint8_t length, const Bytes& name) {
        return ask(Command::kSetCardTypeProviderName,
                   bodyOf(1044, {{8, card}, {1032, {kProviderId}}, {1036, {length}}}, name));
    };
    EXPECT_EQ(resultOf(setting(4, terminated("New")), 1040), result::kSuccess);
    EXPECT_EQ(dataOf(ask(Command::kGetCardTypeProviderName, asking), 1040), terminated("New"));
    EXPECT_EQ(resultOf(setting(1, terminated("")), 1040), result::kSuccess);
    EXPECT_THAT(setting(3, terminated("New")), kClosesThePipe);
    EXPECT_THAT(setting(3, {'N', 'e', 'w'}), kClosesThePipe);
    EXPECT_THAT(setting(4, {'N', 0, 'w', 0}), kClosesThePipe);
    EXPECT_THAT(setting(0, {}), kClosesThePipe);

    EXPECT_EQ(resultOf(ask(Command::kGetCardTypeProviderName, Bytes(1044)), 1040),
              result::kUnknownCard);
    EXPECT_EQ(resultOf(ask(Command::kGetCardTypeProviderName, bodyOf(1044, {{8, card}})), 1040),
              result::kFileNotFound);
}

TEST_F(DaemonDatabaseTest, IntroducesAndForgetsCardTypes) {
    const Bytes card = terminated("New Card");
    const Bytes atr = makeAtr(protocol::kT1, "new");
    const Bytes guid = bodyOf(16, {{0, {9}}});
    const auto size = static_cast<std::uint8_t>(atr.size());
    const Bytes whole = bodyOf(1129,
                               {{8, card},
                                {1032, {1}},
                                {1033, {7}},
                                {1049, {1}},
                                {1053, {1}},
                                {1054, atr},
                                {1087, {1}},
                                {1088, Bytes(size, 0xF0)},
                                {1121, {size}}},
                               guid);
    EXPECT_EQ(resultOf(ask(Command::kIntroduceCardType, whole), 1125), result::kSuccess);
    const std::optional<CardType> type = service_.cardStore().find("New Card");
    ASSERT_TRUE(type);
    EXPECT_EQ(type->atr, atr);
    EXPECT_EQ(type->atrMask, Bytes(size, 0xF0));
    EXPECT_EQ(type->primaryProvider, Guid{7});
    EXPECT_THAT(type->interfaces, ElementsAre(Guid{9}));
    EXPECT_EQ(resultOf(ask(Command::kIntroduceCardType, whole), 1125), result::kAlreadyExists);

    const Bytes forgetting = bodyOf(1036, {{8, card}});
    EXPECT_EQ(resultOf(ask(Command::kForgetCardType, forgetting), 1032), result::kSuccess);
    EXPECT_EQ(resultOf(ask(Command::kForgetCardType, forgetting), 1032), result::kUnknownCard);
    EXPECT_FALSE(service_.cardStore().find("New Card"));
}

TEST_F(DaemonDatabaseTest, IntroducesACardTypeOfWhichOnlyTheAtrIsTold) {
    const Bytes card = terminated("New Card");
    const Bytes atr = makeAtr(protocol::kT1, "new");
    EXPECT_EQ(resultOf(ask(Command::kIntroduceCardType,
                           bodyOf(1129, {{8, card}, {1053, {1}}, {1054, atr}})),
                       1125),
              result::kSuccess);
    const std::optional<CardType> type = service_.cardStore().find("New Card");
    ASSERT_TRUE(type);
    EXPECT_EQ(type->atr, atr) << "as long as its structure says";
    EXPECT_EQ(type->atrMask, Bytes(atr.size(), 0xFF));
    EXPECT_FALSE(type->primaryProvider);
    EXPECT_THAT(type->interfaces, IsEmpty());
}

TEST_F(DaemonDatabaseTest, TakesNoCardTypeWithoutAnAtrOrOfAnImpossibleForm) {
    EXPECT_EQ(resultOf(ask(Command::kIntroduceCardType, Bytes(1129)), 1125),
              result::kInvalidParameter);
    EXPECT_THAT(ask(Command::kIntroduceCardType, bodyOf(1129, {{1121, {34}}})), kClosesThePipe);
    EXPECT_THAT(ask(Command::kIntroduceCardType, bodyOf(1129, {{1049, {2}}}, Bytes(16))),
                kClosesThePipe);
    EXPECT_THAT(ask(Command::kIntroduceCardType, bodyOf(1129, {{8, Bytes(1024, 'C')}})),
                kClosesThePipe);
    EXPECT_THAT(ask(Command::kForgetCardType, bodyOf(1036, {{8, Bytes(1024, 'C')}})),
                kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, CachesDataBehindTheRecord) {
    const Bytes name = terminated("name");
    const Bytes data{1, 0, 2};
    const auto writing = [&](std::uint8_t length, const Bytes& tail) {
        return ask(Command::kWriteCache, bodyOf(36, {{8, {9}}, {24, {5}}, {28, {length}}}, tail));
    };
    const auto reading = [&](std::uint8_t freshness) {
        return ask(Command::kReadCache, bodyOf(36, {{8, {9}}, {24, {freshness}}}, name));
    };
    EXPECT_EQ(resultOf(reading(5), 32), result::kCacheItemNotFound);
    EXPECT_EQ(resultOf(writing(3, joined(data, name)), 32), result::kSuccess);
    EXPECT_EQ(dataOf(reading(5), 32), data);
    EXPECT_EQ(u32At(record_, 28), 3U);
    EXPECT_EQ(resultOf(reading(6), 32), result::kCacheItemStale);
    EXPECT_EQ(resultOf(writing(0, name), 32), result::kSuccess);
    EXPECT_THAT(dataOf(reading(5), 32), IsEmpty());
    EXPECT_THAT(writing(9, joined(data, name)), kClosesThePipe) << "more than there is";
    EXPECT_THAT(writing(1, joined(data, name)), kClosesThePipe) << "a NUL within";
    EXPECT_THAT(writing(3, data), kClosesThePipe);
    EXPECT_THAT(ask(Command::kReadCache, Bytes(36)), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, GivesEveryReaderAnIcon) {
    const auto asking = [&](const Bytes& name) {
        return ask(Command::kGetReaderIcon, bodyOf(16, {}, name));
    };
    const Bytes icon = dataOf(asking(terminated(kDatabaseReader)), 12);
    EXPECT_EQ(icon, Bytes(readerIcon().begin(), readerIcon().end()));
    EXPECT_EQ(u32At(record_, 8), icon.size());
    EXPECT_EQ(resultOf(asking({0}), 12), result::kUnknownReader);
    EXPECT_THAT(asking({'R'}), kClosesThePipe);
    EXPECT_THAT(asking({}), kClosesThePipe);
}

TEST_F(DaemonDatabaseTest, AuditsTheTwoEventsOfAContext) {
    const auto auditing = [&](std::uint8_t event) {
        return resultOf(ask(Command::kAudit, bodyOf(16, {{8, {event}}})), 12);
    };
    EXPECT_EQ(auditing(kAuditFailure), result::kSuccess);
    EXPECT_EQ(auditing(kAuditSuccess), result::kSuccess);
    EXPECT_EQ(auditing(2), result::kInvalidParameter);
    EXPECT_EQ(resultOf(askAsIs(Command::kAudit, Bytes(16)), 12), result::kSuccess)
        << "without a context";
}

TEST_F(DaemonDatabaseTest, TakesCardTypeChangesWithoutAContext) {
    const Bytes card = terminated(kKnownCard);
    EXPECT_EQ(resultOf(askAsIs(Command::kSetCardTypeProviderName,
                               bodyOf(1044, {{8, card}, {1036, {2}}}, terminated("X"))),
                       1040),
              result::kSuccess);
    EXPECT_EQ(resultOf(askAsIs(Command::kForgetCardType, bodyOf(1036, {{8, card}})), 1032),
              result::kSuccess);
}

TEST_F(DaemonDatabaseTest, ClosesThePipeOnAnUnknownCommand) {
    EXPECT_THAT(ask(static_cast<Command>(0x80C), Bytes(16)), kClosesThePipe);
    EXPECT_THAT(ask(static_cast<Command>(14), Bytes(16)), kClosesThePipe);
}

}  // namespace
}  // namespace tez::pcscd
