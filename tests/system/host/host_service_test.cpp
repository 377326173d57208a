// What the stand-in for the host's library answers beyond what its SimulatedService does.
#include "system_library/host_service.h"

#include <array>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace tez::test {
namespace {

using testing::Each;

class HostServiceTest : public testing::Test {
  protected:
    HostServiceTest() { host.SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context); }

    SCARDHANDLE connect() {
        SCARDHANDLE card = 0;
        DWORD protocol = 0;
        EXPECT_EQ(host.SCardConnectA(context, kHostReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                     &card, &protocol),
                  SCARD_S_SUCCESS);
        return card;
    }

    /// Names, each followed by a semicolon.
    static std::string namesOf(std::initializer_list<const char*> names) {
        std::string text;
        for (const char* name : names) {
            text.append(name).append(";");
        }
        return text;
    }

    /// The cards that SCardListCardsA names, in the form of namesOf.
    std::string listCards(LPCBYTE atr, LPCGUID interfaces = nullptr, DWORD count = 0) {
        std::array<char, 256> cards{};
        DWORD length = cards.size();
        EXPECT_EQ(host.SCardListCardsA(context, atr, interfaces, count, cards.data(), &length),
                  SCARD_S_SUCCESS);
        std::string text;
        for (const char* card = cards.data(); *card != '\0'; card += std::strlen(card) + 1) {
            text.append(card).append(";");
        }
        return text;
    }

    HostService host;
    SCARDCONTEXT context = 0;
};

TEST_F(HostServiceTest, DeliversByThePlatformsRules) {
    DWORD length = 0;
    EXPECT_EQ(host.SCardListReadersA(context, nullptr, nullptr, &length), SCARD_S_SUCCESS);
    const DWORD needed = length;
    EXPECT_EQ(needed, std::strlen(kHostReader) + 2);

    std::array<char, 64> readers{};
    readers.fill('x');
    length = needed - 1;
    EXPECT_EQ(host.SCardListReadersA(context, nullptr, readers.data(), &length),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, needed);
    EXPECT_THAT(readers, Each('x'));

    EXPECT_EQ(host.SCardListReadersA(context, nullptr, readers.data(), &length), SCARD_S_SUCCESS);
    EXPECT_STREQ(readers.data(), kHostReader);
    EXPECT_EQ(readers[needed - 1], '\0');
    EXPECT_EQ(readers[needed], 'x');
    EXPECT_EQ(host.SCardListReadersA(context, nullptr, readers.data(), nullptr),
              SCARD_E_INVALID_PARAMETER);
}

