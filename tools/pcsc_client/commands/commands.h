#pragma once

#include <CLI/CLI.hpp>

#include "client.h"

namespace tez::client {

// Each adds one subcommand. When a line that names it is parsed the command runs, prints what it
// did, and throws Failure (or ScardFailure) when it did not do all of it. The client must outlive
// the app.
void addReaders(CLI::App& app, Client& client);
void addStatus(CLI::App& app, Client& client);
void addApdu(CLI::App& app, Client& client);
void addSelect(CLI::App& app, Client& client);
void addRead(CLI::App& app, Client& client);
void addVerify(CLI::App& app, Client& client);
void addControl(CLI::App& app, Client& client);
void addAttributes(CLI::App& app, Client& client);
void addWatch(CLI::App& app, Client& client);
void addStarted(CLI::App& app, Client& client);
void addCards(CLI::App& app, Client& client);
void addIntroduce(CLI::App& app, Client& client);
void addForget(CLI::App& app, Client& client);
void addProvider(CLI::App& app, Client& client);
void addCache(CLI::App& app, Client& client);
void addIcon(CLI::App& app, Client& client);
void addDoctor(CLI::App& app, Client& client);
void addExplain(CLI::App& app, Client& client);
void addLog(CLI::App& app, Client& client);
void addConnect(CLI::App& app, Client& client);
void addDisconnect(CLI::App& app, Client& client);
void addShell(CLI::App& app, Client& client);

using AddCommand = void (*)(CLI::App&, Client&);

/// What can be said on the command line and in the shell.
inline constexpr AddCommand kCommands[] = {
    addReaders,    addStatus, addApdu,    addSelect, addRead,      addVerify, addControl,
    addAttributes, addWatch,  addStarted, addCards,  addIntroduce, addForget, addProvider,
    addCache,      addIcon,   addExplain, addDoctor, addLog};

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
