#pragma once

#include "core/card_service.h"
#include "core/clients.h"
#include "core/traffic.h"

namespace tez::pcscd {

/// The daemon's behaviour: decodes a request's record, asks the service, encodes the answer.
/// `clients` learns of the contexts that the process gets and gives back. Any number of threads may
/// do this at once.
///
/// A request that is incomplete, malformed (its size is not what the record and its data phase
/// make, or a name has no end) or of an unknown command closes the pipe: nobody can tell what the
/// client waits for.
Reply answerRequest(CardService& service, Clients& clients, Clients::Process process,
                    const Request& request);

}  // namespace tez::pcscd
