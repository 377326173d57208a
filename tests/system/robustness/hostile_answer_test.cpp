// A daemon that leaves off in the middle of an answer, announces what nobody has room for, mistakes
// one call for another, or takes its time: each call ends with its code, nothing is written outside
// of the caller's buffers, and the next call gets its own answer.
#include <algorithm>
#include <future>
#include <set>
#include <thread>
#include <utility>

#include "catalogue_test.h"
#include "failing_writes.h"
#include "guarded_buffer.h"

namespace tez::test {
namespace {

constexpr LONG kNobodysCode = static_cast<LONG>(0xC0FFEE01);

class HostileAnswerTest : public CatalogueTest {
  protected:
    void SetUp() override { connectBothSides(); }

    /// The next calls get their own answers.
    void TearDown() override {
        answerAsEver();
        EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_S_SUCCESS));
    }

    void answerAsEver() {
        isClosing_ = false;
        daemon.on(answer().command, answer().handler());
    }

    /// Lets the daemon say that so many follow the record, or are in it, and give these.
    void announce(std::uint32_t count, const Bytes& data, LONG result = SCARD_S_SUCCESS) {
        std::vector<AnswerField> fields = answer().fields;
        fields.push_back({answer().announcingOffset(), count});
        fields.push_back({answer().resultOffset(), static_cast<std::uint32_t>(result)});
        daemon.on(answer().command, answering(answer().recordSize, fields, data));
    }

    /// Makes the call in one of the ways in which a result can be taken, each n another one, with
    /// so much room in a buffer.
    LONG callInWay(std::size_t n, DWORD room) {
        const std::vector<Output>& outputs = GetParam().outputs;
        if (outputs.empty()) {
            return call();
        }
        const Output& output = outputs[n % outputs.size()];
        const std::size_t way = output.isAllocatable ? n / outputs.size() % 3 : 0;
        return way == 0   ? intoBuffer(output, target(), room)
               : way == 1 ? intoBlock(output)
                          : forLength(output);
    }

    /// Takes the result in every way, and into a buffer without room for much.
    void expectNothingPastTheBuffers() {
        for (std::size_t n = 0; n < 3 * std::max<std::size_t>(1, GetParam().outputs.size()); ++n) {
            callInWay(n, 10);
            settle();
        }
    }

    /// After a call for which the daemon has hung up: the next one must not find the connection
    /// still open.
    void settle() {
        if (isClosing_) {
            EXPECT_TRUE(hangsUpAfter(answer().command));
        }
    }

    /// Lets the daemon give these bytes in the place of its answer, and hang up.
    void answerAndClose(std::function<Bytes(const Request&)> bytes) {
        isClosing_ = true;
        daemon.on(answer().command, [bytes = std::move(bytes)](const Request& request) {
            return Reply::closePipe({bytes(request)});
        });
    }

    void expectSuccess() const {
        const LONG rv = call();
        // These ask for more on the same connection.
        if (answer().command != Command::kConnect &&
            answer().command != Command::kEstablishContext) {
            EXPECT_THAT(rv, Gives(SCARD_S_SUCCESS));
        }
    }

    /// Where the answer may break off next: anywhere, but that the middle of a long record, which
    /// is read in one piece, is gone through in steps. The wide forms take their answers through
    /// the narrow ones.
    std::size_t nextBreak(std::size_t sent) const {
        constexpr std::size_t kBorder = 40;
        const bool isAtABorder = sent < kBorder || sent + kBorder >= answer().recordSize;
        return sent + (GetParam().name.ends_with('W') ? 41 : isAtABorder ? 1 : 17);
    }

    /// Of the last result, which is the one that is announced.
    void expectLengthOfAtLeast(std::uint32_t count) const {
        if (!GetParam().outputs.empty() && GetParam().outputs.back().isAllocatable) {
            DWORD length = 0;
            EXPECT_THAT(GetParam().outputs.back().make(target(), nullptr, &length),
                        Gives(SCARD_S_SUCCESS));
            EXPECT_GE(length, count);
        }
    }

