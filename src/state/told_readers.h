#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/scard_api.h"

namespace tez {

/// How many readers each side has, by what its pseudo-reader says.
struct ReaderCounts {
    DWORD local = 0;
    DWORD remote = 0;

    DWORD sum() const noexcept { return local + remote; }
};

/// What an application was told last, under one of its contexts, about which readers there are.
struct ToldReaders {
    /// By a reader list: the names in alphabetical order.
    std::optional<std::vector<std::string>> names;
    /// The reader groups that this list was asked for, a multi-string; empty: for all readers.
    std::string groups;
    /// By the pseudo-reader.
    std::optional<ReaderCounts> counts;
};

// Kept so that a pseudo-reader without a count of its own misses nothing that happens between two
// calls and tells nothing twice. Any thread may call; each operation holds the table's lock.

/// The last of the two ways of telling; neither when the application was told nothing yet.
/// Throws std::bad_alloc.
ToldReaders getToldReaders(SCARDCONTEXT context);

/// Notes what an application is about to be told. Throws std::bad_alloc.
void noteToldReaders(SCARDCONTEXT context, ToldReaders told);

/// The context is released.
void forgetToldReaders(SCARDCONTEXT context) noexcept;

}  // namespace tez
