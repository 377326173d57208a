// Applications that pass nonsense: handles that nobody issued, null pointers, absurd lengths.
#include <functional>

#include "guarded_buffer.h"
#include "strange_handles.h"

namespace tez::test {
namespace {

using testing::AnyOf;
using testing::Not;
using testing::UnorderedElementsAre;

/// A call on a context or a card handle with arguments that are in order apart from the handle.
struct HandleCall {
    const char* name;
    std::function<LONG(std::uint64_t handle)> make;
};

DWORD ignoredLength = 0;
DWORD ignoredNumber = 0;
SCARDHANDLE ignoredCard = 0;
BYTE ignoredBytes[300];

const HandleCall kContextCalls[] = {
    {"IsValidContext", [](auto handle) { return SCardIsValidContext(handle); }},
    {"ReleaseContext", [](auto handle) { return SCardReleaseContext(handle); }},
    {"Cancel", [](auto handle) { return SCardCancel(handle); }},
    {"Connect",
     [](auto handle) {
         return SCardConnectA(handle, kHostReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &ignoredCard, &ignoredNumber);
     }},
    {"ListReaders",
     [](auto handle) {
         ignoredLength = 0;
         return SCardListReadersA(handle, nullptr, nullptr, &ignoredLength);
     }},
    {"ListReaderGroups",
     [](auto handle) {
         ignoredLength = 0;
         return SCardListReaderGroupsA(handle, nullptr, &ignoredLength);
     }},
    {"GetStatusChange",
     [](auto handle) {
         SCARD_READERSTATEA state = {};
         state.szReader = kHostReader;
         return SCardGetStatusChangeA(handle, 0, &state, 1);
     }},
    {"FreeMemory", [](auto handle) { return SCardFreeMemory(handle, nullptr); }},
};

const HandleCall kCardCalls[] = {
    {"Reconnect",
     [](auto handle) {
         return SCardReconnect(handle, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                               &ignoredNumber);
     }},
    {"Disconnect", [](auto handle) { return SCardDisconnect(handle, SCARD_LEAVE_CARD); }},
    {"BeginTransaction", [](auto handle) { return SCardBeginTransaction(handle); }},
    {"EndTransaction", [](auto handle) { return SCardEndTransaction(handle, SCARD_LEAVE_CARD); }},
    {"Status",
     [](auto handle) {
         return SCardStatusA(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
     }},
    {"Transmit",
     [](auto handle) {
         ignoredLength = sizeof ignoredBytes;
         return SCardTransmit(handle, SCARD_PCI_T1, ignoredBytes, 5, nullptr, ignoredBytes,
                              &ignoredLength);
     }},
    {"Control",
     [](auto handle) {
         return SCardControl(handle, SCARD_CTL_CODE(kControlEcho), ignoredBytes, 5, ignoredBytes,
                             sizeof ignoredBytes, &ignoredLength);
     }},
    {"GetAttrib",
     [](auto handle) {
         ignoredLength = sizeof ignoredBytes;
         return SCardGetAttrib(handle, SCARD_ATTR_ATR_STRING, ignoredBytes, &ignoredLength);
     }},
    {"SetAttrib",
     [](auto handle) { return SCardSetAttrib(handle, SCARD_ATTR_ATR_STRING, ignoredBytes, 5); }},
    {"GetTransmitCount", [](auto handle) { return SCardGetTransmitCount(handle, &ignoredNumber); }},
};

void PrintTo(const HandleCall& call, std::ostream* stream) {
    *stream << call.name;
}

class HostileHandleTest : public StrangeHandleTest, public testing::WithParamInterface<HandleCall> {
  protected:
    static void expectRefused() {
        for (const std::uint64_t handle : strangeHandles()) {
            SCOPED_TRACE(handle);
            EXPECT_THAT(GetParam().make(handle), Gives(SCARD_E_INVALID_HANDLE));
        }
    }
};

TEST_P(HostileHandleTest, IsRefusedWithoutADaemon) {
    context = establish();
    card = connect(context, kHostReader);
    expectRefused();
    EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
}

TEST_P(HostileHandleTest, IsRefusedWithADaemonAndNotSentToIt) {
    connectCard();
    expectRefused();
    EXPECT_THAT(daemon.requests(), testing::IsEmpty());
    EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
}

INSTANTIATE_TEST_SUITE_P(Context, HostileHandleTest, testing::ValuesIn(kContextCalls),
                         [](const auto& given) { return std::string(given.param.name); });
INSTANTIATE_TEST_SUITE_P(Card, HostileHandleTest, testing::ValuesIn(kCardCalls),
                         [](const auto& given) { return std::string(given.param.name); });

class HostileArgumentTest : public RemoteCardTest {
  protected:
    void SetUp() override { connectCard(); }

    /// Both sides still serve.
    void TearDown() override {
        EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
        EXPECT_EQ(transmit(card, getChallenge()).size(), 10U);
    }
};

TEST_F(HostileArgumentTest, NullPointersToAListOfReaders) {
    EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToReaderGroups) {
    EXPECT_THAT(SCardListReaderGroupsA(context, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToConnect) {
    EXPECT_THAT(SCardConnectA(context, nullptr, 0, 0, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(SCardConnectA(context, nullptr, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &ignoredCard,
                              &ignoredNumber),
                Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &ignoredCard, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToTransmit) {
    EXPECT_THAT(SCardTransmit(card.handle, nullptr, nullptr, 0, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToStatus) {
    EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
                Gives(SCARD_S_SUCCESS));
}

TEST_F(HostileArgumentTest, NullPointersToStatusChange) {
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, nullptr, 1), Gives(SCARD_E_INVALID_PARAMETER));
    SCARD_READERSTATEA state = {};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 1), Gives(SCARD_E_INVALID_VALUE));
}

TEST_F(HostileArgumentTest, AnAbsurdCountOfReaderStates) {
    SCARD_READERSTATEA state = {};
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, &state, 0xFFFFFFFF),
                Gives(SCARD_E_INVALID_PARAMETER));
}

TEST_F(HostileArgumentTest, NullPointersToAttributesAndCounts) {
    EXPECT_THAT(SCardGetAttrib(card.handle, SCARD_ATTR_ATR_STRING, nullptr, nullptr),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardSetAttrib(card.handle, SCARD_ATTR_ATR_STRING, nullptr, 5),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_THAT(SCardGetTransmitCount(card.handle, nullptr), Not(Gives(SCARD_S_SUCCESS)));
}

TEST_F(HostileArgumentTest, AnAbsurdSendLength) {
    const GuardedBuffer command(5);
    ignoredLength = sizeof ignoredBytes;
    EXPECT_THAT(SCardTransmit(card.handle, SCARD_PCI_T1, command.data(), 0xFFFFFFFF, nullptr,
                              ignoredBytes, &ignoredLength),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_TRUE(command.untouched());
}

TEST_F(HostileArgumentTest, AnAbsurdAttributeLength) {
    const GuardedBuffer value(5);
    EXPECT_THAT(SCardSetAttrib(card.handle, SCARD_ATTR_ATR_STRING, value.data(), 0xFFFFFFFF),
                Not(Gives(SCARD_S_SUCCESS)));
}

TEST_F(HostileArgumentTest, AnAbsurdControlLength) {
    const GuardedBuffer input(5);
    const GuardedBuffer output(5);
    EXPECT_THAT(SCardControl(card.handle, SCARD_CTL_CODE(kControlEcho), input.data(), 0xFFFFFFFF,
                             output.data(), 0xFFFFFFFF, &ignoredLength),
                Not(Gives(SCARD_S_SUCCESS)));
    EXPECT_TRUE(output.untouched());
}

TEST_F(HostileArgumentTest, AReaderNameLongerThanAnyRecordHolds) {
    const std::string name(100000, 'n');
    EXPECT_THAT(SCardConnectA(context, name.c_str(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                              &ignoredCard, &ignoredNumber),
                Not(Gives(SCARD_S_SUCCESS)));
}

TEST_F(HostileArgumentTest, AZeroLengthBufferForEachList) {
    const GuardedBuffer none(0);
    DWORD length = 0;
    EXPECT_THAT(SCardListReadersA(context, nullptr, none.as<char>(), &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
    length = 0;
    EXPECT_THAT(SCardListReaderGroupsA(context, none.as<char>(), &length),
                Gives(SCARD_E_INSUFFICIENT_BUFFER));
}

}  // namespace
}  // namespace tez::test
