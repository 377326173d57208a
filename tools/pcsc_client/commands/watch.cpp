#include <memory>
#include <string_view>
#include <utility>

#include "card_words.h"
#include "commands/commands.h"
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
    std::uint32_t timeout = INFINITE;
};

/// The readers' states as last seen, and names that live as long as these.
class WatchedReaders {
  public:
    explicit WatchedReaders(std::vector<std::string> names) : names_(std::move(names)) {
        for (const std::string& name : names_) {
            SCARD_READERSTATEA state = {};
            state.szReader = name.c_str();
            states_.push_back(state);
        }
    }

    /// Waits for changes, prints them, and takes the new states as known from now on.
    /// @return how many readers changed, the list of readers counting as one.
    unsigned wait(SCARDCONTEXT context, DWORD timeout) {
        check("SCardGetStatusChange", SCardGetStatusChangeA(context, timeout, states_.data(),
                                                            static_cast<DWORD>(states_.size())));
        unsigned changes = 0;
        listChanged_ = false;
        for (SCARD_READERSTATEA& state : states_) {
            if ((state.dwEventState & SCARD_STATE_CHANGED) != 0) {
                ++changes;
                listChanged_ = listChanged_ || isList(state);
                print(state);
            }
            state.dwCurrentState = state.dwEventState & ~static_cast<DWORD>(SCARD_STATE_CHANGED);
        }
        return changes;
    }

    /// Whether the last wait saw readers come or go.
    bool listChanged() const { return listChanged_; }

  private:
    static bool isList(const SCARD_READERSTATEA& state) {
        return std::string_view(state.szReader) == kReaderList;
    }

    static void print(const SCARD_READERSTATEA& state) {
        printLine(isList(state) ? "list of readers" : state.szReader);
        printField("state", isList(state) ? "changed" : describeReaderState(state.dwEventState));
        if (state.cbAtr > 0) {
            printField("ATR", formatHex({state.rgbAtr, state.cbAtr}));
        }
    }

    std::vector<std::string> names_;
    std::vector<SCARD_READERSTATEA> states_;
    bool listChanged_ = false;
};

std::vector<std::string> namesToWatch(Session& session, const WatchOptions& options) {
    std::vector<std::string> names;
    for (const std::string& reader : options.readers) {
        names.push_back(session.resolveReader(reader));
    }
    if (names.empty()) {
        names = session.readers();
        names.emplace_back(kReaderList);
    }
    return names;
}

}  // namespace

void addWatch(CLI::App& app, Session& session) {
    CLI::App* const command = app.add_subcommand(
        "watch", "Print the readers' states, then each change until told to stop");
    const auto options = std::make_shared<WatchOptions>();
    command->add_option("READER", options->readers,
                        "names or indexes; all readers and their list when not given");
    command->add_option("--changes", options->changes, "stop after so many changes");
    command->add_option(
        "--timeout", options->timeout,
        "fail when nothing changes for so many milliseconds; with a limit, a change of one "
        "side's readers may be told only when the time is over");
    command->callback([&session, options] {
        unsigned changes = 0;
        const auto isOver = [&] { return options->changes != 0 && changes >= options->changes; };
        do {
            WatchedReaders readers(namesToWatch(session, *options));
            readers.wait(session.context(), 0);
            printLine("watching");
            do {
                changes += readers.wait(session.context(), options->timeout);
            } while (!isOver() && !readers.listChanged());
        } while (!isOver());
    });
}

}  // namespace tez::client
