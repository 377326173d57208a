#pragma once

#include "common/scard_api.h"

namespace tez {

// The system library's calls that can return a buffer of its own, and a few plain ones. They take
// system handles and have the signatures of what they wrap. With SCARD_AUTOALLOCATE the result is
// moved into a block of this library's heap and the system's buffer is given back at once, because
// the application frees it through this library's SCardFreeMemory, which never calls the system's.
//
// Results: SCARD_F_INTERNAL_ERROR when the system library cannot be loaded, or when the block for
// an auto-allocated result could not be had (the stored pointer is then null); else the system
// library's own code. On a system failure nothing of the caller's is changed by the wrapper.

[[nodiscard]] LONG LocalSCardListReadersA(SCARDCONTEXT context, LPCSTR groups, LPSTR readers,
                                          LPDWORD length);
[[nodiscard]] LONG LocalSCardListReaderGroupsA(SCARDCONTEXT context, LPSTR groups, LPDWORD length);
[[nodiscard]] LONG LocalSCardListCardsA(SCARDCONTEXT context, LPCBYTE atr, LPCGUID interfaces,
                                        DWORD interfaceCount, LPSTR cards, LPDWORD length);
[[nodiscard]] LONG LocalSCardGetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR cardName,
                                                      DWORD providerId, LPSTR provider,
                                                      LPDWORD length);
[[nodiscard]] LONG LocalSCardReadCacheA(SCARDCONTEXT context, UUID* cardIdentifier, DWORD freshness,
                                        LPSTR lookupName, PBYTE data, LPDWORD length);
[[nodiscard]] LONG LocalSCardGetReaderIconA(SCARDCONTEXT context, LPCSTR readerName, LPBYTE icon,
                                            LPDWORD length);

/// The leading context only serves to give the system's buffer back.
[[nodiscard]] LONG LocalSCardGetAttrib(SCARDCONTEXT context, SCARDHANDLE card, DWORD attributeId,
                                       LPBYTE value, LPDWORD length);
/// As LocalSCardGetAttrib. Names and ATR are auto-allocated each on its own; a failure never leaves
/// one of them allocated.
[[nodiscard]] LONG LocalSCardStatusA(SCARDCONTEXT context, SCARDHANDLE card, LPSTR names,
                                     LPDWORD namesLength, LPDWORD state, LPDWORD protocol,
                                     LPBYTE atr, LPDWORD atrLength);

[[nodiscard]] LONG LocalSCardEstablishContext(DWORD scope, LPCVOID reserved1, LPCVOID reserved2,
                                              LPSCARDCONTEXT context);
[[nodiscard]] LONG LocalSCardSetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR cardName,
                                                      DWORD providerId, LPCSTR provider);
[[nodiscard]] LONG LocalSCardCancel(SCARDCONTEXT context);

}  // namespace tez
