// A daemon that answers at random: with fields, lengths and data of no sense, and cut off anywhere.
// Nothing is written outside of the callers' buffers, and the next call gets its own answer.
#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <random>

#include "call_catalogue.h"
#include "guarded_buffer.h"
#include "record_codec.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

/// Reproducible choices.
class Choice {
  public:
    explicit Choice(std::uint32_t seed) : engine_(seed) {}

    std::uint32_t below(std::uint32_t end) {
        return std::uniform_int_distribution<std::uint32_t>(0, end - 1)(engine_);
    }
    bool oneIn(std::uint32_t count) { return below(count) == 0; }

    template <class Values>
    const auto& of(const Values& values) {
        return *(std::begin(values) + below(static_cast<std::uint32_t>(std::size(values))));
    }

    /// A length, a count or a code: small, at a border, or anything.
    std::uint32_t number() {
        static constexpr std::uint32_t kBorders[] = {
            0,          1,          15,         16,         17,         32,        33,
            127,        128,        255,        264,        265,        2048,      2049,
            0x7FFFFFFF, 0x80000000, 0x80100008, 0xFFFFFFFE, 0xFFFFFFFF, 0x1000000, 0x1000001};
        return oneIn(2) ? below(64) : oneIn(8) ? engine_() : of(kBorders);
    }

    Bytes bytes(std::size_t size) {
        Bytes made(size);
        const bool isText = oneIn(2);
        std::ranges::generate(made, [&] {
            return static_cast<std::uint8_t>(oneIn(8) ? 0 : isText ? 'a' + below(26) : below(256));
        });
        return made;
    }

  private:
    std::mt19937 engine_;
};

/// The size of one of those that follow an answer's record; 0 where nothing does.
std::size_t tailUnit(const Answer& answered, const Request& request, std::uint32_t result) {
    if (answered.command == Command::kGetStatusChange) {
        return result == 0 || request.version.isAtLeast({1, 1}) ? answered.unit : 0;
    }
    const bool isInRecord =
        answered.command == Command::kGetAttribute && !request.version.isAtLeast(kNewerForm);
    return result == 0 && !isInRecord ? answered.unit : 0;
}

/// The calls whose answers the daemon makes up. Contexts are not lost to it.
std::vector<ExportedCall> randomlyAnswered() {
    std::vector<ExportedCall> calls = callsWith(reachesDaemon);
    std::erase_if(calls, [](const ExportedCall& call) {
        return call.answer->command == Command::kEstablishContext ||
               call.answer->command == Command::kReleaseContext ||
               call.answer->command == Command::kCancel;
    });
    return calls;
}

/// An answer that may break off anywhere, or announce more than it has. Never less: what it has
/// more cannot be told from the next answer. The pipe closes behind what is not whole, as the rest
/// would be waited for without end.
Reply randomReply(Choice& choose, const Request& request, const Answer& answered) {
    Bytes answer = bytesAt(request.body, 0, answered.recordSize);
    for (std::uint32_t changes = choose.below(4); changes != 0; --changes) {
        const auto last = static_cast<std::uint32_t>(answered.recordSize) - 4;
        putU32(answer, choose.below(last + 1), choose.number());
    }
    const std::uint32_t result = choose.oneIn(4) ? choose.number() : 0;
    const std::size_t unit = tailUnit(answered, request, result);
    Bytes tail;
    std::uint32_t announced = choose.number();
    bool isWhole = true;
    if (unit != 0) {
        const std::uint32_t room = choose.oneIn(4) ? 5000 : 64;
        const std::uint32_t count = choose.below(room / static_cast<std::uint32_t>(unit) + 3);
        tail = choose.bytes(count * unit);
        announced = choose.oneIn(2) ? count : std::max(count, announced);
        isWhole = announced == count;
    }
    putU32(answer, answered.announcingOffset(), announced);
    putU32(answer, answered.resultOffset(), result);
    answer.insert(answer.end(), tail.begin(), tail.end());
    if (choose.oneIn(4)) {
        answer.resize(choose.below(static_cast<std::uint32_t>(answer.size())));
        isWhole = false;
    }
    return {{answer}, !isWhole};
}

