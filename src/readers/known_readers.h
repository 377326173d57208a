#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/scard_api.h"
#include "state/told_readers.h"

namespace tez {

/// What an application knows of its readers when it asks the pseudo-reader, and so whether that has
/// news. A count of its own, in the upper half of the entry's state, is what it knows; without one
/// it is what its context was told last, by a list or by the pseudo-reader.
class KnownReaders {
  public:
    /// Throws std::bad_alloc.
    explicit KnownReaders(SCARDCONTEXT context) : told_(getToldReaders(context)) {}

    /// By side, as far as the context was told them.
    const std::optional<ReaderCounts>& counts() const noexcept { return told_.counts; }

    /// Whether the context was told names that have not been compared with those of now.
    bool areNamesToBeCompared() const noexcept { return told_.names && !told_.counts; }
    /// The groups that these names were asked for.
    const std::string& groups() const noexcept { return told_.groups; }
    /// Compares them. They stand for counts from here on where they are the same.
    /// @param counts  from before the names were listed.
    void compareNames(std::vector<std::string> names, const ReaderCounts& counts);

    /// Whether this is the first that the application hears of its readers.
    bool isFirst(DWORD state) const noexcept {
        return state >> 16 == 0 && !told_.counts && !told_.names;
    }
    /// Whether readers came or went since the application was told of them.
    /// @param state  that it gives for the pseudo-reader.
    /// @param count  of the readers there are now.
    bool isNews(DWORD state, DWORD count) const noexcept;

  private:
    ToldReaders told_;
    bool hasNewNames_ = false;
};

/// Notes what an application is about to be told under a context, unless that is gone meanwhile.
/// Throws std::bad_alloc.
void tellReaders(SCARDCONTEXT context, ToldReaders told);

}  // namespace tez
