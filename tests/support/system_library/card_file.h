#pragma once

#include <string>

#include "pcscd_names.h"
#include "simulated/simulated_service.h"

namespace tez::test {

/// Lets a file say what is in a reader, so that a person or a script can put a card into it and
/// take it out while a program runs: from now on the reader holds a card while there is a file at
/// the path, whatever is in that file. When the call returns the reader is as the file says; after
/// that the file is looked at every 20 ms, on a thread that never ends. The service must never end,
/// either.
void followCardFile(SimulatedService& service, std::string reader, std::string cardHolder,
                    std::string path);

}  // namespace tez::test
