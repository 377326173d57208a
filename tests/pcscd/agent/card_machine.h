#pragma once

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "child.h"

namespace tez::agent {

inline constexpr const char* kFirstReader = "Virtual PCD 00 00";
inline constexpr const char* kSecondReader = "Virtual PCD 00 01";

/// The machine that the cards are on: a PC/SC service with two virtual readers, cards for them, and
/// the agent program, all as processes of their own with their files in a fresh folder.
class CardMachine {
  public:
    /// Starts the service, with a card in the first reader, and waits until it is seen.
    CardMachine();
    ~CardMachine();
    CardMachine(const CardMachine&) = delete;
    CardMachine& operator=(const CardMachine&) = delete;

    void startService();
    void stopService();
    void insertCard(std::vector<std::string> options = {});
    void removeCard();

    /// Starts the agent and waits until it listens on socket().
    void startAgent(std::vector<std::string> options = {});
    /// Lets the agent end, whether it can or not.
    void askAgentToEnd() { agent_->send(SIGTERM); }
    /// @return its exit code; -1 when it has ended by the signal.
    int stopAgent();

    std::filesystem::path socket() const { return folder_ / "agent.sock"; }
    std::filesystem::path token() const { return folder_ / "token"; }
    std::filesystem::path folder() const { return folder_; }
    /// What the agent has written so far.
    std::string agentLog() const;

  private:
    std::filesystem::path folder_;
    std::optional<Child> service_;
    std::optional<Child> card_;
    std::optional<Child> agent_;
};

/// Makes an empty folder under a name of its own. Throws std::runtime_error. The caller removes it.
std::filesystem::path freshFolder();

/// The folder of the built programs, where this one is too.
std::filesystem::path programFolder();

}  // namespace tez::agent
