#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>

#include "card_words.h"
#include "commands/commands.h"
#include "deadline.h"
#include "failure.h"
#include "hex.h"

namespace tez::client {
namespace {

/// Stands for the list of readers itself: its state changes when a reader comes or goes.
constexpr const char* kReaderList = R"(\\?PnP?\Notification)";

constexpr DWORD kLongestStep = 250;  ///< milliseconds between looks at the list of readers

struct WatchOptions {
    std::vector<std::string> readers;
    unsigned changes = 0;
    bool once = false;
    bool waitsForReaders = false;
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
    Watch(Client& client, const std::vector<std::string>& namesOrIndexes)
        : session_(client.session),
          report_(client.report),
          watchesAll_(namesOrIndexes.empty()),
          // With standard answers a wait for nothing runs into its time-out, else it is a success.
          isToldAll_(SCardGetStatusChangeA(session_.context(), 0, nullptr, 0) == SCARD_E_TIMEOUT) {
        for (const std::string& reader : namesOrIndexes) {
            names_.insert(session_.resolveReader(reader));
        }
    }

    /// Tells the states that the readers have now, from which the watch goes on. A named reader
    /// that is not there is a failure unless it is waited for.
    void begin(bool waitsForReaders) {
        addWanted(session_.readers(), false);
        if (watchesAll_) {
            readers_.push_back({kReaderList});
        }
        for (const std::string& name : names_) {
            if (!isWatched(name)) {
                if (!waitsForReaders) {
                    throw Failure("there is no reader " + name + "; --wait waits for it");
                }
                tell(name, "missing", name + ": no such reader");
            }
        }
        awaitMissing();
        wait(0);
    }

    /// How long to wait when there is so much time left. With standard answers a wait ends with the
    /// first change. By default one with a limit tells a change of one side's readers only when its
    /// time is over, and none ends when a reader comes that the user has named: so there are short
    /// ones then, and the list is looked at behind each.
    DWORD step(const Deadline& deadline) const {
        const bool lacksReaders = !watchesAll_ && readers_.size() < names_.size();
        const bool isShort = !isToldAll_ && (deadline.isLimited() || lacksReaders);
        return isShort ? std::min(deadline.remaining(), kLongestStep) : deadline.remaining();
    }

    /// Waits until something changes, at most `timeout` milliseconds, and tells what did.
    /// @return how many changes that were.
    unsigned wait(DWORD timeout) {
        if (readers_.empty()) {
            Sleep(timeout);
            return followList();
        }
        std::vector<SCARD_READERSTATEA> states;
        for (const WatchedReader& reader : readers_) {
            SCARD_READERSTATEA& state = states.emplace_back();
            state.szReader = reader.name.c_str();
            state.dwCurrentState = reader.state;
        }
        const LONG result = SCardGetStatusChangeA(session_.context(), timeout, states.data(),
                                                  static_cast<DWORD>(states.size()));
        const std::size_t most = isToldAll_ ? kMostStandardWaitEntries : kMostWaitEntries;
        if (result == SCARD_E_INVALID_PARAMETER && states.size() > most) {
            throw Failure("a wait takes " + std::to_string(most) + " entries at most, not " +
                          std::to_string(states.size()) +
                          "; when no readers are named, the list of readers is one of them");
        }
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
        // A wait that returns without a change was for a side that has gone.
        if (isOver || listChanged || changes == 0) {
            changes += followList();
        }
        // The next wait may return at once, too: a daemon can list a reader that its waits do not
        // know.
        if (!isOver && changes == 0 && readers_.size() == states.size()) {
            Sleep(std::min(timeout, kLongestStep));
        }
        return changes;
    }

  private:
    /// One line about a reader, or one object with more about it.
    void tell(const std::string& reader, const char* event, const std::string& line,
              const Json& more = Json::object()) const {
        report_.line(line);
        Json json = {{"event", event}, {"reader", reader}};
        json.update(more);
        report_.event(json);
    }

    /// Waits on readers that are not there, where the library can do that.
    void awaitMissing() {
        for (const std::string& name : names_) {
            if (isToldAll_ && !isWatched(name)) {
                readers_.push_back({name, SCARD_STATE_UNKNOWN, true});
            }
        }
    }

