// Exhausted memory in the calls on the card database, the cache, the icon and the device type, and
// in the wide forms of the others.
#include "database_calls.h"
#include "memory_sweep.h"

namespace tez::test {
namespace {

/// What the host says to a call when the daemon's part of it failed.
LONG hostsWord(Command command) {
    switch (command) {
        case Command::kGetCardTypeProviderName:
            return SCARD_E_UNKNOWN_CARD;
        case Command::kSetCardTypeProviderName:
        case Command::kForgetCardType:
            return SCARD_E_INVALID_HANDLE;
        default:
            return SCARD_S_SUCCESS;
    }
}

std::vector<SweptCall> sweptQueries(const std::vector<DatabaseQuery>& queries) {
    std::vector<SweptCall> calls;
    for (const DatabaseQuery& query : queries) {
        const auto make = [query](const SweptHandles& handles) {
            return query.hasData()
                       ? freeing(handles,
                                 [&](void* destination, DWORD* length) {
                                     return query.make(handles.context, destination, length);
                                 })
                       : query.make(handles.context, nullptr, nullptr);
        };
        calls.push_back({.name = query.name,
                         .make = make,
                         .isRedirected = true,
                         .fallback = hostsWord(query.command)});
    }
    return calls;
}

/// With the daemon beside the host, but what the host alone is asked for.
std::vector<SweptCall> sweptHostQueries() {
    return {
        {"ListCardsW",
         [](const SweptHandles& handles) {
             return freeing(handles, [&](void* cards, DWORD* length) {
                 return SCardListCardsW(handles.context, nullptr, nullptr, 0,
                                        bufferOf<wchar_t>(cards), length);
             });
         }},
        {"GetReaderIconW",
         [](const SweptHandles& handles) {
             return freeing(handles, [&](void* icon, DWORD* length) {
                 return SCardGetReaderIconW(handles.context, L"Host Reader 0", bufferOf<BYTE>(icon),
                                            length);
             });
         }},
        {"GetDeviceTypeIdW",
         [](const SweptHandles& handles) {
             DWORD type = 0;
             return SCardGetDeviceTypeIdW(handles.context, L"Host Reader 0", &type);
         }},
        {"IntroduceAndForgetCardTypeW",
         [](const SweptHandles& handles) {
             const BYTE atr[] = {0x3B, 0x00};
             SCardForgetCardTypeA(handles.context, "A New Card");
             LONG rv = SCardIntroduceCardTypeW(handles.context, L"A New Card", nullptr, nullptr, 0,
                                               atr, nullptr, sizeof atr);
             if (rv == SCARD_S_SUCCESS) {
                 rv = SCardForgetCardTypeW(handles.context, L"A New Card");
             }
             return rv;
         }},
        {"SetAndGetCardTypeProviderNameW",
         [](const SweptHandles& handles) {
             LONG rv = SCardSetCardTypeProviderNameW(handles.context, L"Demo Card",
                                                     SCARD_PROVIDER_CSP, L"A Provider");
             if (rv == SCARD_S_SUCCESS) {
                 rv = freeing(handles, [&](void* provider, DWORD* length) {
                     return SCardGetCardTypeProviderNameW(handles.context, L"Demo Card",
                                                          SCARD_PROVIDER_CSP,
                                                          bufferOf<wchar_t>(provider), length);
                 });
             }
             return rv;
         }},
        {"Audit",
         [](const SweptHandles& handles) {
             return SCardAudit(handles.context, SCARD_AUDIT_CHV_SUCCESS);
         }},
    };
}

std::vector<SweptCall> sweptWideCalls() {
    return {
        {.name = "ConnectW",
         .make =
             [](const SweptHandles& handles) {
                 SCARDHANDLE card = 0;
                 DWORD protocol = 0;
                 const LONG rv =
                     SCardConnectW(handles.context, L"Remote Reader 0", SCARD_SHARE_SHARED,
                                   SCARD_PROTOCOL_Tx, &card, &protocol);
                 return rv == SCARD_S_SUCCESS ? SCardDisconnect(card, SCARD_LEAVE_CARD) : rv;
             },
         .connects = true},
        {"ListReadersW",
         [](const SweptHandles& handles) {
             return freeing(handles, [&](void* readers, DWORD* length) {
                 return SCardListReadersW(handles.context, L"SCard$DefaultReaders\0",
                                          bufferOf<wchar_t>(readers), length);
             });
         }},
        {"ListReaderGroupsW",
         [](const SweptHandles& handles) {
             return freeing(handles, [&](void* groups, DWORD* length) {
                 return SCardListReaderGroupsW(handles.context, bufferOf<wchar_t>(groups), length);
             });
         }},
        {"StatusW",
         [](const SweptHandles& handles) {
             return freeing(handles, [&](void* name, DWORD* nameLength) {
                 return freeing(handles, [&](void* atr, DWORD* atrLength) {
                     return SCardStatusW(handles.atDaemon, bufferOf<wchar_t>(name), nameLength,
                                         nullptr, nullptr, bufferOf<BYTE>(atr), atrLength);
                 });
             });
         }},
        {"GetStatusChangeW",
         [](const SweptHandles& handles) {
             SCARD_READERSTATEW states[2] = {};
             states[0].szReader = L"Host Reader 0";
             states[1].szReader = L"Remote Reader 0";
             return SCardGetStatusChangeW(handles.context, 0, states, 2);
         }},
    };
}

INSTANTIATE_TEST_SUITE_P(EveryQuery, MemoryTest, testing::ValuesIn(sweptQueries(databaseQueries())),
                         nameOfCall<SweptCall>);
INSTANTIATE_TEST_SUITE_P(EveryUpdate, MemoryTest,
                         testing::ValuesIn(sweptQueries(redirectedUpdates())),
                         nameOfCall<SweptCall>);
INSTANTIATE_TEST_SUITE_P(OnTheHost, MemoryTest, testing::ValuesIn(sweptHostQueries()),
                         nameOfCall<SweptCall>);
INSTANTIATE_TEST_SUITE_P(WideForm, MemoryTest, testing::ValuesIn(sweptWideCalls()),
                         nameOfCall<SweptCall>);

}  // namespace
}  // namespace tez::test