TEST_F(HostServiceTest, ListsReadersByGroup) {
    DWORD length = 0;
    EXPECT_EQ(host.SCardListReadersA(context, "Others\0SCard$DefaultReaders\0", nullptr, &length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(host.SCardListReadersA(context, "Others\0", nullptr, &length),
              SCARD_E_NO_READERS_AVAILABLE);
    host.pcsc().removeReader(kHostReader);
    EXPECT_EQ(host.SCardListReadersA(context, nullptr, nullptr, &length),
              SCARD_E_NO_READERS_AVAILABLE);
}

TEST_F(HostServiceTest, TellsACardsStatusAndGivesBothBuffersBack) {
    char* reader = nullptr;
    std::uint8_t* atr = nullptr;
    auto readerLength = SCARD_AUTOALLOCATE;
    auto atrSize = SCARD_AUTOALLOCATE;
    DWORD state = 0;
    DWORD protocol = 0;
    EXPECT_EQ(host.SCardStatusA(connect(), reinterpret_cast<LPSTR>(&reader), &readerLength, &state,
                                &protocol, reinterpret_cast<LPBYTE>(&atr), &atrSize),
              SCARD_S_SUCCESS);
    EXPECT_STREQ(reader, kHostReader);
    EXPECT_EQ(state, 6U);
    EXPECT_EQ(protocol, DWORD{SCARD_PROTOCOL_T1});
    EXPECT_EQ(atrSize, atrLength(atr));
    EXPECT_EQ(host.heap().outstanding(), 2U);
    EXPECT_EQ(host.SCardFreeMemory(context, reader), SCARD_S_SUCCESS);
    EXPECT_EQ(host.SCardFreeMemory(context, atr), SCARD_S_SUCCESS);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(HostServiceTest, KeepsNoNamesWhenTheAtrDoesNotFit) {
    char* reader = nullptr;
    auto readerLength = SCARD_AUTOALLOCATE;
    std::uint8_t atr = 0;
    DWORD atrSize = 1;
    EXPECT_EQ(host.SCardStatusA(connect(), reinterpret_cast<LPSTR>(&reader), &readerLength, nullptr,
                                nullptr, &atr, &atrSize),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(HostServiceTest, FindsCardsByTheirMaskedAtrAndInterfaces) {
    const VirtualCard demo = makeDemoCard("Anyone");
    EXPECT_EQ(listCards(demo.atr().data()), namesOf({kHostCardType}));

    const GUID interface1 = {1, 0, 0, {}};
    const GUID interface2 = {2, 0, 0, {}};
    const Bytes atr = {0x3B, 0x02, 0x14, 0x50};
    const Bytes mask = {0xFF, 0xFF, 0xFF, 0x00};
    EXPECT_EQ(host.SCardIntroduceCardTypeA(context, "Other", nullptr, &interface1, 1, atr.data(),
                                           mask.data(), 4),
              SCARD_S_SUCCESS);
    const Bytes sameUnderMask = {0x3B, 0x02, 0x14, 0x99};
    const Bytes different = {0x3B, 0x02, 0x15, 0x50};
    EXPECT_EQ(listCards(sameUnderMask.data()), "Other;");
    EXPECT_EQ(listCards(different.data()), "");
    EXPECT_EQ(listCards(nullptr), namesOf({kHostCardType, "Other"}));
    EXPECT_EQ(listCards(nullptr, &interface1, 1), "Other;");
    EXPECT_EQ(listCards(nullptr, &interface2, 1), "");

    EXPECT_EQ(host.SCardForgetCardTypeA(context, "Other"), SCARD_S_SUCCESS);
    EXPECT_EQ(host.SCardForgetCardTypeA(context, "Other"), SCARD_E_UNKNOWN_CARD);
    EXPECT_EQ(listCards(sameUnderMask.data()), "");
}

TEST_F(HostServiceTest, RemembersProviders) {
    std::array<char, 32> provider{};
    DWORD length = provider.size();
    EXPECT_EQ(host.SCardGetCardTypeProviderNameA(context, kHostCardType, SCARD_PROVIDER_CSP,
                                                 provider.data(), &length),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(host.SCardSetCardTypeProviderNameA(context, kHostCardType, SCARD_PROVIDER_CSP,
                                                 "Some Provider"),
              SCARD_S_SUCCESS);
    EXPECT_EQ(host.SCardGetCardTypeProviderNameA(context, kHostCardType, SCARD_PROVIDER_CSP,
                                                 provider.data(), &length),
              SCARD_S_SUCCESS);
    EXPECT_STREQ(provider.data(), "Some Provider");
    EXPECT_EQ(length, 14U);
    EXPECT_EQ(host.SCardGetCardTypeProviderNameA(context, "No Card", SCARD_PROVIDER_CSP,
                                                 provider.data(), &length),
              SCARD_E_UNKNOWN_CARD);
}

TEST_F(HostServiceTest, CachesDataUnderANameAsLongAsItIsFresh) {
    UUID card = {1, 2, 3, {4}};
    UUID otherCard = {1, 2, 3, {5}};
    char name[] = "certificates";
    std::array<std::uint8_t, 3> written = {1, 2, 3};
    std::array<std::uint8_t, 3> read{};
    DWORD length = read.size();
    EXPECT_EQ(host.SCardWriteCacheA(context, &card, 5, name, written.data(), 3), SCARD_S_SUCCESS);
    EXPECT_EQ(host.SCardReadCacheA(context, &card, 5, name, read.data(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(read, written);
    EXPECT_EQ(host.SCardReadCacheA(context, &card, 6, name, read.data(), &length),
              SCARD_W_CACHE_ITEM_STALE);
    EXPECT_EQ(host.SCardReadCacheA(context, &otherCard, 5, name, read.data(), &length),
              SCARD_W_CACHE_ITEM_NOT_FOUND);
}

TEST_F(HostServiceTest, ShowsAnIconForItsReadersOnly) {
    std::array<std::uint8_t, 128> icon{};
    DWORD length = icon.size();
    EXPECT_EQ(host.SCardGetReaderIconA(context, kHostReader, icon.data(), &length),
              SCARD_S_SUCCESS);
    // As its directory says: 22 bytes of headers, then the image.
    EXPECT_EQ(length, DWORD{icon[18]} + icon[14]);
    EXPECT_EQ(host.SCardGetReaderIconA(context, "No Reader", icon.data(), &length),
              SCARD_E_UNKNOWN_READER);
}

TEST_F(HostServiceTest, SetsItsStartedEventWhileItRuns) {
    const HANDLE event = host.SCardAccessStartedEvent();
    EXPECT_EQ(host.SCardAccessStartedEvent(), event);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    host.startedEvent().setStarted(false);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});
    host.SCardReleaseStartedEvent();
    EXPECT_EQ(host.startedEvent().users(), 1U);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});
    host.SCardReleaseStartedEvent();
    host.startedEvent().setStarted(true);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_FAILED);
}

TEST_F(HostServiceTest, EchoesAControlCommand) {
    std::array<std::uint8_t, 4> output{};
    DWORD returned = 99;
    EXPECT_EQ(host.SCardControl(connect(), SCARD_CTL_CODE(kControlEcho), "abc", 3, output.data(),
                                output.size(), &returned),
              SCARD_S_SUCCESS);
    EXPECT_EQ(returned, 3U);
    EXPECT_EQ(output, (std::array<std::uint8_t, 4>{'a', 'b', 'c', 0}));
}

}  // namespace
}  // namespace tez::test
