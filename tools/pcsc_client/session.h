#pragma once

#include <windows.h>
#include <winscard.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "card.h"

namespace tez::client {

/// How many readers the library takes in one wait.
inline constexpr std::size_t kMostWaitEntries = 16;
/// The same where the library gives standard answers.
inline constexpr std::size_t kMostStandardWaitEntries = 64;

/// What lives as long as the program: one PC/SC context, established when it is first needed, and
/// at most one card kept open across commands. All calls throw ScardFailure on PC/SC errors.
class Session {
  public:
    Session() = default;
    /// Closes; results are of no use to anybody then.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    SCARDCONTEXT context();

    /// The names of all readers; an empty list when there are none.
    std::vector<std::string> readers();
    std::vector<std::string> readerGroups();

    /// A reader given by its name, or by its index in the present list. Throws Failure for a number
    /// that is neither; any other text comes back as it is, for PC/SC to judge.
    std::string resolveReader(const std::string& nameOrIndex);

    /// Calls `use` with a connection to the reader's card: with the one kept open if it is that
    /// reader's, otherwise with one made for this call.
    void useCard(const std::string& nameOrIndex, const std::function<void(const Card&)>& use,
                 Access access = Access::kShared);

    /// Opens a card and keeps it open, in place of the one kept before, which stays when that
    /// fails.
    const Card& keepCardOpen(const std::string& nameOrIndex, Access access);
    /// Throws Failure when no card is kept open.
    void disconnectKeptCard();

    /// Disconnects and releases what there is.
    void close();

  private:
    SCARDCONTEXT context_ = 0;
    std::unique_ptr<Card> keptCard_;
};

}  // namespace tez::client
