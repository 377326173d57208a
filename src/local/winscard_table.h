#pragma once

#include <atomic>

#include "common/scard_api.h"

namespace tez {

/// The entry points of the system library, in the order in which they are looked up. Only the
/// narrow forms: the wide ones of this library convert and go through these.
#define TEZ_FOR_EACH_SYSTEM_ENTRY_POINT(ENTRY) \
    ENTRY(SCardEstablishContext)               \
    ENTRY(SCardReleaseContext)                 \
    ENTRY(SCardAudit)                          \
    ENTRY(SCardGetCardTypeProviderNameA)       \
    ENTRY(SCardFreeMemory)                     \
    ENTRY(SCardListCardsA)                     \
    ENTRY(SCardIntroduceCardTypeA)             \
    ENTRY(SCardForgetCardTypeA)                \
    ENTRY(SCardSetCardTypeProviderNameA)       \
    ENTRY(SCardIsValidContext)                 \
    ENTRY(SCardConnectA)                       \
    ENTRY(SCardReconnect)                      \
    ENTRY(SCardDisconnect)                     \
    ENTRY(SCardBeginTransaction)               \
    ENTRY(SCardEndTransaction)                 \
    ENTRY(SCardStatusA)                        \
    ENTRY(SCardGetStatusChangeA)               \
    ENTRY(SCardControl)                        \
    ENTRY(SCardTransmit)                       \
    ENTRY(SCardListReaderGroupsA)              \
    ENTRY(SCardListReadersA)                   \
    ENTRY(SCardCancel)                         \
    ENTRY(SCardGetAttrib)                      \
    ENTRY(SCardSetAttrib)                      \
    ENTRY(SCardGetTransmitCount)               \
    ENTRY(SCardGetDeviceTypeIdA)               \
    ENTRY(SCardReadCacheA)                     \
    ENTRY(SCardWriteCacheA)                    \
    ENTRY(SCardGetReaderIconA)                 \
    ENTRY(SCardAccessStartedEvent)             \
    ENTRY(SCardReleaseStartedEvent)

/// The host's own smart-card library, loaded at run time: this library takes its place for the
/// application, yet the host's readers must keep working. The entry points may be used only while
/// loaded is set; it never falls back to false, and they never change once it is set.
struct WinscardTable {
    HMODULE module = nullptr;
// NOLINTNEXTLINE(bugprone-macro-parentheses): a declarator is no expression
#define TEZ_DECLARE_ENTRY_POINT(name) decltype(&::name) name = nullptr;
    TEZ_FOR_EACH_SYSTEM_ENTRY_POINT(TEZ_DECLARE_ENTRY_POINT)
#undef TEZ_DECLARE_ENTRY_POINT
    std::atomic<bool> loaded = false;
};

const WinscardTable& winscardTable() noexcept;

/// Makes the table ready: loads the system library and looks all its entry points up, unless that
/// has been done. Every local path calls it right before it uses the table. Returns false when the
/// library or any entry point is missing; the next call then tries afresh, so that a library which
/// becomes available later is picked up. Any thread may call; never throws.
bool InitializeWinscardFunctions() noexcept;

/// Calls an entry point of the system library, on the calling thread and with system handles:
///
///     callSystem(&WinscardTable::SCardReleaseContext, systemContext)
///
/// @return the system library's code; SCARD_F_INTERNAL_ERROR when it cannot be loaded.
template <class... Parameters, class... Arguments>
[[nodiscard]] LONG callSystem(LONG (WINAPI* WinscardTable::*entryPoint)(Parameters...),
                              Arguments... arguments) {
    return InitializeWinscardFunctions() ? (winscardTable().*entryPoint)(arguments...)
                                         : SCARD_F_INTERNAL_ERROR;
}

}  // namespace tez
