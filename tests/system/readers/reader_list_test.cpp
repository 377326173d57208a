// SCardListReadersA: the readers of both sides as one list.
#include "failing_writes.h"
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::DoAll;
using testing::DoDefault;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SetArgPointee;
using testing::StrEq;
using namespace std::string_literals;

class ReaderListTest : public RemoteCardTest {
  protected:
    /// Lets the daemon announce this list.
    void setRemoteList(const std::string& list) {
        daemon.on(Command::kListReaders, answering<ListLayout>(textBytes(list)));
    }

    /// Lets the host have these readers instead of its own.
    void setHostReaders(const std::vector<std::string>& names) {
        host.pcsc().removeReader(kHostReader);
        for (const std::string& name : names) {
            host.pcsc().addReader(name);
        }
    }

    /// The whole list, out of a buffer that has exactly the room for it.
    std::string list(SCARDCONTEXT of) {
        EXPECT_THAT(SCardListReadersA(of, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
        const GuardedBuffer buffer(length);
        EXPECT_THAT(SCardListReadersA(of, nullptr, buffer.as<char>(), &length),
                    Gives(SCARD_S_SUCCESS));
        return {buffer.as<char>(), length};
    }

    std::vector<std::string> logged() const { return log().messages("SCardListReadersA"); }

    DWORD length = 0;
};

TEST_F(ReaderListTest, HasTheDaemonsNamesFirstAndThenTheHostsInTheirOrder) {
    establishContext();
    setRemoteList("A\0B\0\0"s);
    setHostReaders({"C"});
    EXPECT_EQ(list(context), "A\0B\0C\0\0"s);
    EXPECT_EQ(length, 7U);
    setRemoteList("Z\0Y\0\0"s);
    host.pcsc().addReader("B");
    EXPECT_EQ(list(context), "Z\0Y\0C\0B\0\0"s);
}

TEST_F(ReaderListTest, HasANameOfBothSidesTwice) {
    remote.addReader(kHostReader);
    establishContext();
    EXPECT_EQ(list(context), "Remote Reader 0\0Host Reader 0\0Host Reader 0\0\0"s);
}

TEST_F(ReaderListTest, IsAskedForWithOneRecordOnTheDaemonsContext) {
    establishContext();
    const auto buffer = list(context);
    const auto request =
        IsRequest(Command::kListReaders,
                  RecordBytes(ListLayout::kSize).u64(ListLayout::kContext, kDaemonContext));
    EXPECT_THAT(daemon.requests(Command::kListReaders), ElementsAre(request, request));
}

TEST_F(ReaderListTest, IsAskedForWithContextZeroByCallersWithoutAContext) {
    establishContext();
    EXPECT_CALL(host, SCardListReadersA(0, nullptr, _, _)).Times(2);
    EXPECT_EQ(list(0), "Remote Reader 0\0Host Reader 0\0\0"s);
    const auto request = IsRequest(Command::kListReaders, RecordBytes(ListLayout::kSize));
    EXPECT_THAT(daemon.requests(), ElementsAre(request, request));
}

TEST_F(ReaderListTest, OfTheHostIsAskedForWithTheCallersGroups) {
    establishContext();
    EXPECT_CALL(host, SCardListReadersA(kHostContext, StrEq("My Group"), _, _));
    EXPECT_THAT(SCardListReadersA(context, "My Group\0", nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(ReaderListTest, IsLoggedWithTheReadersOfBothSides) {
    establishContext();
    const GuardedBuffer buffer(100);
    length = 100;
    ASSERT_THAT(SCardListReadersA(context, nullptr, buffer.as<char>(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(logged(), ElementsAre("LIST_READERS IN-PARAMS: 1, " + test::logged(buffer.data()) +
                                          ", " + test::logged(&length),
                                      "    pcchReaders: 100", "LIST_READERS OUT-PARAMS: 31",
                                      "    Reader: Remote Reader 0", "    Reader: Host Reader 0",
                                      "local readers:", "    Host Reader 0", "remote readers:",
                                      "    Remote Reader 0", "LIST_READERS RV: 0x00000000"));
    EXPECT_THAT(log().messages("SCardListReadersA", 'D'), testing::SizeIs(10));
}

TEST_F(ReaderListTest, NeedsALength) {
    establishContext();
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages("SCardListReadersA", 'D'),
                ElementsAre("LIST_READERS IN-PARAMS: 1, " + test::logged(nullptr) + ", " +
                                test::logged(nullptr),
                            "pcchReaders cannot be NULL",
                            "local readers:", "remote readers:", "LIST_READERS RV: 0x80100004"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ReaderListTest, KnowsOnlyContextsOfItsOwn) {
    establishContext();
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _)).Times(0);
    EXPECT_THAT(SCardListReadersA(kHostContext, nullptr, nullptr, &length),
                Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(logged(), Contains("LIST_READERS RV: 0x80100003"));
}

TEST_F(ReaderListTest, IsCountedWithoutABufferAndNoted) {
    establishContext();
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 31U);
    EXPECT_THAT(logged(), ElementsAre(_, _, "LIST_READERS OUT-PARAMS: 31", "local readers:",
                                      "    Host Reader 0", "remote readers:", "    Remote Reader 0",
                                      "LIST_READERS RV: 0x00000000"));
}

TEST_F(ReaderListTest, ThatDoesNotFitIsRefusedWithItsLengthAndNotedAllTheSame) {
    establishContext();
    const GuardedBuffer buffer(30);
    length = 30;
    EXPECT_THAT(SCardListReadersA(context, nullptr, buffer.as<char>(), &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 31U);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged(), ElementsAre(_, "    pcchReaders: 30", "local readers:",
                                      "    Host Reader 0", "remote readers:", "    Remote Reader 0",
                                      "LIST_READERS RV: 0x80100008"));
}

TEST_F(ReaderListTest, IsAllocatedForACallerWhoWantsThat) {
    establishContext();
    char* readers = nullptr;
    length = SCARD_AUTOALLOCATE;
    ASSERT_THAT(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(readers, length), "Remote Reader 0\0Host Reader 0\0\0"s);
    EXPECT_THAT(logged(), Contains("    Reader: Host Reader 0"));
    EXPECT_THAT(SCardFreeMemory(context, readers), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(ReaderListTest, IsTheDaemonsAloneWhenTheHostFails) {
    establishContext();
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _))
        .WillRepeatedly(Return(SCARD_E_NO_READERS_AVAILABLE));
    EXPECT_EQ(list(context), "Remote Reader 0\0\0"s);
}

TEST_F(ReaderListTest, KeepsTheHostsNamesThatItKnewWhenTheHostFails) {
    establishContext();
    listReaders(context);
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _)).WillOnce(Return(SCARD_E_NO_SERVICE));
    EXPECT_THAT(listReaders(context), ElementsAre(kRemoteReader));
    EXPECT_EQ(log().count("SCardListReadersA", "    Host Reader 0"), 2U);
}

TEST_F(ReaderListTest, IsTheHostsAloneWhenTheDaemonRefuses) {
    establishContext();
    daemon.on(Command::kListReaders,
              answering(ListLayout::kSize,
                        {{ListLayout::kLength, 5}, {ListLayout::kResult, 0x8010002E}}));
    const GuardedBuffer buffer(100);
    length = 100;
    // Straight into the caller's own buffer.
    EXPECT_CALL(host, SCardListReadersA(kHostContext, nullptr, buffer.as<char>(), &length));
    EXPECT_THAT(SCardListReadersA(context, nullptr, buffer.as<char>(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::string(buffer.as<char>(), length), "Host Reader 0\0\0"s);
    EXPECT_THAT(logged(),
                ElementsAre(_, _, "LIST_READERS OUT-PARAMS: 15", "    Reader: Host Reader 0",
                            "local readers:", "    Host Reader 0",
                            "remote readers:", "LIST_READERS RV: 0x00000000"));
}

TEST_F(ReaderListTest, OfTheHostAloneIsFreedAgainWhenItCannotBeNoted) {
    context = establish();
    HeapSpy heap;
    const auto refuseOneAllocationAfterTheOther = [&] {
        bool wasRefused = true;
        for (std::size_t n = 1; wasRefused; ++n) {
            char* readers = nullptr;
            length = SCARD_AUTOALLOCATE;
            heap.refuseNth(n);
            const LONG rv =
                SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length);
            wasRefused = heap.stopRefusing();
            if (rv == SCARD_S_SUCCESS) {
                SCardFreeMemory(context, readers);
            } else {
                EXPECT_EQ(readers, nullptr) << "allocation " << n;
            }
        }
    };
    refuseOneAllocationAfterTheOther();
    // What is made once, such as the place for a thread's first exception, has been made.
    const std::size_t kept = heap.outstanding();
    refuseOneAllocationAfterTheOther();
    EXPECT_EQ(heap.outstanding(), kept);
}

TEST_F(ReaderListTest, OfTheHostAloneIsNotNotedByASizeQuery) {
    context = establish();
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 15U);
    EXPECT_THAT(logged(), ElementsAre(_, _, "LIST_READERS OUT-PARAMS: 15", "local readers:",
                                      "remote readers:", "LIST_READERS RV: 0x00000000"));
}

TEST_F(ReaderListTest, KeepsTheDaemonsNamesThatItKnewWhenTheDaemonRefuses) {
    establishContext();
    listReaders(context);
    daemon.on(Command::kListReaders, refusing<ListLayout>(SCARD_F_INTERNAL_ERROR));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_EQ(log().count("SCardListReadersA", "    Remote Reader 0"), 2U);
}

TEST_F(ReaderListTest, ForgetsTheDaemonsNamesWhenTheDaemonGoes) {
    establishContext();
    listReaders(context);
    stopDaemon();
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_EQ(log().count("SCardListReadersA", "    Remote Reader 0"), 1U);
}

TEST_F(ReaderListTest, OfTheHostAloneReturnsTheHostsError) {
    context = establish();
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _)).WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length),
                Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(ReaderListTest, TellsThatThereAreNoReadersWhenThereIsNoService) {
    context = establish();
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _)).WillOnce(Return(SCARD_E_NO_SERVICE));
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length),
                Gives(SCARD_E_NO_READERS_AVAILABLE));
    EXPECT_THAT(logged(), Contains("LIST_READERS RV: 0x8010002E"));
}

