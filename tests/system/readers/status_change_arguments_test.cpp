// SCardGetStatusChangeA: what is judged before anything is waited for, and which entry goes where.
#include <cstring>

#include "guarded_buffer.h"
#include "log_text.h"
#include "status_waits.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

constexpr const char* kListing =
    "List readers was never called, let's call it to update the list of local and remote readers";

class StatusChangeArguments : public StatusChangeTest {
  protected:
    static LONG wait(SCARDCONTEXT context, DWORD timeout, std::vector<SCARD_READERSTATEA>& states) {
        return SCardGetStatusChangeA(context, timeout, states.data(),
                                     static_cast<DWORD>(states.size()));
    }

    /// The log lines of a call that is over before it begins.
    void expectRefusal(char level, const char* reason, const char* result) {
        EXPECT_THAT(log().entries(), Contains(LogLine(level, kStatusChange, reason)));
        EXPECT_THAT(
            log().entries(),
            Contains(LogLine('D', kStatusChange, std::string("GET_STATUS_CHANGE RV: ") + result)));
    }
};

TEST_F(StatusChangeArguments, LogsWhatCameInAndTheResult) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    std::vector states{unchangedHost()};
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_E_TIMEOUT));
    EXPECT_THAT(log().messages(kStatusChange, 'D'),
                IsSupersetOf({"GET_STATUS_CHANGE IN-PARAMS: 1, 0, " + logged(states.data()) + ", 1",
                              std::string("GET_STATUS_CHANGE RV: 0x8010000A")}));
}

// A worker may ask the host when the application's are gone: those of a terminated thread.
TEST_F(StatusChangeArguments, GoToTheHostWithNamesOfTheLibrarysOwn) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{unchangedHost(), unchangedRemote()};
    EXPECT_CALL(host, SCardGetStatusChangeA)
        .WillOnce([&](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA asked, DWORD) {
            EXPECT_STREQ(asked->szReader, kHostReader);
            EXPECT_NE(asked->szReader, states[0].szReader);
            return SCARD_S_SUCCESS;
        });
    EXPECT_THAT(wait(context, INFINITE, states), Gives(SCARD_S_SUCCESS));
}

TEST_F(StatusChangeArguments, RefuseAnUnknownContext) {
    std::vector states{unchangedHost()};
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    EXPECT_THAT(wait(4711, INFINITE, states), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('D', kStatusChange, "GET_STATUS_CHANGE RV: 0x80100003")));
}

TEST_F(StatusChangeArguments, RefuseSeventeenEntries) {
    const SCARDCONTEXT context = establish();
    std::vector states(17, unchangedHost());
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_E_INVALID_PARAMETER));
    expectRefusal('W', "Invalid parameter", "0x80100004");
}

TEST_F(StatusChangeArguments, AcceptSixteenEntries) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    std::vector states(16, readerState(kHostReader, SCARD_STATE_UNAWARE));
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states.back().dwEventState, kFirstCard | kChanged);
}

TEST_F(StatusChangeArguments, RefuseANullArrayWithACount) {
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    expectRefusal('W', "Invalid parameter", "0x80100004");
}

