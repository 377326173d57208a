// SCardListReadersW, SCardListReaderGroupsW and SCardConnectW
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"
#include "wide_text.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using namespace std::string_literals;

constexpr const char* kListReadersW = "SCardListReadersW";
const std::wstring kBothReaders = L"Remote Reader 0\0Host Reader 0\0\0"s;
constexpr DWORD kBothLength = 31;

/// "%ld" of a pointer: its lower half
std::string loggedAsLong(const void* pointer) {
    return std::to_string(static_cast<long>(reinterpret_cast<std::intptr_t>(pointer)));
}

class WideReaderListTest : public RemoteCardTest {
  protected:
    LONG list(wchar_t* readers) { return SCardListReadersW(context, nullptr, readers, &length); }

    /// The whole list, out of a buffer that has exactly the room for it.
    std::wstring wholeList() {
        EXPECT_THAT(list(nullptr), Gives(SCARD_S_SUCCESS));
        const WideBuffer buffer(length);
        EXPECT_THAT(list(buffer.get()), Gives(SCARD_S_SUCCESS));
        return buffer.text(length);
    }

    /// The groups, as the host sees them, of a caller whose text ends where memory does.
    std::string hostsGroups(std::wstring_view groups) {
        std::string seen;
        EXPECT_CALL(host, SCardListReadersA)
            .WillOnce([&](SCARDCONTEXT, LPCSTR narrow, LPSTR, LPDWORD) {
                for (const char* end = narrow; *end != '\0'; end += std::strlen(end) + 1) {
                    seen.append(end, std::strlen(end) + 1);
                }
                return SCARD_E_NO_READERS_AVAILABLE;
            });
        const GuardedText guarded(groups);
        SCardListReadersW(context, guarded.get(), nullptr, &length);
        return seen;
    }

    std::vector<std::string> logged() const { return log().messages(kListReadersW); }

    DWORD length = 0;
};

TEST_F(WideReaderListTest, HasTheReadersOfBothSidesCountedInCharacters) {
    establishContext();
    EXPECT_EQ(wholeList(), kBothReaders);
    EXPECT_EQ(length, kBothLength);
}

