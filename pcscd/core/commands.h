#pragma once

#include <optional>

#include "core/traffic.h"
#include "simulated/simulated_service.h"

namespace tez::test {

/// The daemon's ordinary behaviour: decodes a request record, asks the service, encodes the answer.
/// Holds no state of its own, so any number of threads may use it at once.
class DaemonCommands {
  public:
    explicit DaemonCommands(SimulatedService& service) : service_(service) {}

    /// The answer to a request; a request that is incomplete, malformed (its size is not what the
    /// record and its data phase make, or a reader name has no end) or of an unknown command closes
    /// the pipe.
    Reply answer(const Request& request) const;

  private:
    SimulatedService& service_;
};

}  // namespace tez::test
