#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "card_words.h"
#include "commands/commands.h"
#include "deadline.h"
#include "failure.h"
#include "hex.h"
#include "output.h"

namespace tez::client {
namespace {

/// Stands for the list of readers itself: its state changes when a reader comes or goes.
constexpr const char* kReaderList = R"(\\?PnP?\Notification)";

struct WatchOptions {
    std::vector<std::string> readers;
    unsigned changes = 0;
    bool once = false;
    std::optional<unsigned> timeout;

    /// 0: no limit.
    unsigned wantedChanges() const { return once ? 1 : changes; }
};

struct WatchedReader {
    std::string name;
    DWORD state = SCARD_STATE_UNAWARE;  ///< as last seen
    bool isNew = false;                 ///< came while the others were watched
};

/// The readers under watch, all of those that there are or some that the user has named.
class Watch {
  public:
    Watch(Session& session, const std::vector<std::string>& namesOrIndexes)
        : session_(session), watchesAll_(namesOrIndexes.empty()) {
        for (const std::string& reader : namesOrIndexes) {
            readers_.push_back({session.resolveReader(reader)});
        }
        if (watchesAll_) {
            for (const std::string& name : session.readers()) {
                readers_.push_back({name});
            }
            readers_.push_back({kReaderList});
        }
    }

    /// Waits until something changes, at most `timeout` milliseconds, and prints what did.
    /// @return how many changes that were.
    unsigned wait(DWORD timeout) {
        std::vector<SCARD_READERSTATEA> states;
        for (const WatchedReader& reader : readers_) {
            SCARD_READERSTATEA& state = states.emplace_back();
            state.szReader = reader.name.c_str();
            state.dwCurrentState = reader.state;
        }
        const LONG result = SCardGetStatusChangeA(session_.context(), timeout, states.data(),
                                                  static_cast<DWORD>(states.size()));
        // Also what a wait without limit gives when a side of PC/SC comes or goes meanwhile.
        const bool isOver = result == SCARD_E_TIMEOUT || result == SCARD_E_NO_SERVICE;
        if (!isOver) {
            check("SCardGetStatusChange", result);
        }
        unsigned changes = 0;
        bool listChanged = false;
        for (std::size_t index = 0; index < states.size(); ++index) {
            if ((states[index].dwEventState & SCARD_STATE_CHANGED) != 0) {
                const bool isPrinted = take(readers_[index], states[index]);
                changes += isPrinted ? 1 : 0;
                listChanged = listChanged || !isPrinted;
            }
        }
        return isOver || listChanged ? changes + followList() : changes;
    }

  private:
    /// Takes a reader's state as known from now on, and prints it unless it is about which readers
    /// there are: followList tells that.
    bool take(WatchedReader& reader, const SCARD_READERSTATEA& state) const {
        reader.state = state.dwEventState & ~DWORD{SCARD_STATE_CHANGED};
        const bool isGone = (state.dwEventState & SCARD_STATE_UNKNOWN) != 0;
        if (reader.name == kReaderList || (watchesAll_ && isGone)) {
            return false;
        }
        std::string line = reader.name + (reader.isNew ? ": new reader, " : ": ") +
                           describeReaderState(state.dwEventState);
        if (state.cbAtr > 0) {
            line += ", ATR " + formatHex({state.rgbAtr, state.cbAtr});
        }
        reader.isNew = false;
        printLine(line);
        return true;
    }

    /// Drops the readers that are gone, and adds those that have come: the next wait returns at
    /// once with their states.
    /// @return how many are gone.
    unsigned followList() {
        const std::vector<std::string> present = session_.readers();
        if (!watchesAll_) {
            return 0;
        }
        const auto isGone = [&](const WatchedReader& reader) {
            return reader.name != kReaderList &&
                   std::find(present.begin(), present.end(), reader.name) == present.end();
        };
        for (const WatchedReader& reader : readers_) {
            if (isGone(reader)) {
                printLine(reader.name + ": reader removed");
            }
        }
        const auto goneCount = static_cast<unsigned>(std::erase_if(readers_, isGone));
        for (const std::string& name : present) {
            const bool isKnown =
                std::any_of(readers_.begin(), readers_.end(),
                            [&](const WatchedReader& reader) { return reader.name == name; });
            if (!isKnown) {
                readers_.push_back({.name = name, .isNew = true});
            }
        }
        return goneCount;
    }

    Session& session_;
    bool watchesAll_;
    std::vector<WatchedReader> readers_;
};

void runWatch(Session& session, const WatchOptions& options) {
    // A wait with a limit tells a change of one side's readers only when its time is over; a watch
    // with a limit is made of short ones.
    constexpr DWORD kLongestStep = 250;
    const Deadline deadline(options.timeout);
    const unsigned wanted = options.wantedChanges();
    Watch watch(session, options.readers);
    watch.wait(0);
    printLine("watching");
    unsigned changes = 0;
    const auto isDone = [&] { return wanted != 0 && changes >= wanted; };
    while (!isDone() && !deadline.isOver()) {
        changes += watch.wait(deadline.isLimited() ? std::min(deadline.remaining(), kLongestStep)
                                                   : INFINITE);
    }
    if (wanted != 0 && !isDone()) {
        throw Failure("the time is over");
    }
}

}  // namespace

void addWatch(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand(
        "watch", "Print the readers' states, then a line for each change until told to stop");
    const auto options = std::make_shared<WatchOptions>();
    command->add_option("READER", options->readers,
                        "names or indexes; all readers, those that come included, when not given");
    CLI::Option* const changes = command->add_option(
        "--changes", options->changes, "end after so many changes; fail when there are fewer");
    command->add_flag("--once", options->once, "end after the first change")->excludes(changes);
    addTimeoutOption(*command, options->timeout, "end the watch after so many seconds");
    command->callback([&session, options] { runWatch(session, *options); });
}

}  // namespace tez::client
