// Calls that nobody serves, and the device-instance-id calls, which no reader has an answer to.
#include <cstdint>

#include "call_catalogue.h"
#include "guarded_buffer.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RefusedCallTest : public RemoteCardTest, public testing::WithParamInterface<ExportedCall> {
  protected:
    /// Calls the export with as many words as any of these takes: the calling convention leaves the
    /// stack to the caller, so that the words that one does not take do it no harm.
    static LONG callWith(std::uint64_t first, std::uint64_t others) {
        using Call =
            LONG WINAPI(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t);
        auto* const call = exportedFunction<Call>(libraryModule(), GetParam().name.c_str());
        return call(first, others, others, others, others);
    }

    static LONG callWith(std::uint64_t first, const GuardedBuffer& buffer) {
        return callWith(first, reinterpret_cast<std::uintptr_t>(buffer.data()));
    }

    static LONG result() { return *GetParam().refusal; }

    void forbidHostCalls() {
// NOLINTNEXTLINE(bugprone-macro-parentheses): names are no expressions
#define TEZ_FORBID_CALL(Result, name, parameters, arguments) EXPECT_CALL(host, name).Times(0);
        TEZ_FOR_EACH_SYSTEM_CALL(TEZ_FORBID_CALL)
#undef TEZ_FORBID_CALL
    }

    /// The lines that this many calls leave are all that the log has got.
    void expectLoggedCalls(std::size_t calls, std::size_t linesBefore = 0) const {
        const std::vector<LogEntry> entries = log().entries();
        EXPECT_EQ(entries.size(), linesBefore + (result() == SCARD_F_INTERNAL_ERROR ? calls : 0));
        for (std::size_t i = linesBefore; i < entries.size(); ++i) {
            EXPECT_THAT(entries[i],
                        LogLine('W', GetParam().name, GetParam().name + " not implemented"));
        }
    }
};

TEST_P(RefusedCallTest, NeedsNothingOfTheProcess) {
    forbidHostCalls();
    EXPECT_THAT(callWith(0, 0), Gives(result()));
    expectLoggedCalls(1);
    EXPECT_EQ(transport().opens(), 0U);
}

TEST_P(RefusedCallTest, LooksAtNoneOfItsArguments) {
    for (const std::uint64_t garbage :
         {std::uint64_t{1}, std::uint64_t{0xFFFFFFFF}, 0x8000000000000000, 0xFFFFFFFFFFFFFFFF}) {
        EXPECT_THAT(callWith(garbage, garbage), Gives(result()));
    }
    // Any access to a buffer without a single byte ends the process.
    EXPECT_THAT(callWith(0, GuardedBuffer(0)), Gives(result()));
    expectLoggedCalls(5);
}

TEST_P(RefusedCallTest, ReachesNeitherSideNorTheCallersBuffers) {
    connectCard();
    const std::size_t linesBefore = log().entries().size();
    const std::size_t opens = transport().opens();
    forbidHostCalls();
    const GuardedBuffer buffer(300);
    for (const std::uint64_t handle : {std::uint64_t{context}, std::uint64_t{card.handle}}) {
        EXPECT_THAT(callWith(handle, buffer), Gives(result()));
    }
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(transport().opens(), opens);
    expectLoggedCalls(2, linesBefore);
}

INSTANTIATE_TEST_SUITE_P(EveryExport, RefusedCallTest, testing::ValuesIn(refusedCalls()),
                         nameOfCall);

}  // namespace
}  // namespace tez::test