TEST_F(StatusChangeArguments, LetAnEmptyListSleepForTheWholeTimeout) {
    const SCARDCONTEXT context = establish();
    std::vector<DWORD> sleeps;
    const ImportPatch<decltype(::Sleep)> sleep(
        libraryModule(), "KERNEL32.dll", "Sleep",
        [&sleeps, thread = GetCurrentThreadId()](DWORD milliseconds) {
            if (GetCurrentThreadId() == thread) {
                sleeps.push_back(milliseconds);
            } else {
                ::Sleep(milliseconds);
            }
        });
    EXPECT_THAT(SCardGetStatusChangeA(context, 12345, nullptr, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardGetStatusChangeA(context, INFINITE, nullptr, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(sleeps, ElementsAre(12345U, INFINITE));
    EXPECT_EQ(log().count(kStatusChange, "Reader list is empty"), 2U);
    expectRefusal('D', "Reader list is empty", "0x00000000");
}

TEST_F(StatusChangeArguments, RefuseAnEntryWithoutAName) {
    const SCARDCONTEXT context = establish();
    std::vector states{readerState(kHostReader, SCARD_STATE_UNAWARE),
                       readerState(nullptr, SCARD_STATE_UNAWARE, kUntouched)};
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_EQ(states[0].dwEventState, 0U);
    EXPECT_EQ(states[1].dwEventState, kUntouched);
    expectRefusal('W', "Invalid value", "0x80100011");
}

TEST_F(StatusChangeArguments, JudgeAMissingNameBeforeTheIgnoredStates) {
    const SCARDCONTEXT context = establish();
    std::vector states{readerState(nullptr, SCARD_STATE_IGNORE)};
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(StatusChangeArguments, ReturnAtOnceWhenAllReadersAreIgnored) {
    const SCARDCONTEXT context = establishWithDaemon();
    daemon.clearRecords();
    std::vector states{
        readerState(kHostReader, SCARD_STATE_IGNORE | SCARD_STATE_PRESENT, kUntouched),
        readerState(kRemoteReader, SCARD_STATE_IGNORE)};
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    EXPECT_CALL(host, SCardListReadersA).Times(0);
    EXPECT_THAT(wait(context, INFINITE, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    expectRefusal('D', "All readers ignored", "0x00000000");
}

TEST_F(StatusChangeArguments, PassAnIgnoredEntryOnWhenAnotherOneIsNot) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kHostReader, SCARD_STATE_IGNORE),
                       readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    EXPECT_CALL(host, SCardGetStatusChangeA(kFirstHostContext, 0, _, 1));
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, static_cast<DWORD>(SCARD_STATE_IGNORE));
    EXPECT_EQ(states[1].dwEventState, kFirstCard | kChanged);
}

TEST_F(StatusChangeArguments, ClearTheCancelledMarkBeforeTheyAreJudged) {
    const SCARDCONTEXT context = establish();
    ASSERT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    std::vector states(17, unchangedHost());
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages("setContextCancelled", 'D'),
                ElementsAre("Setting ContextCancelled 7a000001 to 1",
                            "Setting ContextCancelled 7a000001 to 0"));
}

TEST_F(StatusChangeArguments, ListTheReadersOnceWhenNobodyDidBefore) {
    const SCARDCONTEXT context = establishWithDaemon();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(log().count(kStatusChange, kListing), 1U);
    EXPECT_THAT(log().entries(), Contains(LogLine('D', kStatusChange, kListing)));
    EXPECT_EQ(daemon.requests(Command::kListReaders).size(), 1U);
    EXPECT_THAT(log().messages("SCardListReadersA"), Contains("LIST_READERS RV: 0x00000000"));
}

TEST_F(StatusChangeArguments, DoNotListTheReadersWhenTheApplicationDid) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kRemoteReader, SCARD_STATE_UNAWARE)};
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kStatusChange), Not(Contains(kListing)));
    EXPECT_THAT(daemon.requests(Command::kListReaders), IsEmpty());
}

TEST_F(StatusChangeArguments, LeaveAReaderOfNeitherSideAlone) {
    const SCARDCONTEXT context = establishAndList();
    const GuardedBuffer memory(2 * sizeof(SCARD_READERSTATEA));
    auto* const states = memory.as<SCARD_READERSTATEA>();
    states[0] = readerState("Reader of neither side", SCARD_STATE_UNAWARE, 0xDEADBEEF);
    states[0].cbAtr = 7;
    states[1] = unchangedHost();
    const SCARD_READERSTATEA before = states[0];
    // It does not shorten the wait either, though its state would have changed.
    EXPECT_CALL(host, SCardGetStatusChangeA(_, 50, _, 1));
    const ULONGLONG start = GetTickCount64();
    SCardGetStatusChangeA(context, 50, states, 2);
    EXPECT_GE(GetTickCount64() - start, 45U);
    EXPECT_EQ(std::memcmp(&states[0], &before, sizeof before), 0);
    EXPECT_THAT(daemon.requests(Command::kGetStatusChange), IsEmpty());
}

TEST_F(StatusChangeArguments, CompareReaderNamesExactly) {
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState("host reader 0", SCARD_STATE_UNAWARE, 1),
                       readerState("REMOTE READER 0", SCARD_STATE_UNAWARE, 2),
                       readerState("Remote Reader 0 ", SCARD_STATE_UNAWARE, 3)};
    EXPECT_CALL(host, SCardGetStatusChangeA).Times(0);
    EXPECT_THAT(wait(context, INFINITE, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, 1U);
    EXPECT_EQ(states[1].dwEventState, 2U);
    EXPECT_EQ(states[2].dwEventState, 3U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(StatusChangeArguments, TakeANameOfBothSidesForTheHosts) {
    remote.addReader(kHostReader);
    const SCARDCONTEXT context = establishAndList();
    std::vector states{readerState(kHostReader, SCARD_STATE_UNAWARE)};
    EXPECT_CALL(host, SCardGetStatusChangeA(_, _, _, 1));
    EXPECT_THAT(wait(context, 0, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[0].dwEventState, kFirstCard | kChanged);  // the remote one is empty
    EXPECT_THAT(daemon.requests(Command::kGetStatusChange), IsEmpty());
}

TEST_F(StatusChangeArguments, WriteNothingBehindTheEntries) {
    const SCARDCONTEXT context = establishAndList();
    const GuardedBuffer memory(2 * sizeof(SCARD_READERSTATEA));
    auto* const states = memory.as<SCARD_READERSTATEA>();
    states[0] = readerState(kHostReader, SCARD_STATE_UNAWARE);
    states[1] = readerState(kRemoteReader, SCARD_STATE_UNAWARE);
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states, 2), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(memory.untouchedFrom(memory.size()));
    EXPECT_EQ(states[0].dwCurrentState, 0U);
    EXPECT_EQ(states[1].dwCurrentState, 0U);
}

}  // namespace
}  // namespace tez::test