TEST_F(ReaderListTest, TriesTheDaemonEvenWhenItIsNotThere) {
    context = establish();
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().messages("establishRemoteContext"),
                Contains("ESTABLISH REMOTE CONTEXT RV: 0x8010001D"));
}

TEST_F(ReaderListTest, WarnsWhenTheRequestCannotBeSent) {
    connectCard();
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().messages("SCardListReadersA", 'W'), ElementsAre("Failed to send header"));
}

TEST_F(ReaderListTest, WarnsWhenTheDaemonHangsUpInsteadOfAnswering) {
    establishContext();
    daemon.on(Command::kListReaders, closing());
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().messages("SCardListReadersA", 'W'), ElementsAre("Failed to receive data"));
}

TEST_F(ReaderListTest, WarnsWhenTheDaemonHangsUpInTheMiddleOfTheNames) {
    establishContext();
    daemon.on(Command::kListReaders,
              answeringAndClosing(ListLayout::kSize, {{ListLayout::kLength, 17}},
                                  textBytes("Remote Reader 0\0"s)));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(log().messages("SCardListReadersA", 'W'),
                ElementsAre("Failed to read data for reader names"));
    EXPECT_EQ(log().count("SCardListReadersA", "    Remote Reader 0"), 0U);
    daemon.restore(Command::kListReaders);
    EXPECT_THAT(listReaders(context), ElementsAre(kRemoteReader, kHostReader));
}

