// Exhausted memory in the calls on contexts, readers and handles.
#include "memory_sweep.h"

namespace tez::test {
namespace {

using testing::UnorderedElementsAre;

LONG connectAndDisconnect(const SweptHandles& handles, const char* reader) {
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    const LONG rv = SCardConnectA(handles.context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                  &card, &protocol);
    return rv == SCARD_S_SUCCESS ? SCardDisconnect(card, SCARD_LEAVE_CARD) : rv;
}

LONG statusOf(const SweptHandles& handles, SCARDHANDLE card) {
    return freeing(handles, [&](void* name, DWORD* nameLength) {
        return freeing(handles, [&](void* atr, DWORD* atrLength) {
            return SCardStatusA(card, bufferOf<char>(name), nameLength, nullptr, nullptr,
                                bufferOf<BYTE>(atr), atrLength);
        });
    });
}

LONG attributeOf(const SweptHandles& handles, SCARDHANDLE card) {
    return freeing(handles, [&](void* value, DWORD* length) {
        return SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, bufferOf<BYTE>(value), length);
    });
}

LONG challenge(SCARDHANDLE card) {
    const Bytes& command = getChallenge();
    Bytes response(258);
    DWORD length = 258;
    return SCardTransmit(card, SCARD_PCI_T1, command.data(), static_cast<DWORD>(command.size()),
                         nullptr, response.data(), &length);
}

LONG echo(SCARDHANDLE card) {
    Bytes bytes(100);
    DWORD returned = 0;
    return SCardControl(card, SCARD_CTL_CODE(kControlEcho), bytes.data(), 100, bytes.data(), 100,
                        &returned);
}

LONG changesOf(const SweptHandles& handles) {
    SCARD_READERSTATEA states[2] = {};
    states[0].szReader = kHostReader;
    states[1].szReader = kRemoteReader;
    return SCardGetStatusChangeA(handles.context, 0, states, 2);
}

const SweptCall kSweptCalls[] = {
    {"Establish",
     [](const SweptHandles&) {
         SCARDCONTEXT context = 0;
         const LONG rv = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
         if (rv == SCARD_S_SUCCESS) {
             SCardReleaseContext(context);
         }
         return rv;
     }},
    {.name = "FirstRemoteUse",
     .make =
         [](const SweptHandles&) {
             SCARDCONTEXT context = 0;
             LONG rv = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
             if (rv == SCARD_S_SUCCESS) {
                 rv = connectAndDisconnect({context, 0, 0}, kRemoteReader);
                 SCardReleaseContext(context);
             }
             return rv;
         },
     .connects = true},
    {"IsValidContext",
     [](const SweptHandles& handles) { return SCardIsValidContext(handles.context); }},
    {"ListReaders",
     [](const SweptHandles& handles) {
         return freeing(handles, [&](void* readers, DWORD* length) {
             return SCardListReadersA(handles.context, nullptr, bufferOf<char>(readers), length);
         });
     }},
    {"ListReaderGroups",
     [](const SweptHandles& handles) {
         return freeing(handles, [&](void* groups, DWORD* length) {
             return SCardListReaderGroupsA(handles.context, bufferOf<char>(groups), length);
         });
     }},
    {"GetStatusChange", changesOf},
    {"Cancel", [](const SweptHandles& handles) { return SCardCancel(handles.context); }},
    {.name = "ConnectToTheHost",
     .make = [](const SweptHandles& handles) { return connectAndDisconnect(handles, kHostReader); },
     .connects = true},
    {.name = "ConnectToTheDaemon",
     .make =
         [](const SweptHandles& handles) { return connectAndDisconnect(handles, kRemoteReader); },
     .connects = true},
    {"StatusOnTheHost",
     [](const SweptHandles& handles) { return statusOf(handles, handles.onHost); }},
    {"StatusAtTheDaemon",
     [](const SweptHandles& handles) { return statusOf(handles, handles.atDaemon); }},
    {"GetAttribOnTheHost",
     [](const SweptHandles& handles) { return attributeOf(handles, handles.onHost); }},
    {"GetAttribAtTheDaemon",
     [](const SweptHandles& handles) { return attributeOf(handles, handles.atDaemon); }},
    {"SetAttrib",
     [](const SweptHandles& handles) {
         const BYTE value[] = {1, 2, 3};
         return SCardSetAttrib(handles.atDaemon, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, value, 3);
     }},
    {"TransmitOnTheHost", [](const SweptHandles& handles) { return challenge(handles.onHost); }},
    {"TransmitAtTheDaemon",
     [](const SweptHandles& handles) { return challenge(handles.atDaemon); }},
    {"ControlOnTheHost", [](const SweptHandles& handles) { return echo(handles.onHost); }},
    {"ControlAtTheDaemon", [](const SweptHandles& handles) { return echo(handles.atDaemon); }},
    {"BeginTransaction",
     [](const SweptHandles& handles) {
         const LONG rv = SCardBeginTransaction(handles.atDaemon);
         if (rv == SCARD_S_SUCCESS) {
             SCardEndTransaction(handles.atDaemon, SCARD_LEAVE_CARD);
         }
         return rv;
     }},
    {"Reconnect",
     [](const SweptHandles& handles) {
         DWORD protocol = 0;
         return SCardReconnect(handles.atDaemon, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                               SCARD_LEAVE_CARD, &protocol);
     }},
    {"GetTransmitCount",
     [](const SweptHandles& handles) {
         DWORD count = 0;
         return SCardGetTransmitCount(handles.atDaemon, &count);
     }},
    {"StartedEvent",
     [](const SweptHandles&) -> LONG {
         if (SCardAccessStartedEvent() == nullptr) {
             return SCARD_E_NO_MEMORY;
         }
         SCardReleaseStartedEvent();
         return SCARD_S_SUCCESS;
     }},
};

INSTANTIATE_TEST_SUITE_P(EveryCall, MemoryTest, testing::ValuesIn(kSweptCalls),
                         [](const auto& given) { return given.param.name; });

}  // namespace

TEST_P(MemoryTest, AnAllocationThatFailsEndsTheCallAndLosesNothing) {
    sweep();
    // What is made once, such as the place for a thread's first exception, has been made.
    const std::size_t kept = outstandingBlocks();
    sweep();
    EXPECT_TRUE(GetParam().connects || comesDownTo(kept))
        << outstandingBlocks() << " blocks, not " << kept;
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

}  // namespace tez::test
