#include "readers/asked_side.h"

#include <algorithm>
#include <cstring>

namespace tez {

namespace {

/// Codes with which a side tells what its readers are like.
bool isReport(LONG rv) {
    return rv == SCARD_S_SUCCESS || rv == SCARD_E_TIMEOUT || rv == SCARD_E_CANCELLED;
}

}  // namespace

void setEvent(SCARD_READERSTATEA& entry, DWORD event) noexcept {
    entry.dwEventState = event;
    entry.cbAtr = 0;
    std::memset(entry.rgbAtr, 0, sizeof(entry.rgbAtr));
}

void leaveUntold(SCARD_READERSTATEA& entry) noexcept {
    entry.dwEventState = entry.dwCurrentState & ~DWORD{SCARD_STATE_CHANGED};
}

void AskedSide::ask(std::span<const SCARD_READERSTATEA> entries, const std::vector<Place>& places,
                    Question question, SideEntries& toAsk) {
    question_ = question;
    view_.assign(entries.begin(), entries.end());
    SCARD_READERSTATEA& pseudoReader = view_.emplace_back();
    pseudoReader.szReader = kPnpReader;
    pseudoReader.dwCurrentState = count.value_or(0) << 16;
    for (SCARD_READERSTATEA& entry : view_) {
        entry.dwEventState = 0;
    }
    for (DWORD i = 0; question != Question::Count && i < places.size(); ++i) {
        if (places[i] == place_) {
            toAsk.indexes.push_back(i);
        }
    }
    if (question != Question::Readers) {
        toAsk.indexes.push_back(static_cast<DWORD>(entries.size()));
    }
    toAsk.states = view_.data();
    isAsked_ = !toAsk.indexes.empty();
    isCutShort_ = false;
}

void AskedSide::leaveOut() noexcept {
    isAsked_ = isCutShort_ = false;
}

void AskedSide::take(LONG rv, bool wasEnded) noexcept {
    isCutShort_ = wasEnded;
    if (!isReport(rv)) {
        failure = rv;
        count = 0;
        return;
    }
    if (question_ == Question::Readers) {
        return;
    }
    const SCARD_READERSTATEA& pseudoReader = view_.back();
    if (pseudoReader.dwEventState != 0) {
        count = pseudoReader.dwEventState >> 16;
    } else if (!wasEnded) {
        count = pseudoReader.dwCurrentState >> 16;
    }
}

bool AskedSide::hasChange() const noexcept {
    return !view_.empty() && std::any_of(view_.begin(), view_.end() - 1, [](const auto& entry) {
        return (entry.dwEventState & SCARD_STATE_CHANGED) != 0;
    });
}

void AskedSide::report(std::size_t index, SCARD_READERSTATEA& entry) const noexcept {
    if (view_.empty() || view_[index].dwEventState == 0) {
        leaveUntold(entry);
        return;
    }
    const SCARD_READERSTATEA& told = view_[index];
    entry.dwEventState = told.dwEventState;
    entry.cbAtr = told.cbAtr;
    std::memcpy(entry.rgbAtr, told.rgbAtr, sizeof(entry.rgbAtr));
}

}  // namespace tez
