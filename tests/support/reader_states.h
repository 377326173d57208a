// Reader states of SCardGetStatusChange by the names of their parts.
#pragma once

#include <windows.h>
#include <winscard.h>

namespace tez::test {

inline constexpr DWORD kChanged = SCARD_STATE_CHANGED;
inline constexpr DWORD kGone = SCARD_STATE_UNKNOWN | SCARD_STATE_CHANGED | SCARD_STATE_IGNORE;

/// The upper half of a state: how often a card came or went, or how many readers there are.
constexpr DWORD count(DWORD number) {
    return number << 16U;
}

/// A reader that still holds its first card, with the counter that the sides report.
inline constexpr DWORD kFirstCard = count(1) | SCARD_STATE_PRESENT;
/// A reader whose first card was pulled.
inline constexpr DWORD kFirstCardPulled = count(2) | SCARD_STATE_EMPTY;
/// A reader that holds its second card.
inline constexpr DWORD kSecondCard = count(3) | SCARD_STATE_PRESENT;

/// An entry for SCardGetStatusChangeA. The name is not copied.
inline SCARD_READERSTATEA readerState(const char* reader, DWORD current, DWORD event = 0) {
    SCARD_READERSTATEA state = {};
    state.szReader = reader;
    state.dwCurrentState = current;
    state.dwEventState = event;
    return state;
}

}  // namespace tez::test
