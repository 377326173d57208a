#pragma once

#include <CLI/CLI.hpp>

#include "session.h"

namespace tez::client {

// Each adds one subcommand. When a line that names it is parsed the command runs, prints what it
// did, and throws Failure (or ScardFailure) when it did not do all of it. The session must outlive
// the app.
void addReaders(CLI::App& app, Session& session);
void addStatus(CLI::App& app, Session& session);
void addApdu(CLI::App& app, Session& session);
void addSelect(CLI::App& app, Session& session);
void addRead(CLI::App& app, Session& session);
void addVerify(CLI::App& app, Session& session);
void addControl(CLI::App& app, Session& session);
void addAttributes(CLI::App& app, Session& session);
void addWatch(CLI::App& app, Session& session);
void addStarted(CLI::App& app, Session& session);
void addCards(CLI::App& app, Session& session);
void addIntroduce(CLI::App& app, Session& session);
void addForget(CLI::App& app, Session& session);
void addProvider(CLI::App& app, Session& session);
void addCache(CLI::App& app, Session& session);
void addIcon(CLI::App& app, Session& session);
void addConnect(CLI::App& app, Session& session);
void addDisconnect(CLI::App& app, Session& session);
void addShell(CLI::App& app, Session& session);

using AddCommand = void (*)(CLI::App&, Session&);

/// What can be said on the command line and in the shell.
inline constexpr AddCommand kCommands[] = {addReaders, addStatus,   addApdu,    addSelect,
                                           addRead,    addVerify,   addControl, addAttributes,
                                           addWatch,   addStarted,  addCards,   addIntroduce,
                                           addForget,  addProvider, addCache,   addIcon};

/// What makes sense in the shell only, where a card stays open from line to line.
inline constexpr AddCommand kShellCommands[] = {addConnect, addDisconnect};

/// The mandatory positional option READER.
inline CLI::Option* addReaderOption(CLI::App& command, std::string& reader) {
    return command.add_option("READER", reader, "name of the reader, or its index in the list")
        ->required();
}

/// The mandatory positional option CARD of the card database's commands.
inline CLI::Option* addCardTypeOption(CLI::App& command, std::string& card) {
    return command.add_option("CARD", card, "name of the card type")->required();
}

}  // namespace tez::client
