// With standard answers lists of foreign names are whole, and there is room for many readers.
#include "standard_calls.h"
#include "wide_text.h"

namespace tez::test {
namespace {

using testing::ElementsAre;

class WholeLists : public StandardTest {};

TEST_F(WholeLists, HaveForeignNamesInTheWideForm) {
    for (const WideName& name : kForeignNames) {
        remote.addReader(name.utf8);
    }
    const SCARDCONTEXT context = establishWithDaemon();
    wchar_t readers[512];
    DWORD length = 512;
    ASSERT_THAT(SCardListReadersW(context, nullptr, readers, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(splitMultiString(readers),
                ElementsAre(L"Remote Reader 0", kForeignNames[0].wide, kForeignNames[1].wide,
                            kForeignNames[2].wide, L"Host Reader 0"));
    EXPECT_EQ(readers[length - 1], 0);
    EXPECT_EQ(readers[length - 2], 0);
}

TEST_F(WholeLists, ReachTheHostWhenTheyAreGroups) {
    const SCARDCONTEXT context = establish();
    std::string groups;
    EXPECT_CALL(host, SCardListReadersA)
        .WillOnce([&](SCARDCONTEXT, LPCSTR given, LPSTR, LPDWORD) -> LONG {
            groups.assign(given, 14);
            return SCARD_E_NO_READERS_AVAILABLE;
        });
    DWORD length = 0;
    SCardListReadersW(context, L"\u8BFB\u5361\u5668\0\u00E9b\0", nullptr, &length);
    EXPECT_EQ(groups, std::string("\xE8\xAF\xBB\xE5\x8D\xA1\xE5\x99\xA8\0\xC3\xA9"
                                  "b\0",
                                  14));
}

TEST_F(WholeLists, OfTheDaemonMayHave64KiB) {
    std::vector<std::string> names;
    for (int reader = 0; reader < 300; ++reader) {
        names.push_back("Reader with a name of some length, number " + std::to_string(reader));
        remote.addReader(names.back());
    }
    const SCARDCONTEXT context = establishWithDaemon();
    LPSTR readers = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    ASSERT_THAT(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
                Gives(SCARD_S_SUCCESS));
    const std::vector<std::string> listed = splitMultiString(readers);
    SCardFreeMemory(context, readers);
    ASSERT_EQ(listed.size(), 302U);
    EXPECT_TRUE(std::equal(names.begin(), names.end(), listed.begin() + 1));
}

TEST_F(WholeLists, OfTheDaemonAreRefusedAbove64KiB) {
    const SCARDCONTEXT context = establishWithDaemon();
    daemon.on(Command::kListReaders, [](const Request& request) {
        Bytes record = request.body;
        putU32(record, ListLayout::kLength, 64 * 1024 + 1);
        Bytes names(64 * 1024 + 1);
        names[0] = 'X';
        return Reply::of({record, names});
    });
    EXPECT_THAT(listReaders(context), ElementsAre(kHostReader));
}

class ManyReaders : public StandardTest {
  protected:
    /// Entries for host and remote readers in turn, none of which has a card.
    std::vector<SCARD_READERSTATEA> addReaders(std::size_t number) {
        names_.reserve(number);
        std::vector<SCARD_READERSTATEA> states;
        for (std::size_t i = 0; i < number; ++i) {
            names_.push_back("Reader " + std::to_string(i));
            (i % 2 == 0 ? remote : host.pcsc()).addReader(names_.back());
            states.push_back(readerState(names_.back().c_str(), SCARD_STATE_EMPTY));
        }
        return states;
    }

  private:
    std::vector<std::string> names_;
};

TEST_F(ManyReaders, SixtyFourAreWaitedForAtOnce) {
    const std::vector<SCARD_READERSTATEA> states = addReaders(64);
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, states);
    waitForRemoteWait();
    waitForHostWait();
    host.pcsc().insertCard("Reader 63", makeDemoCard("Someone"));
    EXPECT_THAT(wait.result(), Gives(SCARD_S_SUCCESS));
    EXPECT_NE(wait.state(63).dwEventState & kChanged, 0U);
    EXPECT_EQ(wait.state(62).dwEventState & 0xFFFF, DWORD{SCARD_STATE_EMPTY});
}

TEST_F(ManyReaders, SixtyFourHaveRoomInTheWideForm) {
    const SCARDCONTEXT context = establish();
    std::vector<SCARD_READERSTATEW> states(65);
    for (SCARD_READERSTATEW& state : states) {
        state.szReader = L"Host Reader 0";
    }
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, states.data(), 64), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[63].dwEventState, kFirstCard | kChanged);
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, states.data(), 65),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(ManyReaders, SixtyFiveAreRefused) {
    const SCARDCONTEXT context = establish();
    std::vector<SCARD_READERSTATEA> states(65, readerState(kHostReader, 0));
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), 65),
                Gives(SCARD_E_INVALID_PARAMETER));
}

}  // namespace
}  // namespace tez::test
