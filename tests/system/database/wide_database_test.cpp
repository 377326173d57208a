// The wide forms of the calls on the card database.
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
using testing::Return;
using testing::StrEq;
using namespace std::string_literals;

constexpr GUID kWideInterfaces[] = {{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}},
                                    {12, 13, 14, {15, 16, 17, 18, 19, 20, 21, 22}}};

class WideDatabaseTest : public RemoteCardTest {
  protected:
    /// To be called first: card-database calls go to the daemon too.
    static void redirectAllCalls() { setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1"); }

    /// A card type of the host with nothing but a name.
    void introduce(const wchar_t* name) {
        const Bytes atr = {0x3B, 0x00};
        ASSERT_THAT(SCardIntroduceCardTypeW(context, name, nullptr, nullptr, 0, atr.data(), nullptr,
                                            static_cast<DWORD>(atr.size())),
                    Gives(SCARD_S_SUCCESS));
    }

    DWORD length = 0;
};

class WideCardListTest : public WideDatabaseTest {
  protected:
    static constexpr DWORD kLength = 11;
    const std::wstring hostsCards = L"Demo Card\0\0"s;

    LONG list(wchar_t* cards) {
        return SCardListCardsW(context, nullptr, nullptr, 0, cards, &length);
    }

    std::wstring wholeList() {
        EXPECT_THAT(list(nullptr), Gives(SCARD_S_SUCCESS));
        const WideBuffer buffer(length);
        EXPECT_THAT(list(buffer.get()), Gives(SCARD_S_SUCCESS));
        return buffer.text(length);
    }