TEST_F(ReaderListTest, FailsOnlyForTheHostsJudgementWhenTheDaemonGivesNoContext) {
    establishContext();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_NO_MEMORY));
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    EXPECT_THAT(daemon.requests(Command::kListReaders), IsEmpty());
}

TEST_F(ReaderListTest, MayBeEmptyOnEitherSide) {
    establishContext();
    setRemoteList("\0"s);
    EXPECT_EQ(list(context), "Host Reader 0\0\0"s);
    setHostReaders({});
    EXPECT_CALL(host, SCardListReadersA(_, _, _, _)).WillRepeatedly([&](auto...) {
        return SCARD_E_NO_READERS_AVAILABLE;
    });
    EXPECT_EQ(list(context), "\0"s);
    setRemoteList("A\0\0"s);
    EXPECT_EQ(list(context), "A\0\0"s);
}

TEST_F(ReaderListTest, ThatTheDaemonsComingHasOvertakenIsNotTheLatest) {
    context = establish();
    // All that the monitor does when the daemon comes is over before the host has answered.
    EXPECT_CALL(host, SCardListReadersA)
        .WillOnce([this](SCARDCONTEXT system, LPCSTR groups, LPSTR readers, LPDWORD size) {
            startDaemon();
            waitForWatch();
            return host.service().SCardListReadersA(system, groups, readers, size);
        })
        .WillRepeatedly(DoDefault());
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
    SCARD_READERSTATEA state = {};
    state.szReader = kRemoteReader;
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    EXPECT_NE(state.dwEventState & SCARD_STATE_PRESENT, 0U)
        << "the wait lists the readers itself, the daemon's among them";
}

}  // namespace
}  // namespace tez::test
