// A daemon that has given way to one of another version, behind an idle pipe that the library
// keeps: the next header is carried over to it. What depends on the version must be as the daemon
// has it that answers; whatever does not depend on it just goes on.
#include "card_database_test.h"
#include "guarded_buffer.h"
#include "record_codec.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr DWORD kReadable = SCARD_ATTR_VENDOR_NAME;
constexpr DWORD kWritable = SCARD_ATTR_SUPRESS_T1_IFS_REQUEST;
constexpr std::uint32_t kWritableOnWire = 0x7FFF0007;

class OtherVersionTest : public CardDatabaseTest {
  protected:
    /// Connects a card at a daemon of one version, and leaves an idle pipe that has broken to it
    /// and a daemon of another version behind.
    void connectThenChangeVersion(ProtocolVersion before, ProtocolVersion after) {
        connectCard(before);
        daemon.setVersion(after);
        breakIdlePipe();
    }

    void breakIdlePipe() {
        ASSERT_TRUE(daemon.closeConnection(daemon.openConnections().back()));
        accepted_ = daemon.acceptedConnections();
    }

    /// The requests that arrived whole, in order of arrival.
    std::vector<Request> wholeRequests() const {
        std::vector<Request> requests = daemon.requests();
        std::erase_if(requests, [](const Request& request) { return !request.complete; });
        return requests;
    }

    /// How many pipes the library has opened since. One that carried a header and nothing else was
    /// closed.
    std::uint64_t newPipes() const { return daemon.acceptedConnections() - accepted_; }

  private:
    std::uint64_t accepted_ = 0;
};

/// The versions of two daemons, one in front of a gate and one behind it.
struct Versions {
    ProtocolVersion before;
    ProtocolVersion after;
};

void PrintTo(const Versions& versions, std::ostream* stream) {
    *stream << "1." << versions.before.minor << " to 1." << versions.after.minor;
}

const Versions kAcrossAttributes[] = {{kNewerForm, kFixedForm}, {kFixedForm, kNewerForm}};
const Versions kAcrossLongData[] = {{{1, 3}, {1, 2}}, {{1, 2}, {1, 3}}};

std::string nameOf(const testing::TestParamInfo<Versions>& info) {
    return "From1" + std::to_string(info.param.before.minor) + "To1" +
           std::to_string(info.param.after.minor);
}

class OtherAttributeFormTest : public OtherVersionTest,
                               public testing::WithParamInterface<Versions> {
  protected:
    static bool isFixedNow() { return GetParam().after.minor < 2; }
};

