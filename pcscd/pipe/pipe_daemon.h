#pragma once

#include <cstdint>
#include <utility>

#include "core/daemon.h"
#include "pipe/pipe_listener.h"

namespace tez::pcscd {

/// A daemon on a named pipe of this machine. Every member may be called from any thread; start and
/// stop from one at a time. A class derived from this one must stop in its destructor, as its hooks
/// are called until then.
class PipeDaemon : public Daemon {
  public:
    /// Does not serve yet. The service is borrowed.
    PipeDaemon(CardService& service, ProtocolVersion version, PipeServer::Settings pipe)
        : Daemon(service, version), listener_(std::move(pipe), [this](PipeConnection& connection) {
              serve(connection, connection.number(), connection.process());
          }) {}
    ~PipeDaemon() override { stop(); }
    PipeDaemon(const PipeDaemon&) = delete;
    PipeDaemon& operator=(const PipeDaemon&) = delete;

    /// Serves the pipe: when it returns a client can connect. Throws std::system_error when the
    /// pipe cannot be made, for instance because another program serves it. Nothing while serving.
    void start() { listener_.start(); }

    /// Closes every pipe at once, ends all waits, releases every context of the service and joins
    /// all threads. Nothing when not serving.
    void stop() {
        listener_.close();
        releaseAll();
        listener_.join();
        // A request that was being served meanwhile may have made another context.
        releaseAll();
    }

    bool serving() const { return listener_.serving(); }

  protected:
    PipeListener& listener() { return listener_; }
    const PipeListener& listener() const { return listener_; }

    void closed(std::uint64_t connection) override { listener_.forget(connection); }

  private:
    PipeListener listener_;
};

}  // namespace tez::pcscd
