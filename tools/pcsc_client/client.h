#pragma once

#include "report.h"
#include "session.h"

namespace tez::client {

/// What the commands work with.
struct Client {
    Session session;
    Report report;
};

}  // namespace tez::client