TEST_P(OtherAttributeFormTest, IsReadInTheFormOfTheDaemonThatAnswers) {
    connectThenChangeVersion(GetParam().before, GetParam().after);
    const GuardedBuffer value(100);
    DWORD length = 100;
    EXPECT_THAT(SCardGetAttrib(card.handle, kReadable, value.data(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_STREQ(value.as<char>(), "Virtual Readers");
    EXPECT_EQ(length, 16U);
    EXPECT_EQ(newPipes(), 2U);
    // Nothing was left on the pipe.
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(newPipes(), 2U);
    EXPECT_THAT(log().messages("SCardGetAttrib", 'W'), IsEmpty());
}

TEST_P(OtherAttributeFormTest, IsWrittenInTheFormOfTheDaemonThatAnswers) {
    connectThenChangeVersion(GetParam().before, GetParam().after);
    const BYTE value[] = {1, 2, 3};
    EXPECT_THAT(SCardSetAttrib(card.handle, kWritable, value, sizeof value),
                Gives(SCARD_S_SUCCESS));
    RecordBytes record = RecordBytes(AttributeLayout::kSize)
                             .u64(AttributeLayout::kCard, kDaemonCard)
                             .u32(AttributeLayout::kId, kWritableOnWire)
                             .u32(AttributeLayout::kLength, 3);
    if (isFixedNow()) {
        record.raw(12, {1, 2, 3});
    } else {
        record.append({1, 2, 3});
    }
    EXPECT_THAT(wholeRequests(), ElementsAre(IsRequest(Command::kSetAttribute, record)));
    EXPECT_EQ(newPipes(), 2U);
}

INSTANTIATE_TEST_SUITE_P(OtherVersion, OtherAttributeFormTest, testing::ValuesIn(kAcrossAttributes),
                         nameOf);

TEST_F(OtherVersionTest, LimitsAnAttributeToWhatTheDaemonThatAnswersCarries) {
    connectThenChangeVersion(kNewerForm, kFixedForm);
    const GuardedBuffer value(300);
    DWORD length = 300;
    EXPECT_THAT(SCardGetAttrib(card.handle, kReadable, value.data(), &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 300U);
    EXPECT_TRUE(value.untouched());
    breakIdlePipe();
    EXPECT_THAT(SCardSetAttrib(card.handle, kWritable, sampleBytes(265).data(), 265),
                Gives(kNotSupported));
    EXPECT_THAT(wholeRequests(), IsEmpty());
}

class OtherDataLimitTest : public OtherVersionTest, public testing::WithParamInterface<Versions> {};

TEST_P(OtherDataLimitTest, LetsShortDataPass) {
    connectThenChangeVersion(GetParam().before, GetParam().after);
    EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    EXPECT_EQ(newPipes(), 2U);
    breakIdlePipe();
    DWORD returned = 0;
    BYTE echo[3] = {};
    EXPECT_THAT(
        SCardControl(card.handle, SCARD_CTL_CODE(kControlEcho), "abc", 3, echo, 3, &returned),
        Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(returned, 3U);
    EXPECT_EQ(newPipes(), 1U) << "of the version that the library knows";
}

INSTANTIATE_TEST_SUITE_P(OtherVersion, OtherDataLimitTest, testing::ValuesIn(kAcrossLongData),
                         nameOf);

TEST_F(OtherVersionTest, LimitsDataToWhatTheDaemonThatAnswersCarries) {
    connectThenChangeVersion({1, 3}, {1, 2});
    const GuardedBuffer response(kOldDaemonsLimit + 1);
    auto length = static_cast<DWORD>(response.size());
    const Bytes& command = getChallenge();
    EXPECT_THAT(
        SCardTransmit(card.handle, card.pci(), command.data(), static_cast<DWORD>(command.size()),
                      nullptr, response.data(), &length),
        Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_THAT(log().messages("SCardTransmit", 'W'),
                ElementsAre(StartsWith("Provided buffers are too big")));
    EXPECT_TRUE(response.untouched());
    EXPECT_THAT(wholeRequests(), IsEmpty());
}

TEST_F(OtherVersionTest, LimitsControlDataToo) {
    connectThenChangeVersion({1, 3}, {1, 2});
    const GuardedBuffer output(kOldDaemonsLimit + 1);
    DWORD returned = kUntouched;
    EXPECT_THAT(SCardControl(card.handle, SCARD_CTL_CODE(kControlEcho), nullptr, 0, output.data(),
                             static_cast<DWORD>(output.size()), &returned),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(returned, 0U);
    EXPECT_THAT(wholeRequests(), IsEmpty());
}

TEST_F(OtherVersionTest, DoesNotAskForWhatTheDaemonThatAnswersDoesNotKnow) {
    connectThenChangeVersion({1, 2}, {1, 1});
    DWORD count = kUntouched;
    EXPECT_THAT(SCardGetTransmitCount(card.handle, &count), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(count, kUntouched);
    EXPECT_THAT(log().messages("SCardGetTransmitCount"),
                ElementsAre(_, gateLine("SCardGetTransmitCount"), _));
    EXPECT_EQ(newPipes(), 2U);
    EXPECT_THAT(wholeRequests(), IsEmpty());
}

TEST_F(OtherVersionTest, LeavesACardListToTheHostForADaemonThatKnowsNone) {
    redirectAllCalls();
    connectThenChangeVersion({1, 2}, {1, 1});
    DWORD length = 0;
    EXPECT_THAT(SCardListCardsA(context, nullptr, nullptr, 0, nullptr, &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, std::string(kHostCardType).size() + 2) << "of the host alone";
    EXPECT_THAT(log().messages("SCardListCardsA"), Contains(gateLine("SCardListCardsA")));
    EXPECT_THAT(wholeRequests(), IsEmpty());
}

TEST_F(OtherVersionTest, GoesOnWithinOneSideOfAGate) {
    connectThenChangeVersion({1, 2}, {1, 4});
    const GuardedBuffer value(100);
    DWORD length = 100;
    EXPECT_THAT(SCardGetAttrib(card.handle, kReadable, value.data(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_STREQ(value.as<char>(), "Virtual Readers");
    EXPECT_EQ(newPipes(), 1U) << "over the header that was carried over";
}

TEST_F(OtherVersionTest, GoesOnWithCallsThatDoNotDependOnIt) {
    connectThenChangeVersion({1, 4}, {1, 0});
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(newPipes(), 1U);
    daemon.setVersion({1, 4});
    breakIdlePipe();
    DWORD protocol = 0;
    EXPECT_THAT(SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               &protocol),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(newPipes(), 1U);
    EXPECT_THAT(wholeRequests(),
                ElementsAre(testing::Field(&Request::command, Command::kBeginTransaction),
                            testing::Field(&Request::command, Command::kReconnect)));
}

TEST_F(OtherVersionTest, IsNoServiceWhenThatDaemonHasGoneToo) {
    connectThenChangeVersion({1, 2}, {1, 1});
    // The pipe opens for the header, and not again.
    int opens = 0;
    const ImportPatch<decltype(::CreateFileA)> create(
        libraryModule(), "KERNEL32.dll", "CreateFileA",
        [&, thread = GetCurrentThreadId()](LPCSTR name, DWORD access, DWORD share,
                                           LPSECURITY_ATTRIBUTES security, DWORD creation,
                                           DWORD flags, HANDLE file) -> HANDLE {
            if (GetCurrentThreadId() == thread && ++opens > 1) {
                SetLastError(ERROR_FILE_NOT_FOUND);
                return INVALID_HANDLE_VALUE;
            }
            return ::CreateFileA(name, access, share, security, creation, flags, file);
        });
    DWORD count = kUntouched;
    EXPECT_THAT(SCardGetTransmitCount(card.handle, &count), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages("SCardGetTransmitCount", 'W'), ElementsAre("Failed to send header"));
}

}  // namespace
}  // namespace tez::test
