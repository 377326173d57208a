#pragma once

#include <functional>
#include <string>

#include "doctor/finding.h"
#include "session.h"

namespace tez::client {

/// Where the harmless calls tell what they do. They may hang, as the calls of any program may.
struct CallObserver {
    std::function<void(const std::string& step)> begins;
    std::function<void(const Finding& finding)> finds;
};

/// One harmless call of each family through the library, the host's library that it loads with the
/// first, and the readers with their sides and cards. Nothing is sent to a card.
void checkCalls(Session& session, const CallObserver& observer);

}  // namespace tez::client