    std::vector<std::string> logged(char level) const {
        return log().messages("SCardListCardsW", level);
    }
};

TEST_F(WideCardListTest, IsCountedInCharacters) {
    establishContext();
    EXPECT_EQ(wholeList(), hostsCards);
    EXPECT_EQ(length, kLength);
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideCardListTest, LogsItsParametersAndWhatItReturns) {
    establishContext();
    const WideBuffer buffer(100);
    length = 100;
    EXPECT_THAT(SCardListCardsW(context, nullptr, nullptr, 0, buffer.get(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(logged('D'),
                ElementsAre("Parameters context 1, cguidInterfaceCount 0",
                            "Returning 0, with pcchCards 11 and mszCards " +
                                std::to_string(reinterpret_cast<std::uintptr_t>(buffer.get()))));
}

TEST_F(WideCardListTest, NeedsALength) {
    establishContext();
    EXPECT_CALL(host, SCardListCardsA).Times(0);
    EXPECT_THAT(SCardListCardsW(context, nullptr, kWideInterfaces, 2, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(logged('D'), ElementsAre("Parameters context 1, cguidInterfaceCount 2"));
    EXPECT_THAT(logged('W'), ElementsAre("pcchCards is NULL"));
    EXPECT_THAT(log().messages("SCardListCardsA"), IsEmpty());
}

TEST_F(WideCardListTest, PassesAtrAndInterfacesThrough) {
    establishContext();
    const Bytes atr = makeDemoCard(kHostCardHolder).atr();
    EXPECT_CALL(host, SCardListCardsA(kHostContext, atr.data(), kWideInterfaces, 2, _, _))
        .WillOnce(Return(SCARD_E_UNKNOWN_CARD));
    const WideBuffer buffer(100);
    length = 100;
    EXPECT_THAT(SCardListCardsW(context, atr.data(), kWideInterfaces, 2, buffer.get(), &length),
                Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_EQ(length, 100U);
    EXPECT_TRUE(buffer.untouched());
}

TEST_F(WideCardListTest, HasTheCardsOfBothSidesWhenCallsAreRedirected) {
    redirectAllCalls();
    establishContext();
    const std::string names = "Remote Card\0\0"s;
    daemon.on(Command::kListCards, answering<ListCardsLayout>(textBytes(names)));
    EXPECT_EQ(wholeList(), L"Remote Card\0Demo Card\0\0"s);
    const auto request =
        IsRequest(Command::kListCards, RecordBytes(ListCardsLayout::kSize)
                                           .u64(ListCardsLayout::kContext, kDaemonContext)
                                           .u32(ListCardsLayout::kLength, 0xFFFFFFFF));
    EXPECT_THAT(daemon.requests(Command::kListCards), ElementsAre(request, request));
}

TEST_F(WideCardListTest, TellsForeignNamesOfTheHost) {
    establishContext();
    SCardForgetCardTypeW(context, L"Demo Card");
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        introduce(name.wide);
        EXPECT_THAT(splitMultiString(wholeList().c_str()), ElementsAre(name.wide));
        EXPECT_THAT(SCardForgetCardTypeW(context, name.wide), Gives(SCARD_S_SUCCESS));
    }
}

TEST_F(WideCardListTest, TellsForeignNamesOfTheDaemon) {
    redirectAllCalls();
    establishContext();
    SCardListCardsW(context, nullptr, nullptr, 0, nullptr, &length);
    ON_CALL(host, SCardListCardsA).WillByDefault(Return(SCARD_E_NO_SERVICE));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        Bytes names(name.utf8, name.utf8 + std::strlen(name.utf8) + 1);
        names.push_back(0);
        daemon.on(Command::kListCards, answering<ListCardsLayout>(names));
        EXPECT_THAT(splitMultiString(wholeList().c_str()), ElementsAre(name.wide));
    }
}

TEST_F(WideCardListTest, WithoutMemoryLeavesNothingAllocated) {
    establishContext();
    HeapSpy heap;
    heap.refuse(std::size_t{kLength} * 2);
    EXPECT_THAT(list(nullptr), Gives(SCARD_E_NO_MEMORY));
    EXPECT_EQ(heap.outstanding(kLength), 0U);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

class WideDeviceTypeTest : public WideDatabaseTest {
  protected:
    LONG ask(const wchar_t* reader) { return SCardGetDeviceTypeIdW(context, reader, &deviceType); }

    static RecordBytes deviceTypeRecord(const std::string& reader) {
        return RecordBytes(DeviceTypeLayout::kSize)
            .u64(DeviceTypeLayout::kContext, kDaemonContext)
            .text(DeviceTypeLayout::kReader, reader);
    }

    std::vector<std::string> logged() const { return log().messages("SCardGetDeviceTypeIdW"); }

    DWORD deviceType = kUntouched;
};

TEST_F(WideDeviceTypeTest, OfTheHostIsAskedForInUtf8) {
    establishContext();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        host.pcsc().addReader(name.utf8);
        deviceType = kUntouched;
        EXPECT_CALL(host, SCardGetDeviceTypeIdA(kHostContext, StrEq(name.utf8), &deviceType));
        EXPECT_THAT(ask(name.wide), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(deviceType, DWORD{SCARD_READER_TYPE_USB});
    }
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideDeviceTypeTest, OfTheDaemonIsAskedForInUtf8) {
    establishContext();
    daemon.on(Command::kGetDeviceTypeId,
              answering(DeviceTypeLayout::kSize, {{DeviceTypeLayout::kType, 77}}));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        EXPECT_THAT(ask(name.wide), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(deviceType, 77U);
        EXPECT_THAT(daemon.requests(Command::kGetDeviceTypeId),
                    ElementsAre(IsRequest(Command::kGetDeviceTypeId, deviceTypeRecord(name.utf8))));
    }
}

TEST_F(WideDeviceTypeTest, MeasuresNamesInUtf8) {
    establishContext();
    daemon.on(Command::kGetDeviceTypeId,
              answering(DeviceTypeLayout::kSize, {{DeviceTypeLayout::kType, 77}}));
    const LongWideName fitting(42);
    EXPECT_THAT(ask(fitting.wide.c_str()), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kGetDeviceTypeId),
                ElementsAre(IsRequest(Command::kGetDeviceTypeId, deviceTypeRecord(fitting.utf8))));
    daemon.clearRecords();
    EXPECT_THAT(ask(LongWideName(43).wide.c_str()), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideDeviceTypeTest, LogsWhatItReturnsAndTheTypeThatStandsThere) {
    context = establish();
    EXPECT_THAT(ask(L"Host Reader 0"), Gives(SCARD_S_SUCCESS));
    deviceType = 5;
    EXPECT_THAT(ask(L"No Reader"), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, L"Host Reader 0", nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(
        logged(),
        ElementsAre("Returning 0", "    device type id " + std::to_string(SCARD_READER_TYPE_USB),
                    "Returning 2148532233", "    device type id 5", "Returning 2148532228"));
    EXPECT_THAT(log().messages("SCardGetDeviceTypeIdW", 'D'), testing::SizeIs(5));
}

TEST_F(WideDeviceTypeTest, NeedsAReader) {
    establishContext();
    EXPECT_CALL(host, SCardGetDeviceTypeIdA).Times(0);
    EXPECT_THAT(ask(nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_EQ(deviceType, kUntouched);
    EXPECT_THAT(log().messages("SCardGetDeviceTypeIdW", 'D'), ElementsAre("Reader name is NULL"));
    EXPECT_THAT(logged(), testing::SizeIs(1));
    EXPECT_THAT(log().messages("SCardGetDeviceTypeIdA"), IsEmpty());
}

class WideProviderTest : public WideDatabaseTest {
  protected:
    LONG get(const wchar_t* cardName, wchar_t* provider) {
        return SCardGetCardTypeProviderNameW(context, cardName, SCARD_PROVIDER_CSP, provider,
                                             &length);
    }

    std::wstring wholeName(const wchar_t* cardName) {
        EXPECT_THAT(get(cardName, nullptr), Gives(SCARD_S_SUCCESS));
        const WideBuffer buffer(length);
        EXPECT_THAT(get(cardName, buffer.get()), Gives(SCARD_S_SUCCESS));
        return buffer.text(length);
    }

    LONG set(const wchar_t* cardName, const wchar_t* provider) {
        return SCardSetCardTypeProviderNameW(context, cardName, SCARD_PROVIDER_CSP, provider);
    }

    static RecordBytes providerRecord(std::uint64_t remoteContext, const std::string& cardName,
                                      std::size_t nameLength) {
        return RecordBytes(ProviderNameLayout::kSize)
            .u64(ProviderNameLayout::kContext, remoteContext)
            .text(ProviderNameLayout::kCard, cardName)
            .u32(ProviderNameLayout::kProvider, SCARD_PROVIDER_CSP)
            .u32(ProviderNameLayout::kLength, static_cast<std::uint32_t>(nameLength));
    }

    static Bytes withEnd(const char* text) { return {text, text + std::strlen(text) + 1}; }

    std::vector<std::string> logged(char level) const {
        return log().messages("SCardGetCardTypeProviderNameW", level);
    }
};

TEST_F(WideProviderTest, OfTheHostIsCountedInCharactersWithItsNul) {
    establishContext();
    for (const WideName& cardName : kForeignNames) {
        introduce(cardName.wide);
        for (const WideName& provider : kForeignNames) {
            SCOPED_TRACE(provider.utf8);
            EXPECT_CALL(host, SCardSetCardTypeProviderNameA(kHostContext, StrEq(cardName.utf8),
                                                            DWORD{SCARD_PROVIDER_CSP},
                                                            StrEq(provider.utf8)));
            EXPECT_THAT(set(cardName.wide, provider.wide), Gives(SCARD_S_SUCCESS));
            EXPECT_EQ(wholeName(cardName.wide), provider.wide + L"\0"s);
            EXPECT_EQ(length, std::wcslen(provider.wide) + 1);
        }
    }
    EXPECT_EQ(host.heap().outstanding(), 0U);
    EXPECT_THAT(log().messages("SCardSetCardTypeProviderNameW"), IsEmpty());
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeW"), IsEmpty());
}

TEST_F(WideProviderTest, OfTheDaemonIsAskedForInUtf8) {
    redirectAllCalls();
    establishContext();
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        const Bytes provider = withEnd(name.utf8);
        daemon.on(Command::kGetCardTypeProviderName, answering<ProviderNameLayout>(provider));
        EXPECT_EQ(wholeName(name.wide), name.wide + L"\0"s);
        const auto request = IsRequest(Command::kGetCardTypeProviderName,
                                       providerRecord(kDaemonContext, name.utf8, 0));
        EXPECT_THAT(daemon.requests(Command::kGetCardTypeProviderName),
                    ElementsAre(request, request));
    }
}

TEST_F(WideProviderTest, EndsWhereTheDaemonsNameDoes) {
    redirectAllCalls();
    establishContext();
    daemon.on(Command::kGetCardTypeProviderName,
              answering<ProviderNameLayout>({'A', 0, 'B', 'C', 'D'}));
    EXPECT_EQ(wholeName(L"Card"), L"A\0"s);
    daemon.on(Command::kGetCardTypeProviderName, answering<ProviderNameLayout>({'A', 0xF0, 0x9F}));
    EXPECT_EQ(wholeName(L"Card"), L"A\uFFFD\0"s) << "a character that the end cuts short";
    daemon.on(Command::kGetCardTypeProviderName,
              answering(ProviderNameLayout::kSize, {{ProviderNameLayout::kLength, 0}}));
    EXPECT_EQ(wholeName(L"Card"), L"\0"s);
}

TEST_F(WideProviderTest, OfACardWhoseNameDoesNotFitIsLeftToTheHost) {
    redirectAllCalls();
    establishContext();
    EXPECT_THAT(get(LongWideName(342).wide.c_str(), nullptr), Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(get(LongWideName(341).wide.c_str(), nullptr), Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_THAT(daemon.requests(Command::kGetCardTypeProviderName), testing::SizeIs(1));
}

TEST_F(WideProviderTest, ThatDoesNotFitIsRefusedWithItsLength) {
    establishContext();
    ASSERT_THAT(set(L"Demo Card", L"Anbieter \u00FC"), Gives(SCARD_S_SUCCESS));
    const WideBuffer buffer(10);
    length = 10;
    EXPECT_THAT(get(L"Demo Card", buffer.get()), Gives(SCARD_E_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, 11U);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged('D'), ElementsAre("Parameters context 1, dwProviderId 2",
                                         "Returning 2148532232, with pcchProvider 11"));
}

TEST_F(WideProviderTest, NeedsALengthFirstAndThenACard) {
    establishContext();
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA).Times(0);
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, nullptr, 2, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(logged('W'), ElementsAre("pcchProvider cannot be NULL"));
    EXPECT_THAT(get(nullptr, nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(logged('W'),
                ElementsAre("pcchProvider cannot be NULL", "szCardName cannot be NULL"));
    EXPECT_THAT(logged('D'), ElementsAre("Parameters context 1, dwProviderId 2",
                                         "Parameters context 1, dwProviderId 2"));
    EXPECT_THAT(log().messages("SCardGetCardTypeProviderNameA"), IsEmpty());
}

TEST_F(WideProviderTest, ReturnsTheNarrowCallsFailureAndCopiesNothing) {
    establishContext();
    const WideBuffer buffer(20);
    length = 20;
    EXPECT_THAT(get(L"No Card", buffer.get()), Gives(SCARD_E_UNKNOWN_CARD));
    EXPECT_EQ(length, 20U);
    EXPECT_TRUE(buffer.untouched());
    EXPECT_THAT(logged('D'), Contains("Returning 2148532237, with pcchProvider 20"));
}

TEST_F(WideProviderTest, IsSetAtTheDaemonInUtf8) {
    redirectAllCalls();
    establishContext();
    daemon.on(Command::kSetCardTypeProviderName, answering(ProviderNameLayout::kSize, {}));
    context = 0;  // a context of the library's own is refused
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        EXPECT_THAT(set(name.wide, name.wide), Gives(SCARD_S_SUCCESS));
        const Bytes provider = withEnd(name.utf8);
        EXPECT_THAT(
            daemon.requests(Command::kSetCardTypeProviderName),
            ElementsAre(IsRequest(Command::kSetCardTypeProviderName,
                                  providerRecord(0, name.utf8, provider.size()).append(provider))));
    }
}

TEST_F(WideProviderTest, IsSetWithMissingNamesAsTheNarrowCallDoesIt) {
    establishContext();
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA(kHostContext, nullptr, 2, nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(set(nullptr, nullptr), Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(WideDatabaseTest, IntroducesAndForgetsCardsUnderNamesInUtf8) {
    establishContext();
    EXPECT_THAT(SCardForgetCardTypeW(context, L"No Card"), Gives(SCARD_E_UNKNOWN_CARD));
    const Bytes atr = {0x3B, 0x00};
    const Bytes mask = {0xFF, 0x0F};
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        const GuardedText cardName({name.wide, std::wcslen(name.wide) + 1});
        EXPECT_CALL(host, SCardIntroduceCardTypeA(kHostContext, StrEq(name.utf8), kWideInterfaces,
                                                  kWideInterfaces, 2, atr.data(), mask.data(), 2));
        EXPECT_THAT(SCardIntroduceCardTypeW(context, cardName.get(), kWideInterfaces,
                                            kWideInterfaces, 2, atr.data(), mask.data(), 2),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_CALL(host, SCardForgetCardTypeA(kHostContext, StrEq(name.utf8)));
        EXPECT_THAT(SCardForgetCardTypeW(context, cardName.get()), Gives(SCARD_S_SUCCESS));
    }
    EXPECT_THAT(log().messages("SCardIntroduceCardTypeW"), IsEmpty());
    EXPECT_THAT(log().messages("SCardForgetCardTypeW"), IsEmpty());
}

TEST_F(WideDatabaseTest, IntroducesAndForgetsCardsAtTheDaemonUnderNamesInUtf8) {
    redirectAllCalls();
    establishContext();
    daemon.on(Command::kIntroduceCardType, answering(IntroduceLayout::kSize, {}));
    daemon.on(Command::kForgetCardType, answering(ForgetLayout::kSize, {}));
    for (const WideName& name : kForeignNames) {
        SCOPED_TRACE(name.utf8);
        daemon.clearRecords();
        // A context of the library's own is refused.
        EXPECT_THAT(SCardIntroduceCardTypeW(0, name.wide, nullptr, nullptr, 0, nullptr, nullptr, 0),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardForgetCardTypeW(0, name.wide), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(
            daemon.requests(),
            ElementsAre(
                IsRequest(
                    Command::kIntroduceCardType,
                    RecordBytes(IntroduceLayout::kSize).text(IntroduceLayout::kCard, name.utf8)),
                IsRequest(Command::kForgetCardType,
                          RecordBytes(ForgetLayout::kSize).text(ForgetLayout::kCard, name.utf8))));
    }
}

TEST_F(WideDatabaseTest, LeavesMissingCardNamesToTheNarrowCalls) {
    establishContext();
    EXPECT_CALL(host, SCardIntroduceCardTypeA(kHostContext, nullptr, _, _, _, _, _, _));
    EXPECT_CALL(host, SCardForgetCardTypeA(kHostContext, nullptr));
    EXPECT_THAT(SCardIntroduceCardTypeW(context, nullptr, nullptr, nullptr, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardForgetCardTypeW(context, nullptr), Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(WideDatabaseTest, MeasuresNamesOfRedirectedUpdatesInUtf8) {
    redirectAllCalls();
    establishContext();
    const LongWideName name(342);
    EXPECT_THAT(
        SCardIntroduceCardTypeW(0, name.wide.c_str(), nullptr, nullptr, 0, nullptr, nullptr, 0),
        Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardForgetCardTypeW(0, name.wide.c_str()), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(WideDatabaseTest, WithoutMemoryForANameAsksNobody) {
    establishContext();
    EXPECT_CALL(host, SCardIntroduceCardTypeA).Times(0);
    EXPECT_CALL(host, SCardForgetCardTypeA).Times(0);
    EXPECT_CALL(host, SCardSetCardTypeProviderNameA).Times(0);
    EXPECT_CALL(host, SCardGetCardTypeProviderNameA).Times(0);
    EXPECT_CALL(host, SCardGetDeviceTypeIdA).Times(0);
    const std::wstring name(1234, L'n');
    const wchar_t* const n = name.c_str();
    HeapSpy heap;
    heap.refuse(1235);
    EXPECT_THAT(SCardIntroduceCardTypeW(context, n, nullptr, nullptr, 0, nullptr, nullptr, 0),
                Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardForgetCardTypeW(context, n), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardSetCardTypeProviderNameW(context, n, 2, L"P"), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardSetCardTypeProviderNameW(context, L"C", 2, n), Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardGetCardTypeProviderNameW(context, n, 2, nullptr, &length),
                Gives(SCARD_E_NO_MEMORY));
    EXPECT_THAT(SCardGetDeviceTypeIdW(context, n, &length), Gives(SCARD_E_NO_MEMORY));
}

}  // namespace
}  // namespace tez::test
