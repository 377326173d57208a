// SCardStatusW and SCardGetStatusChangeW
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "heap_spy.h"
#include "import_patch.h"
#include "remote_card_test.h"
#include "status_waits.h"
#include "wide_text.h"

namespace tez::test {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using namespace std::string_literals;

class WideStatusTest : public RemoteCardTest {
  protected:
    LONG status(wchar_t* name, BYTE* atr) {
        return SCardStatusW(card.handle, name, &nameLength, &state, &protocol, atr, &atrLength);
    }

    void connectHostCard() {
        context = establish();
        card = connect(context, kHostReader);
    }

    DWORD nameLength = 0;
    DWORD state = kUntouched;
    DWORD protocol = kUntouched;
    DWORD atrLength = 0;
};

TEST_F(WideStatusTest, TellsTheReaderOfARemoteCardInCharacters) {
    connectCard();
    const Bytes atr = makeDemoCard(kRemoteCardHolder).atr();
    const WideBuffer name(17);
    const GuardedBuffer atrBuffer(atr.size());
    nameLength = 17;
    atrLength = static_cast<DWORD>(atr.size());
    EXPECT_THAT(status(name.get(), atrBuffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(name.text(nameLength), L"Remote Reader 0\0\0"s);
    EXPECT_EQ(Bytes(atrBuffer.data(), atrBuffer.data() + atrLength), atr);
    EXPECT_EQ(state, 6U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_THAT(log().messages("SCardStatusW"), IsEmpty());
}

TEST_F(WideStatusTest, GivesAReaderOfTheHostTheEndThatItLacks) {
    connectHostCard();
    EXPECT_CALL(host, SCardStatusA)
        .WillOnce(
            [this](SCARDHANDLE, LPSTR name, LPDWORD length, LPDWORD, LPDWORD, LPBYTE, LPDWORD) {
                return host.heap().deliver(Bytes{'H', 'o', 's', 't'}, name, length);
            });
    const WideBuffer name(6);
    nameLength = 6;
    // Nothing that happens to stand behind a block ends the text.
    const ImportPatch<void*(std::size_t)> malloc(
        libraryModule(), "msvcrt.dll", "malloc",
        [](std::size_t size) { return std::memset(std::malloc(size + 64), 'x', size + 64); });
    EXPECT_THAT(status(name.get(), nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(name.text(nameLength), L"Host\0\0"s);
}

TEST_F(WideStatusTest, TellsTheReaderOfAHostsCardInCharacters) {
    connectHostCard();
    const Bytes atr = makeDemoCard(kHostCardHolder).atr();
    const WideBuffer name(15);
    const GuardedBuffer atrBuffer(atr.size());
    nameLength = 15;
    atrLength = static_cast<DWORD>(atr.size());
    EXPECT_CALL(host,
                SCardStatusA(kHostCard, _, _, &state, &protocol, atrBuffer.data(), &atrLength));
    EXPECT_THAT(status(name.get(), atrBuffer.data()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(name.text(nameLength), L"Host Reader 0\0\0"s);
    EXPECT_EQ(Bytes(atrBuffer.data(), atrBuffer.data() + atrLength), atr);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(WideStatusTest, CopiesNoNameWithoutALength) {
    connectCard();
    const WideBuffer name(17);
    EXPECT_THAT(SCardStatusW(card.handle, name.get(), nullptr, &state, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(name.untouched());
    EXPECT_EQ(state, 6U);
}

TEST_F(WideStatusTest, AllocatesNameAndAtrForACallerWhoWantsThat) {
    connectCard();
    const HeapSpy heap;
    wchar_t* name = nullptr;
    BYTE* atr = nullptr;
    nameLength = atrLength = SCARD_AUTOALLOCATE;
    ASSERT_THAT(status(reinterpret_cast<LPWSTR>(&name), reinterpret_cast<LPBYTE>(&atr)),
                Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(std::wstring(name, nameLength), L"Remote Reader 0\0\0"s);
    EXPECT_EQ(Bytes(atr, atr + atrLength), makeDemoCard(kRemoteCardHolder).atr());
    EXPECT_EQ(heap.outstanding(34), 1U);
    EXPECT_EQ(heap.outstanding(17), 0U);
    EXPECT_THAT(SCardFreeMemory(context, name), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardFreeMemory(context, atr), Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(heap.wasFreed(name));
}

TEST_F(WideStatusTest, RefusesANameBufferThatIsTooSmallAndFreesTheAtr) {
    connectCard();
    const HeapSpy heap;
    const WideBuffer name(16);
    BYTE* atr = nullptr;
    nameLength = 16;
    atrLength = SCARD_AUTOALLOCATE;
    EXPECT_THAT(status(name.get(), reinterpret_cast<LPBYTE>(&atr)),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(nameLength, 17U);
    EXPECT_TRUE(name.untouched());
    EXPECT_EQ(atr, nullptr);
    EXPECT_EQ(heap.outstanding(makeDemoCard(kRemoteCardHolder).atr().size()), 0U);
}

TEST_F(WideStatusTest, ReturnsTheNarrowCallsFailureAndCopiesNothing) {
    connectCard();
    const WideBuffer name(17);
    nameLength = 17;
    card.handle = 4711;
    EXPECT_THAT(status(name.get(), nullptr), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_EQ(nameLength, 17U);
    EXPECT_TRUE(name.untouched());
}

TEST_F(WideStatusTest, ThatFailsLeavesThePlaceOfAnAllocatedAtr) {
    establishContext();
    const HeapSpy heap;
    BYTE sentinel = 0;
    const auto expectLeft = [&](const ConnectedCard& of, LONG code) {
        card = of;
        BYTE* atr = &sentinel;
        nameLength = atrLength = SCARD_AUTOALLOCATE;
        wchar_t* name = nullptr;
        EXPECT_THAT(status(reinterpret_cast<LPWSTR>(&name), reinterpret_cast<LPBYTE>(&atr)),
                    Gives(code));
        EXPECT_EQ(atr, &sentinel);
        EXPECT_EQ(atrLength, DWORD{SCARD_AUTOALLOCATE});
        EXPECT_FALSE(heap.wasFreed(&sentinel));
    };
    const ConnectedCard onHost = connect(context, kHostReader);
    const ConnectedCard atDaemon = connect(context, kRemoteReader);
    expectLeft({4711, SCARD_PROTOCOL_T1}, SCARD_E_INVALID_HANDLE);
    EXPECT_CALL(host, SCardStatusA).WillOnce(Return(SCARD_W_REMOVED_CARD));
    expectLeft(onHost, SCARD_W_REMOVED_CARD);
    daemon.on(Command::kStatus, closing());
    expectLeft(atDaemon, SCARD_E_NO_SERVICE);
}

TEST_F(WideStatusTest, TellsForeignNamesOnBothSides) {
    establishContext();
    for (const WideName& reader : kForeignNames) {
        SCOPED_TRACE(reader.utf8);
        for (SimulatedService* const side : {&remote, &host.pcsc()}) {
            side->addReader(reader.utf8);
            side->insertCard(reader.utf8, makeDemoCard("Anyone"));
            card = connect(context, reader.utf8);
            EXPECT_THAT(status(nullptr, nullptr), Gives(SCARD_S_SUCCESS));
            const WideBuffer name(nameLength);
            EXPECT_THAT(status(name.get(), nullptr), Gives(SCARD_S_SUCCESS));
            EXPECT_THAT(splitMultiString(name.text(nameLength).c_str()), ElementsAre(reader.wide));
            side->removeReader(reader.utf8);
        }
    }
}

class WideStatusChangeTest : public StatusChangeTest {
  protected:
    static constexpr const char* kWide = "SCardGetStatusChangeW";

    static SCARD_READERSTATEW wideState(const wchar_t* reader, DWORD current, DWORD event = 0) {
        SCARD_READERSTATEW state = {};
        state.szReader = reader;
        state.dwCurrentState = current;
        state.dwEventState = event;
        return state;
    }

    static LONG wait(SCARDCONTEXT context, std::vector<SCARD_READERSTATEW>& states) {
        return SCardGetStatusChangeW(context, 0, states.data(), static_cast<DWORD>(states.size()));
    }

    void expectNobodyAsked() { EXPECT_THAT(log().messages(kStatusChange), IsEmpty()); }
};

TEST_F(WideStatusChangeTest, TellsTheStatesOfTheReadersOfBothSides) {
    const SCARDCONTEXT context = establishAndList();
    int first = 0;
    int second = 0;
    std::vector states{wideState(L"Host Reader 0", SCARD_STATE_UNAWARE, 0x77),
                       wideState(L"Remote Reader 0", SCARD_STATE_UNAWARE, 0x77)};
    states[0].pvUserData = &first;
    states[1].pvUserData = &second;
    const wchar_t* const names[] = {states[0].szReader, states[1].szReader};
    // One side's change ends the other side's wait; what both sides have is asked for one by one.
    for (SCARD_READERSTATEW& state : states) {
        EXPECT_THAT(SCardGetStatusChangeW(context, 0, &state, 1), Gives(SCARD_S_SUCCESS));
    }
    const Bytes atrs[] = {makeDemoCard(kHostCardHolder).atr(),
                          makeDemoCard(kRemoteCardHolder).atr()};
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(states[i].szReader, names[i]);
        EXPECT_EQ(states[i].dwCurrentState, DWORD{SCARD_STATE_UNAWARE});
        EXPECT_EQ(states[i].dwEventState & 0xFFFFU,
                  static_cast<DWORD>(SCARD_STATE_PRESENT | SCARD_STATE_CHANGED));
        EXPECT_EQ(Bytes(states[i].rgbAtr, states[i].rgbAtr + states[i].cbAtr), atrs[i]);
    }
    EXPECT_EQ(states[0].pvUserData, &first);
    EXPECT_EQ(states[1].pvUserData, &second);
}

TEST_F(WideStatusChangeTest, PassesEveryFieldInAndOut) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    int given = 0;
    std::vector states{
        wideState(L"Host Reader 0", SCARD_STATE_PRESENT, SCARD_STATE_PRESENT | kChanged)};
    states[0].pvUserData = &given;
    states[0].cbAtr = 36;
    std::memset(states[0].rgbAtr, 0x33, sizeof states[0].rgbAtr);
    EXPECT_CALL(host, SCardGetStatusChangeA)
        .WillOnce([&](SCARDCONTEXT, DWORD, LPSCARD_READERSTATEA narrow, DWORD count) {
            EXPECT_EQ(count, 1U);
            EXPECT_STREQ(narrow->szReader, kHostReader);
            EXPECT_EQ(narrow->dwCurrentState, DWORD{SCARD_STATE_PRESENT});
            EXPECT_EQ(narrow->dwEventState, DWORD{SCARD_STATE_PRESENT} | kChanged);
            EXPECT_EQ(narrow->cbAtr, 36U);
            EXPECT_THAT(narrow->rgbAtr, testing::Each(0x33));
            narrow->dwEventState = 0x44;
            narrow->cbAtr = 35;
            std::memset(narrow->rgbAtr, 0x55, sizeof narrow->rgbAtr);
            return SCARD_S_SUCCESS;
        });
    EXPECT_THAT(wait(context, states), Gives(SCARD_S_SUCCESS));
    EXPECT_STREQ(states[0].szReader, L"Host Reader 0");
    EXPECT_EQ(states[0].pvUserData, &given);
    EXPECT_EQ(states[0].dwCurrentState, DWORD{SCARD_STATE_PRESENT});
    EXPECT_EQ(states[0].dwEventState, 0x44U);
    EXPECT_EQ(states[0].cbAtr, 35U);
    EXPECT_THAT(states[0].rgbAtr, testing::Each(0x55));
}

TEST_F(WideStatusChangeTest, SendsForeignNamesInUtf8) {
    std::vector<SCARD_READERSTATEW> states;
    std::vector<SCARD_READERSTATEA> narrow;
    std::deque<GuardedText> texts;
    for (const WideName& name : kForeignNames) {
        remote.addReader(name.utf8);
        const GuardedText& text =
            texts.emplace_back(std::wstring_view(name.wide, std::wcslen(name.wide) + 1));
        states.push_back(wideState(text.get(), SCARD_STATE_EMPTY, kUntouched));
        narrow.push_back(readerState(name.utf8, SCARD_STATE_EMPTY, kUntouched));
    }
    const SCARDCONTEXT context = establishAndList();
    EXPECT_THAT(wait(context, states), Gives(SCARD_S_SUCCESS));
    for (const SCARD_READERSTATEW& state : states) {
        EXPECT_EQ(state.dwEventState, DWORD{SCARD_STATE_EMPTY});
    }
    const auto requests = daemon.requests(Command::kGetStatusChange);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].header, statusChangeHeader(3));
    EXPECT_EQ(requests[0].body, statusChangeBody(kFirstRemoteContext, 0, narrow));
}

TEST_F(WideStatusChangeTest, AsksTheHostForForeignNamesInUtf8) {
    const SCARDCONTEXT context = establish();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        host.pcsc().addReader(name.utf8);
        listReaders(context);
        std::vector states{wideState(name.wide, SCARD_STATE_UNAWARE)};
        EXPECT_THAT(wait(context, states), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(states[0].dwEventState,
                  static_cast<DWORD>(SCARD_STATE_EMPTY | SCARD_STATE_CHANGED));
    }
}

TEST_F(WideStatusChangeTest, SendsNoNameThatIsTooLongInUtf8) {
    const LongWideName name(43);
    remote.addReader(name.utf8);
    const SCARDCONTEXT context = establishAndList();
    std::vector states{wideState(name.wide.c_str(), SCARD_STATE_UNAWARE, kUntouched)};
    wait(context, states);
    EXPECT_THAT(log().messages(kStatusChange), testing::Contains("intermediate rv: 0x80100011"));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideStatusChangeTest, TellsTheStatesBehindAFailureToo) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    std::vector states{wideState(L"Host Reader 0", SCARD_STATE_PRESENT, kUntouched)};
    EXPECT_THAT(wait(context, states), Gives(SCARD_E_TIMEOUT));
    EXPECT_EQ(states[0].dwEventState & 0xFFFFU, DWORD{SCARD_STATE_PRESENT});
}

TEST_F(WideStatusChangeTest, RefusesSeventeenReaders) {
    const SCARDCONTEXT context = establish();
    std::vector states(17, wideState(L"Host Reader 0", SCARD_STATE_UNAWARE));
    EXPECT_THAT(wait(context, states), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, states.data(), 0xFFFFFFFF),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages(kWide), IsEmpty());
    expectNobodyAsked();
}

TEST_F(WideStatusChangeTest, TakesSixteenReaders) {
    const SCARDCONTEXT context = establish();
    listReaders(context);
    std::vector states(16, wideState(L"Host Reader 0", SCARD_STATE_UNAWARE));
    EXPECT_THAT(wait(context, states), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(states[15].dwEventState, kFirstCard | kChanged);
}

TEST_F(WideStatusChangeTest, WithNoReadersReturnsAtOnceWithoutWaiting) {
    const SCARDCONTEXT context = establish();
    SCARD_READERSTATEW unused = {};
    EXPECT_THAT(SCardGetStatusChangeW(context, INFINITE, &unused, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardGetStatusChangeW(context, INFINITE, nullptr, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardGetStatusChangeW(4711, INFINITE, nullptr, 0), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        log().messages(kWide, 'D'),
        ElementsAre("Reader list is empty", "Reader list is empty", "Reader list is empty"));
    expectNobodyAsked();
}

TEST_F(WideStatusChangeTest, RefusesAMissingArray) {
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(SCardGetStatusChangeW(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(log().messages(kWide), IsEmpty());
    expectNobodyAsked();
}

TEST_F(WideStatusChangeTest, RefusesAReaderWithoutANameBeforeItAllocatesAnything) {
    const SCARDCONTEXT context = establish();
    const std::wstring name(1234, L'r');
    std::vector states{wideState(name.c_str(), SCARD_STATE_UNAWARE),
                       wideState(nullptr, SCARD_STATE_UNAWARE)};
    HeapSpy heap;
    heap.refuse(1235);
    EXPECT_THAT(wait(context, states), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(log().messages(kWide, 'D'), ElementsAre("Invalid value"));
    expectNobodyAsked();
}

TEST_F(WideStatusChangeTest, WithoutMemoryForANameAsksNobodyAndFreesTheOthers) {
    const SCARDCONTEXT context = establish();
    const std::wstring first(1233, L'r');
    const std::wstring second(1234, L'r');
    std::vector states{wideState(first.c_str(), SCARD_STATE_UNAWARE),
                       wideState(second.c_str(), SCARD_STATE_UNAWARE)};
    HeapSpy heap;
    heap.refuse(1235);
    EXPECT_THAT(wait(context, states), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(heap.outstanding(1234), 0U);
    expectNobodyAsked();
}

TEST_F(WideStatusChangeTest, ReturnsTheNarrowCallsFailure) {
    establish();
    std::vector states{wideState(L"Host Reader 0", SCARD_STATE_UNAWARE, kUntouched)};
    EXPECT_THAT(wait(4711, states), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_EQ(states[0].dwEventState, kUntouched);
}

}  // namespace
}  // namespace tez::test