TEST_F(WideReaderListTest, IsTheHostsAloneWithoutADaemon) {
    context = establish();
    EXPECT_EQ(wholeList(), L"Host Reader 0\0\0"s);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(WideReaderListTest, MayBeEmpty) {
    establishContext();
    host.pcsc().removeReader(kHostReader);
    daemon.on(Command::kListReaders, answering(ListLayout::kSize, {}));
    EXPECT_EQ(wholeList(), L"\0"s);
    EXPECT_EQ(length, 1U);
}

TEST_F(WideReaderListTest, LogsWhatItWasCalledWithAndWhatItReturns) {
    establishContext();
    const WideBuffer buffer(100);
    length = 100;
    const GuardedText groups(L"SCard$AllReaders\0\0"s);
    EXPECT_THAT(SCardListReadersW(context, groups.get(), buffer.get(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(
        log().messages(kListReadersW, 'D'),
        ElementsAre(
            "SCardListReadersW called with parameters context 1, groups " +
                loggedAsLong(groups.get()) + ", readers " + loggedAsLong(buffer.get()),
            "Returning 0, with pcchReaders 31 and mszReaders " + test::logged(buffer.get())));
    EXPECT_THAT(logged(), SizeIs(2));
}

TEST_F(WideReaderListTest, NeedsALength) {
    establishContext();
    const WideBuffer buffer(100);
    EXPECT_THAT(SCardListReadersW(context, nullptr, buffer.get(), nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(
        log().messages(kListReadersW, 'D'),
        ElementsAre("SCardListReadersW called with parameters context 1, groups 0, readers " +
                    loggedAsLong(buffer.get())));
    EXPECT_THAT(log().messages(kListReadersW, 'W'), ElementsAre("pcchReaders is NULL"));
    EXPECT_THAT(log().messages("SCardListReadersA"), IsEmpty());
}

TEST_F(WideReaderListTest, ReturnsTheNarrowCallsFailureAndCopiesNothing) {
    establishContext();
    const WideBuffer buffer(100);
    length = 100;
    EXPECT_THAT(SCardListReadersW(4711, nullptr, buffer.get(), &length),
                Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_EQ(length, 100U);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged(), Contains("Returning 2148532227, with pcchReaders 100 and mszReaders " +
                                   test::logged(buffer.get())));
}

TEST_F(WideReaderListTest, WithoutMemoryIsAFailureThatLeavesNothingAllocated) {
    establishContext();
    HeapSpy heap;
    heap.refuse(std::size_t{kBothLength} * 2);
    wchar_t* readers = nullptr;
    length = SCARD_AUTOALLOCATE;
    EXPECT_THAT(list(reinterpret_cast<LPWSTR>(&readers)), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(readers, nullptr);
    EXPECT_EQ(heap.outstanding(kBothLength), 0U);
}

TEST_F(WideReaderListTest, PassesTheCallersGroupsOnInUtf8) {
    context = establish();
    EXPECT_EQ(hostsGroups(L"My Group\0SCard$AllReaders\0\0"s), "My Group\0SCard$AllReaders\0"s);
    EXPECT_EQ(hostsGroups(L"Gr\u00FCppe\0\0"s), "Gr\u00FCppe\0"s);
    EXPECT_EQ(hostsGroups(L"\U0001F4B3\0\0"s), "\U0001F4B3\0"s);
    EXPECT_EQ(hostsGroups(L"\0"s), "");
}

TEST_F(WideReaderListTest, LeavesOutGroupsBehindAForeignOneThatTheSteppingRuleHasNoRoomFor) {
    context = establish();
    // The first group takes 8 bytes, so the sum goes on at the second character of the next one and
    // comes to a byte less than both need.
    EXPECT_EQ(hostsGroups(L"Gr\u00FCppe\0SCard$AllReaders\0\0"s), "Gr\u00FCppe\0"s);
}

TEST_F(WideReaderListTest, PassesNoGroupsOnAsNone) {
    context = establish();
    EXPECT_CALL(host, SCardListReadersA(kHostContext, nullptr, _, _));
    EXPECT_THAT(list(nullptr), Gives(SCARD_S_SUCCESS));
}

TEST_F(WideReaderListTest, WithoutMemoryForTheGroupsAsksNobody) {
    context = establish();
    EXPECT_CALL(host, SCardListReadersA).Times(0);
    HeapSpy heap;
    heap.refuse(1235);
    const std::wstring group(1233, L'g');
    length = 5;
    EXPECT_THAT(SCardListReadersW(context, (group + L"\0\0"s).c_str(), nullptr, &length),
                Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(length, 5U);
}

TEST_F(WideReaderListTest, TellsForeignNamesOfTheHost) {
    context = establish();
    host.pcsc().removeReader(kHostReader);
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        host.pcsc().addReader(name.utf8);
        EXPECT_THAT(splitMultiString(wholeList().c_str()), ElementsAre(name.wide));
        host.pcsc().removeReader(name.utf8);
    }
}

TEST_F(WideReaderListTest, TellsForeignNamesOfTheDaemon) {
    remote.removeReader(kRemoteReader);
    host.pcsc().removeReader(kHostReader);
    establishContext();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        remote.addReader(name.utf8);
        EXPECT_THAT(splitMultiString(wholeList().c_str()), ElementsAre(name.wide));
        remote.removeReader(name.utf8);
    }
}

TEST_F(WideReaderListTest, HasTheLengthThatTheSteppingRuleComesTo) {
    context = establish();
    host.pcsc().removeReader(kHostReader);
    // Nine characters and a NUL lead to the NUL behind the ten bytes: the end, as it seems.
    host.pcsc().addReader("Leseger\u00E4t");
    host.pcsc().addReader("Zweit\u00E9");
    EXPECT_EQ(wholeList(), L"Leseger\u00E4t\0\0"s);
    host.pcsc().removeReader("Zweit\u00E9");
    EXPECT_EQ(wholeList(), L"Leseger\u00E4t\0\0"s);
    host.pcsc().removeReader("Leseger\u00E4t");
    // Two characters and a NUL lead to the last one of four bytes, which with its NUL makes two
    // more; what the text does not fill is zero.
    host.pcsc().addReader("\U0001F4B3");
    EXPECT_EQ(wholeList(), L"\U0001F4B3\0\0\0\0"s);
}

TEST_F(WideReaderListTest, OfBytesThatAreNoUtf8StaysWellFormed) {
    establishContext();
    host.pcsc().removeReader(kHostReader);
    const Bytes names = {0xFF, 0xC3, 0, 0x80, 0xF0, 0x9F, 0, 'A', 0, 0};
    daemon.on(Command::kListReaders,
              answering(ListLayout::kSize, {{ListLayout::kLength, 10}}, names));
    const std::wstring list = wholeList();
    ASSERT_GE(list.size(), 2U);
    EXPECT_EQ(list.substr(list.size() - 2), L"\0\0"s);
    EXPECT_THAT(splitMultiString(list.c_str()), testing::Not(IsEmpty()));
}

class WideReaderGroupsTest : public RemoteCardTest {
  protected:
    static constexpr DWORD kGroupsLength = 22;
    const std::wstring groups = L"SCard$DefaultReaders\0\0"s;

    LONG list(wchar_t* to) { return SCardListReaderGroupsW(context, to, &length); }

    std::vector<std::string> logged(char level) const {
        return log().messages("SCardListReaderGroupsW", level);
    }

    DWORD length = 0;
};

TEST_F(WideReaderGroupsTest, AreCountedInCharacters) {
    establishContext();
    EXPECT_THAT(list(nullptr), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, kGroupsLength);
    const WideBuffer buffer(kGroupsLength);
    EXPECT_THAT(list(buffer.get()), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(buffer.text(length), groups);
    EXPECT_THAT(logged('D'),
                ElementsAre("Returning 0, pcchGroups 22", "Returning 0, pcchGroups 22"));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideReaderGroupsTest, ThatDoNotFitAreRefusedWithTheirLength) {
    establishContext();
    const WideBuffer buffer(kGroupsLength - 1);
    length = kGroupsLength - 1;
    EXPECT_THAT(list(buffer.get()), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, kGroupsLength);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged('D'), ElementsAre("Returning 2148532232, pcchGroups 22"));
}

TEST_F(WideReaderGroupsTest, NeedALength) {
    establishContext();
    EXPECT_CALL(host, SCardListReaderGroupsA).Times(0);
    EXPECT_THAT(SCardListReaderGroupsW(context, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(logged('W'), ElementsAre("pcchGroups is NULL"));
    EXPECT_THAT(logged('D'), IsEmpty());
}

TEST_F(WideReaderGroupsTest, ReturnTheNarrowCallsFailureAndCopyNothing) {
    establishContext();
    const WideBuffer buffer(30);
    length = 30;
    EXPECT_THAT(SCardListReaderGroupsW(4711, buffer.get(), &length), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_EQ(length, 30U);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged('D'), ElementsAre("Returning 2148532227, pcchGroups 30"));
}

class WideConnectTest : public RemoteCardTest {
  protected:
    LONG connectTo(const wchar_t* reader) {
        return SCardConnectW(context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card.handle,
                             &card.protocol);
    }

    static testing::Matcher<const Request&> isConnect(const std::string& reader) {
        return IsRequest(Command::kConnect, RecordBytes(ConnectLayout::kSize)
                                                .u64(ConnectLayout::kContext, kDaemonContext)
                                                .text(ConnectLayout::kReader, reader)
                                                .u32(ConnectLayout::kShareMode, 2)
                                                .u32(ConnectLayout::kProtocols, 3));
    }
};

TEST_F(WideConnectTest, ConnectsToTheCardsOfBothSides) {
    establishContext();
    EXPECT_THAT(connectTo(L"Host Reader 0"), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(card.handle, 1U);
    EXPECT_EQ(card.protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(connectTo(L"Remote Reader 0"), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(card.handle, 2U);
    EXPECT_THAT(daemon.requests(Command::kConnect), ElementsAre(isConnect(kRemoteReader)));
    EXPECT_THAT(log().messages("SCardConnectW"), IsEmpty());
}

TEST_F(WideConnectTest, PassesForeignNamesOnInUtf8) {
    establishContext();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        remote.addReader(name.utf8);
        remote.insertCard(name.utf8, makeDemoCard(kRemoteCardHolder));
        daemon.clearRecords();
        EXPECT_CALL(host, SCardConnectA(kHostContext, StrEq(name.utf8), _, _, _, _));
        const GuardedText reader({name.wide, std::wcslen(name.wide) + 1});
        EXPECT_THAT(connectTo(reader.get()), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(daemon.requests(Command::kConnect), ElementsAre(isConnect(name.utf8)));
    }
}

TEST_F(WideConnectTest, MeasuresNamesInUtf8) {
    establishContext();
    const LongWideName fitting(42);  // 126 bytes and a NUL
    const LongWideName tooLong(43);
    EXPECT_THAT(connectTo(fitting.wide.c_str()), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(daemon.requests(Command::kConnect), ElementsAre(isConnect(fitting.utf8)));
    daemon.clearRecords();
    EXPECT_THAT(connectTo(tooLong.wide.c_str()), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideConnectTest, LeavesAMissingNameToTheNarrowCall) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA(kHostContext, nullptr, _, _, _, _));
    EXPECT_THAT(connectTo(nullptr), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideConnectTest, WithoutMemoryForTheNameAsksNobody) {
    establishContext();
    EXPECT_CALL(host, SCardConnectA).Times(0);
    HeapSpy heap;
    heap.refuse(1235);
    EXPECT_THAT(connectTo(std::wstring(1234, L'r').c_str()), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages("SCardConnectA"), IsEmpty());
}

}  // namespace
}  // namespace tez::test
