#pragma once

#include <istream>
#include <string>

#include "pipe/pipe_daemon.h"
#include "simulated/simulated_service.h"

namespace tez::sim {

/// Writes one line to standard output and flushes it; lines of several threads do not mix.
void printLine(const std::string& line);

/// The commands that drive the simulator while it runs. Used from one thread.
class Console {
  public:
    /// Both are borrowed.
    Console(pcscd::SimulatedService& service, pcscd::PipeDaemon& daemon)
        : service_(service), daemon_(daemon) {}

    /// Runs the commands of a stream until it ends or one says "quit"; a command that fails prints
    /// why and the next one is run.
    void run(std::istream& commands);

    bool quitting() const { return quitting_; }
    bool anyFailed() const { return anyFailed_; }

  private:
    struct Entry;
    static const Entry kEntries[];

    void execute(const std::string& line);
    static std::string usageOf(const Entry& entry);
    static void help();
    void listReaders() const;
    void report(bool done, const std::string& success, const std::string& failure);
    void insert(const std::string& reader);
    void remove(const std::string& reader);
    void add(const std::string& reader);
    void removeReader(const std::string& reader);
    void serve();
    void stopServing();
    void setVersion(const std::string& text);

    pcscd::SimulatedService& service_;
    pcscd::PipeDaemon& daemon_;
    bool quitting_ = false;
    bool anyFailed_ = false;
};

}  // namespace tez::sim