  private:
    static LONG intoBuffer(const Output& output, const Target& on, DWORD room) {
        const GuardedBuffer buffer(room * output.unit);
        DWORD length = room;
        const LONG rv = output.make(on, buffer.data(), &length);
        // What is read straight into the buffer may stand there when the rest does not come.
        const std::size_t written = rv == SCARD_S_SUCCESS  ? length * output.unit
                                    : output.isAllocatable ? 0
                                                           : buffer.size();
        EXPECT_TRUE(buffer.untouchedFrom(written));
        EXPECT_TRUE(rv != SCARD_E_NO_SERVICE || !output.isAllocatable || length == room);
        return rv;
    }

    LONG intoBlock(const Output& output) const {
        void* block = nullptr;
        auto length = SCARD_AUTOALLOCATE;
        const LONG rv = output.make(target(), static_cast<void*>(&block), &length);
        EXPECT_TRUE(rv == SCARD_S_SUCCESS || block == nullptr);
        EXPECT_THAT(SCardFreeMemory(context, block), Gives(SCARD_S_SUCCESS));
        return rv;
    }

    LONG forLength(const Output& output) const {
        DWORD length = 0;
        return output.make(target(), nullptr, &length);
    }

    bool isClosing_ = false;
};

TEST_P(HostileAnswerTest, MayBreakOffAnywhere) {
    const std::size_t size = answer().recordSize + answer().data.size();
    std::size_t way = 0;
    for (std::size_t sent = 0; sent < size && !HasFailure(); sent = nextBreak(sent)) {
        SCOPED_TRACE(sent);
        answerAndClose([this, sent](const Request& request) {
            Bytes bytes = answer().bytesFor(request);
            bytes.resize(sent);
            return bytes;
        });
        EXPECT_THAT(callInWay(way++, 300), Gives(GetParam().failure(SCARD_E_NO_SERVICE)));
    }
}

TEST_P(HostileAnswerTest, AnnouncesNothingWithARefusal) {
    answerAsEver();
    call();  // there is a connection
    const bool mayAnnounce = answer().command != Command::kGetStatusChange;
    announce(mayAnnounce ? 0xFFFF : 0, {}, kNobodysCode);
    const std::size_t opens = transport().opens();
    EXPECT_THAT(call(), Gives(GetParam().failure(kNobodysCode)));
    expectNothingPastTheBuffers();
    EXPECT_EQ(transport().opens(), opens) << "the connection is still in order";
}

TEST_P(HostileAnswerTest, MayBeThatOfAnotherCall) {
    std::set<std::size_t> sizes;
    std::size_t way = 0;
    for (const ExportedCall& other : callsWith(reachesDaemon)) {
        SCOPED_TRACE(other.name);
        if (!sizes.insert(other.answer->recordSize).second) {
            continue;  // it looks like that of another one
        }
        answerAndClose([&other](const Request& request) {
            Request padded = request;
            padded.body.resize(std::max(request.body.size(), other.answer->recordSize), 0x5A);
            return other.answer->bytesFor(padded);
        });
        const LONG rv = callInWay(way++, 300);
        settle();
        if (other.answer->recordSize + other.answer->data.size() < answer().recordSize) {
            EXPECT_THAT(rv, Gives(GetParam().failure(SCARD_E_NO_SERVICE)));
        }
    }
}

// What comes too much cannot be told from the next answer; it is gone with the connection.
TEST_P(HostileAnswerTest, MayComeTwiceAndBeTheLastThatTheDaemonSays) {
    daemon.on(answer().command, [this](const Request& request) {
        const Bytes once = answer().bytesFor(request);
        Bytes twice = once;
        twice.insert(twice.end(), once.begin(), once.end());
        return Reply::of({twice});
    });
    expectSuccess();
    daemon.closeConnection(daemon.requests(answer().command).back().connection);
    answerAndClose([this](const Request& request) { return answer().bytesFor(request); });
    for (int i = 0; i < 3; ++i) {
        expectSuccess();
        settle();
    }
}

