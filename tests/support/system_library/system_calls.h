#pragma once

#include "scard_missing.h"

namespace tez::test {

/// The entry points that a host's smart-card library must have, each with its result, its name, its
/// parameters and its arguments.
#define TEZ_FOR_EACH_SYSTEM_CALL(CALL)                                                             \
    CALL(LONG, SCardEstablishContext,                                                              \
         (DWORD scope, LPCVOID reserved1, LPCVOID reserved2, LPSCARDCONTEXT context),              \
         (scope, reserved1, reserved2, context))                                                   \
    CALL(LONG, SCardReleaseContext, (SCARDCONTEXT context), (context))                             \
    CALL(LONG, SCardAudit, (SCARDCONTEXT context, DWORD event), (context, event))                  \
    CALL(LONG, SCardGetCardTypeProviderNameA,                                                      \
         (SCARDCONTEXT context, LPCSTR card, DWORD providerId, LPSTR provider, LPDWORD length),    \
         (context, card, providerId, provider, length))                                            \
    CALL(LONG, SCardFreeMemory, (SCARDCONTEXT context, LPCVOID memory), (context, memory))         \
    CALL(LONG, SCardListCardsA,                                                                    \
         (SCARDCONTEXT context, LPCBYTE atr, LPCGUID interfaces, DWORD interfaceCount,             \
          LPSTR cards, LPDWORD length),                                                            \
         (context, atr, interfaces, interfaceCount, cards, length))                                \
    CALL(LONG, SCardIntroduceCardTypeA,                                                            \
         (SCARDCONTEXT context, LPCSTR card, LPCGUID primaryProvider, LPCGUID interfaces,          \
          DWORD interfaceCount, LPCBYTE atr, LPCBYTE atrMask, DWORD atrLength),                    \
         (context, card, primaryProvider, interfaces, interfaceCount, atr, atrMask, atrLength))    \
    CALL(LONG, SCardForgetCardTypeA, (SCARDCONTEXT context, LPCSTR card), (context, card))         \
    CALL(LONG, SCardSetCardTypeProviderNameA,                                                      \
         (SCARDCONTEXT context, LPCSTR card, DWORD providerId, LPCSTR provider),                   \
         (context, card, providerId, provider))                                                    \
    CALL(LONG, SCardIsValidContext, (SCARDCONTEXT context), (context))                             \
    CALL(LONG, SCardConnectA,                                                                      \
         (SCARDCONTEXT context, LPCSTR reader, DWORD shareMode, DWORD preferredProtocols,          \
          LPSCARDHANDLE card, LPDWORD activeProtocol),                                             \
         (context, reader, shareMode, preferredProtocols, card, activeProtocol))                   \
    CALL(LONG, SCardReconnect,                                                                     \
         (SCARDHANDLE card, DWORD shareMode, DWORD preferredProtocols, DWORD initialization,       \
          LPDWORD activeProtocol),                                                                 \
         (card, shareMode, preferredProtocols, initialization, activeProtocol))                    \
    CALL(LONG, SCardDisconnect, (SCARDHANDLE card, DWORD disposition), (card, disposition))        \
    CALL(LONG, SCardBeginTransaction, (SCARDHANDLE card), (card))                                  \
    CALL(LONG, SCardEndTransaction, (SCARDHANDLE card, DWORD disposition), (card, disposition))    \
    CALL(LONG, SCardStatusA,                                                                       \
         (SCARDHANDLE card, LPSTR readers, LPDWORD readersLength, LPDWORD state, LPDWORD protocol, \
          LPBYTE atr, LPDWORD atrLength),                                                          \
         (card, readers, readersLength, state, protocol, atr, atrLength))                          \
    CALL(LONG, SCardGetStatusChangeA,                                                              \
         (SCARDCONTEXT context, DWORD timeout, LPSCARD_READERSTATEA states, DWORD count),          \
         (context, timeout, states, count))                                                        \
    CALL(LONG, SCardControl,                                                                       \
         (SCARDHANDLE card, DWORD code, LPCVOID input, DWORD inputSize, LPVOID output,             \
          DWORD outputSize, LPDWORD returned),                                                     \
         (card, code, input, inputSize, output, outputSize, returned))                             \
    CALL(LONG, SCardTransmit,                                                                      \
         (SCARDHANDLE card, LPCSCARD_IO_REQUEST sendPci, LPCBYTE send, DWORD sendLength,           \
          LPSCARD_IO_REQUEST receivePci, LPBYTE receive, LPDWORD receiveLength),                   \
         (card, sendPci, send, sendLength, receivePci, receive, receiveLength))                    \
    CALL(LONG, SCardListReaderGroupsA, (SCARDCONTEXT context, LPSTR groups, LPDWORD length),       \
         (context, groups, length))                                                                \
    CALL(LONG, SCardListReadersA,                                                                  \
         (SCARDCONTEXT context, LPCSTR groups, LPSTR readers, LPDWORD length),                     \
         (context, groups, readers, length))                                                       \
    CALL(LONG, SCardCancel, (SCARDCONTEXT context), (context))                                     \
    CALL(LONG, SCardGetAttrib, (SCARDHANDLE card, DWORD attribute, LPBYTE value, LPDWORD length),  \
         (card, attribute, value, length))                                                         \
    CALL(LONG, SCardSetAttrib, (SCARDHANDLE card, DWORD attribute, LPCBYTE value, DWORD length),   \
         (card, attribute, value, length))                                                         \
    CALL(LONG, SCardGetTransmitCount, (SCARDHANDLE card, LPDWORD count), (card, count))            \
    CALL(LONG, SCardGetDeviceTypeIdA, (SCARDCONTEXT context, LPCSTR reader, LPDWORD deviceType),   \
         (context, reader, deviceType))                                                            \
    CALL(LONG, SCardReadCacheA,                                                                    \
         (SCARDCONTEXT context, UUID * cardIdentifier, DWORD freshness, LPSTR lookupName,          \
          PBYTE data, LPDWORD length),                                                             \
         (context, cardIdentifier, freshness, lookupName, data, length))                           \
    CALL(LONG, SCardWriteCacheA,                                                                   \
         (SCARDCONTEXT context, UUID * cardIdentifier, DWORD freshness, LPSTR lookupName,          \
          PBYTE data, DWORD length),                                                               \
         (context, cardIdentifier, freshness, lookupName, data, length))                           \
    CALL(LONG, SCardGetReaderIconA,                                                                \
         (SCARDCONTEXT context, LPCSTR reader, LPBYTE icon, LPDWORD length),                       \
         (context, reader, icon, length))                                                          \
    CALL(HANDLE, SCardAccessStartedEvent, (), ())                                                  \
    CALL(void, SCardReleaseStartedEvent, (), ())

/// What stands behind a host's smart-card library: one method for each of its entry points, with
/// the platform's signature and meaning. Any thread may call any of them at any time.
class SystemCalls {
  public:
    SystemCalls() = default;
    SystemCalls(const SystemCalls&) = delete;
    SystemCalls& operator=(const SystemCalls&) = delete;
    virtual ~SystemCalls() = default;

// NOLINTNEXTLINE(bugprone-macro-parentheses): names and parameter lists are no expressions
#define TEZ_DECLARE_CALL(Result, name, parameters, arguments) virtual Result name parameters = 0;
    TEZ_FOR_EACH_SYSTEM_CALL(TEZ_DECLARE_CALL)
#undef TEZ_DECLARE_CALL
};

}  // namespace tez::test
