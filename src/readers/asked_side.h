#pragma once

#include <optional>
#include <span>
#include <vector>

#include "common/scard_api.h"
#include "readers/reader_states.h"

namespace tez {

/// What becomes of an entry of a call with standard answers, as far as is known by now.
enum class Place {
    Ignored,  ///< the application is not interested
    Counted,  ///< the pseudo-reader: each side is asked about its own
    Local,
    Remote,
    Unclear,  ///< not the host's, and the daemon was not reached
    Awaited,  ///< on neither side, as the application knows: waits until it comes
    Gone,     ///< on neither side, as the application is to be told
};

/// What a side is asked about.
enum class Question { Count, Readers, CountAndReaders };

/// An outcome that has no ATR.
void setEvent(SCARD_READERSTATEA& entry, DWORD event) noexcept;

/// An outcome of which nothing is known: what the application told.
void leaveUntold(SCARD_READERSTATEA& entry) noexcept;

/// One side's part in a call with standard answers: what it was asked last, and what it has told.
class AskedSide {
  public:
    /// @param place  of the side's readers.
    explicit AskedSide(Place place) noexcept : place_(place) {}

    /// Fills in what the side is to be asked; it is told its own count of readers. Throws
    /// std::bad_alloc.
    /// @param places  of the application's entries.
    void ask(std::span<const SCARD_READERSTATEA> entries, const std::vector<Place>& places,
             Question question, SideEntries& toAsk);
    /// The side is not asked this time.
    void leaveOut() noexcept;

    /// Takes note of how the side's half has ended.
    /// @param rv        its code.
    /// @param wasEnded  whether it was ended by others: what it did not tell is not known.
    void take(LONG rv, bool wasEnded) noexcept;

    /// Whether one of its readers has changed.
    bool hasChange() const noexcept;

    /// Stores what it has told of a reader; where that is nothing, what the application told.
    void report(std::size_t index, SCARD_READERSTATEA& entry) const noexcept;

    bool isThere = false;
    std::optional<DWORD> count;        ///< of its readers, by its pseudo-reader; nothing: not known
    std::optional<LONG> failure = {};  ///< why it is left out

    // Of the half that was run last:
    bool isAsked() const noexcept { return isAsked_; }
    bool isCutShort() const noexcept { return isCutShort_; }
    bool goesOn() const noexcept { return isAsked_ && !failure; }

  private:
    const Place place_;
    Question question_ = Question::Readers;
    bool isAsked_ = false;
    bool isCutShort_ = false;
    /// The application's entries and the pseudo-reader behind them; their event states are what the
    /// side has told, 0 for nothing.
    std::vector<SCARD_READERSTATEA> view_;
};

}  // namespace tez