TEST_P(HostileAnswerTest, IsWaitedForOnlyOnceAllIsSent) {
    answerAsEver();
    bool hasFailed = true;
    for (int failing = 1; hasFailed && !HasFailure(); ++failing) {
        SCOPED_TRACE("write " + std::to_string(failing));
        const Target on = target();
        int writes = 0;
        LONG rv = SCARD_S_SUCCESS;
        {
            const FailingWrites broken([&](DWORD /*size*/) { return ++writes == failing; });
            rv = GetParam().make(on);
        }
        hasFailed = writes >= failing;
        if (rv != SCARD_S_SUCCESS) {
            EXPECT_TRUE(hasFailed);
            EXPECT_THAT(rv, Gives(GetParam().failure(SCARD_E_NO_SERVICE)));
        }
        EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS)) << "afterwards";
    }
}

INSTANTIATE_TEST_SUITE_P(EveryCall, HostileAnswerTest, testing::ValuesIn(callsWith(reachesDaemon)),
                         nameOfCall);

using HostileLengthTest = HostileAnswerTest;

TEST_P(HostileLengthTest, IsTakenUpToTheMostAndNoFurther) {
    const std::uint32_t most = *answer().mostAnnounced;
    for (const std::uint32_t count :
         {0U, 1U, 9U, 10U, 11U, most, most + 1, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(count);
        const bool isTooMuch = count > most;
        announce(count, Bytes(isTooMuch ? 0 : std::size_t{count} * answer().unit, 'x'));
        EXPECT_THAT(call(), Gives(isTooMuch ? answer().beyondMost : SCARD_S_SUCCESS));
        if (count != most) {  // which may be much
            expectNothingPastTheBuffers();
        }
        if (!isTooMuch) {
            expectLengthOfAtLeast(count);
        }
        if (isTooMuch && answer().unit != 0) {
            EXPECT_TRUE(hangsUpAfter(answer().command));
        }
    }
    for (const Bytes& data : {Bytes{0xFF, 0xFE, 0xC0, 0x80, 0xF8}, Bytes{0xE2, 0x82},
                              Bytes{0, 0, 0, 0}, Bytes{0xED, 0xA0, 0x80, 0}}) {
        if (answer().unit == 1) {  // no text
            announce(static_cast<std::uint32_t>(data.size()), data);
            EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS));
            expectNothingPastTheBuffers();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryCall, HostileLengthTest,
                         testing::ValuesIn(callsWith([](const ExportedCall& call) {
                             return reachesDaemon(call) && call.answer->mostAnnounced.has_value();
                         })),
                         nameOfCall);

/// Longer than whatever the library gives up.
constexpr std::chrono::milliseconds kLate(1200);

using LateAnswersTest = AllCallsTest;

// All calls at once, as each takes long.
TEST_F(LateAnswersTest, AreWaitedFor) {
    connectBothSides();
    struct Late {
        const ExportedCall& call;
        Target on;
        std::future<LONG> rv;
    };
    std::vector<Late> calls;
    for (const ExportedCall& call : callCatalogue()) {
        if (reachesDaemon(call)) {
            context = establish();  // as a cancel is for all waits of a context
            calls.push_back({call, targetOf(call, Side::kDaemon), {}});
        }
    }
    for (const Late& late : calls) {
        const Answer& answer = *late.call.answer;
        daemon.on(answer.command, [given = answer.handler()](const Request& request) {
            std::this_thread::sleep_for(kLate);
            return given(request);
        });
    }
    for (Late& late : calls) {
        late.rv = std::async(std::launch::async, late.call.make, late.on);
    }
    for (Late& late : calls) {
        EXPECT_THAT(late.rv.get(), Gives(SCARD_S_SUCCESS)) << late.call.name;
    }
}

}  // namespace
}  // namespace tez::test