    bool isWanted(const std::string& name) const { return watchesAll_ || names_.contains(name); }

    bool isWatched(const std::string& name) const {
        return std::any_of(readers_.begin(), readers_.end(),
                           [&](const WatchedReader& reader) { return reader.name == name; });
    }

    void addWanted(const std::vector<std::string>& present, bool areNew) {
        for (const std::string& name : present) {
            if (isWanted(name) && !isWatched(name)) {
                readers_.push_back({.name = name, .isNew = areNew});
            }
        }
    }

    /// Takes a reader's state as known from now on, and tells it unless it is about which readers
    /// there are: followList tells that.
    bool take(WatchedReader& reader, const SCARD_READERSTATEA& state) const {
        if ((state.dwEventState & SCARD_STATE_UNKNOWN) != 0) {
            // Its state says to ignore it, which must not outlive a reader that is back already.
            reader.state = SCARD_STATE_UNAWARE;
            return false;
        }
        reader.state = state.dwEventState & ~DWORD{SCARD_STATE_CHANGED};
        if (reader.name == kReaderList) {
            return false;
        }
        const std::string words = describeReaderState(state.dwEventState);
        const std::string atr = formatHex({state.rgbAtr, state.cbAtr});
        tell(
            reader.name, reader.isNew ? "new" : "state",
            reader.name + (reader.isNew ? ": new reader, " : ": ") + words +
                (atr.empty() ? "" : ", ATR " + atr),
            {{"state", words}, {"bits", "0x" + formatDigits(state.dwEventState, 8)}, {"atr", atr}});
        reader.isNew = false;
        return true;
    }

    /// Drops the readers that are gone, and adds those that have come: the next wait returns at
    /// once with their states.
    /// @return how many are gone.
    unsigned followList() {
        const std::vector<std::string> present = session_.readers();
        const auto isGone = [&](const WatchedReader& reader) {
            return reader.name != kReaderList && reader.state != SCARD_STATE_UNKNOWN &&
                   std::find(present.begin(), present.end(), reader.name) == present.end();
        };
        for (const WatchedReader& reader : readers_) {
            if (isGone(reader)) {
                tell(reader.name, "removed", reader.name + ": reader removed");
            }
        }
        const auto goneCount = static_cast<unsigned>(std::erase_if(readers_, isGone));
        addWanted(present, true);
        awaitMissing();
        return goneCount;
    }

    Session& session_;
    const Report& report_;
    bool watchesAll_;
    bool isToldAll_;                      ///< of what happens to the readers in the wait, at once
    std::set<std::string> names_;         ///< those that the user wants; empty for all
    std::vector<WatchedReader> readers_;  ///< those of them that there are
};

void runWatch(Client& client, const WatchOptions& options) {
    const Deadline deadline(options.timeout);
    const unsigned wanted = options.wantedChanges();
    Watch watch(client, options.readers);
    watch.begin(options.waitsForReaders);
    client.report.line("watching");
    client.report.event({{"event", "watching"}});
    unsigned changes = 0;
    const auto isDone = [&] { return wanted != 0 && changes >= wanted; };
    while (!isDone() && !deadline.isOver()) {
        changes += watch.wait(watch.step(deadline));
    }
    if (wanted != 0 && !isDone()) {
        throw Failure("the time is over");
    }
}

}  // namespace

void addWatch(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "watch", "Print the readers' states, then a line for each change until told to stop");
    const auto options = std::make_shared<WatchOptions>();
    command->add_option("READER", options->readers,
                        "names or indexes; all readers, those that come included, when not given");
    CLI::Option* const changes = command->add_option(
        "--changes", options->changes, "end after so many changes; fail when there are fewer");
    command->add_flag("--once", options->once, "end after the first change")->excludes(changes);
    command->add_flag("--wait", options->waitsForReaders,
                      "wait for named readers that are not there, instead of failing");
    client.report.addJsonOption(*command);
    addTimeoutOption(*command, options->timeout, "end the watch after so many seconds");
    command->callback([&client, options] { runWatch(client, *options); });
}

}  // namespace tez::client