class RandomDaemonTest : public RemoteCardTest, public testing::WithParamInterface<std::uint32_t> {
  protected:
    void SetUp() override {
        redirectDatabaseCalls();
        connectCard(ProtocolVersion{1, GetParam() % 5});
        serveAnswers(daemon, databaseCalls());
        closeHostsCache(host);
    }

    void answerAtRandom() {
        for (const ExportedCall& call : answered_) {
            daemon.on(call.answer->command, [choose = std::make_shared<Choice>(choose_.number()),
                                             answered = *call.answer](const Request& request) {
                return randomReply(*choose, request, answered);
            });
        }
    }

    void answerAsEver() {
        for (const ExportedCall& call : answered_) {
            daemon.restore(call.answer->command);
        }
    }

    /// Makes a call whose result goes to a buffer of the caller or of the library, or whose length
    /// alone is asked for.
    /// @param call  called with the destination and the length in elements of `unit` bytes.
    template <class Call>
    void takeResult(std::size_t unit, Call call) {
        auto length = SCARD_AUTOALLOCATE;
        if (choose_.oneIn(3)) {
            void* block = nullptr;
            call(static_cast<void*>(&block), &length);
            EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
            return;
        }
        length = choose_.below(choose_.oneIn(2) ? 8 : 600);
        if (choose_.oneIn(4)) {
            call(nullptr, &length);
            return;
        }
        takeResultInto(length, unit, call);
    }

    /// Behind the room that is told there is often more: where the system writes for the library,
    /// an inaccessible page is a failure of its own, and none that shows.
    template <class Call>
    void takeResultInto(DWORD room, std::size_t unit, Call call) {
        const GuardedBuffer buffer(room * unit + (choose_.oneIn(4) ? 0 : 5000));
        DWORD length = room;
        const LONG rv = call(static_cast<void*>(buffer.data()), &length);
        EXPECT_TRUE(buffer.untouchedFrom(room * unit));
        if (rv == SCARD_S_SUCCESS) {
            EXPECT_LE(length, room);
        }
    }

    /// Two outputs at once.
    template <class Name, class Status>
    void takeStatus(Status status) {
        takeResult(sizeof(Name), [&](void* name, DWORD* nameLength) {
            LONG rv = SCARD_S_SUCCESS;
            takeResult(1, [&](void* atr, DWORD* atrLength) {
                DWORD state = 0;
                DWORD protocol = 0;
                rv = status(card.handle, static_cast<Name*>(name), nameLength, &state, &protocol,
                            static_cast<BYTE*>(atr), atrLength);
                return rv;
            });
            return rv;
        });
    }

    template <class States, class GetStatusChange>
    void waitForCards(States states, GetStatusChange getStatusChange) {
        for (auto& state : states) {
            state.dwCurrentState = choose_.number() & ~DWORD{SCARD_STATE_IGNORE};
        }
        getStatusChange(context, 0, states.data(),
                        1 + choose_.below(static_cast<std::uint32_t>(states.size())));
        for (const auto& state : states) {
            EXPECT_LE(state.cbAtr, sizeof state.rgbAtr);
        }
    }

    void callCard();
    void callReaders();
    void callDatabase();

    Choice choose_{GetParam()};
    const std::vector<ExportedCall> answered_ = randomlyAnswered();
    const std::vector<ExportedCall> database_ = databaseCalls();
};

void RandomDaemonTest::callCard() {
    const Bytes data = choose_.bytes(choose_.below(300));
    DWORD number = 0;
    switch (choose_.below(10)) {
        case 0:
            takeStatus<char>(SCardStatusA);
            break;
        case 1:
            takeStatus<wchar_t>(SCardStatusW);
            break;
        case 2:
            takeResultInto(choose_.below(600), 1, [&](void* answer, DWORD* length) {
                SCARD_IO_REQUEST pci = *SCARD_PCI_T1;
                return SCardTransmit(card.handle, SCARD_PCI_T1, data.data(),
                                     static_cast<DWORD>(data.size()), &pci,
                                     static_cast<BYTE*>(answer), length);
            });
            break;
        case 3:
            takeResultInto(choose_.below(600), 1, [&](void* answer, DWORD* length) {
                return SCardControl(card.handle, SCARD_CTL_CODE(3400), data.data(),
                                    static_cast<DWORD>(data.size()), answer, *length, length);
            });
            break;
        case 4: {
            static constexpr DWORD kAttributes[] = {SCARD_ATTR_VENDOR_NAME, SCARD_ATTR_ATR_STRING,
                                                    SCARD_ATTR_DEVICE_FRIENDLY_NAME_W};
            const DWORD attribute = choose_.of(kAttributes);
            takeResult(1, [&](void* value, DWORD* length) {
                return SCardGetAttrib(card.handle, attribute, static_cast<BYTE*>(value), length);
            });
            break;
        }
        case 5:
            SCardSetAttrib(card.handle, SCARD_ATTR_VENDOR_NAME, data.data(),
                           static_cast<DWORD>(data.size()));
            break;
        case 6:
            SCardGetTransmitCount(card.handle, &number);
            break;
        case 7:
            SCardReconnect(card.handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                           &number);
            break;
        case 8:
            SCardBeginTransaction(card.handle);
            break;
        default:
            SCardEndTransaction(card.handle, SCARD_LEAVE_CARD);
            break;
    }
}

void RandomDaemonTest::callReaders() {
    switch (choose_.below(5)) {
        case 0:
            takeResult(sizeof(char), [&](void* names, DWORD* length) {
                return SCardListReadersA(context, nullptr, static_cast<char*>(names), length);
            });
            break;
        case 1:
            takeResult(sizeof(wchar_t), [&](void* names, DWORD* length) {
                return SCardListReadersW(context, nullptr, static_cast<wchar_t*>(names), length);
            });
            break;
        case 2: {
            std::array<SCARD_READERSTATEA, 2> states = {};
            states[0].szReader = kRemoteReader;
            states[1].szReader = R"(\\?PnP?\Notification)";
            waitForCards(states, SCardGetStatusChangeA);
            break;
        }
        case 3: {
            std::array<SCARD_READERSTATEW, 2> states = {};
            states[0].szReader = L"Remote Reader 0";
            states[1].szReader = LR"(\\?PnP?\Notification)";
            waitForCards(states, SCardGetStatusChangeW);
            break;
        }
        default: {
            SCARDHANDLE made = 0;
            DWORD protocol = 0;
            if (SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &made,
                              &protocol) == SCARD_S_SUCCESS) {
                SCardDisconnect(made, SCARD_LEAVE_CARD);
            }
            break;
        }
    }
}

void RandomDaemonTest::callDatabase() {
    const ExportedCall& call = choose_.of(database_);
    const Target on{call.takes == Takes::kUpdateContext ? 0 : context};
    if (call.outputs.empty()) {
        call.make(on);
        return;
    }
    const Output& output = call.outputs.front();
    takeResult(output.unit, [&](void* destination, DWORD* length) {
        return output.make(on, destination, length);
    });
}

TEST_P(RandomDaemonTest, WritesPastNoBufferAndSpoilsNoLaterCall) {
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        answerAtRandom();
        switch (choose_.below(3)) {
            case 0:
                callCard();
                break;
            case 1:
                callReaders();
                break;
            default:
                callDatabase();
                break;
        }
        answerAsEver();
        ASSERT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
        ASSERT_THAT(SCardEndTransaction(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
    }
    ASSERT_EQ(transmit(card, getChallenge()).size(), 10U);
    EXPECT_THAT(listReaders(context), testing::ElementsAre(kRemoteReader, kHostReader));
}

INSTANTIATE_TEST_SUITE_P(Seed, RandomDaemonTest, testing::Range(0U, 10U));

}  // namespace
}  // namespace tez::test
