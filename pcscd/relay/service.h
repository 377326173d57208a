#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

namespace tez::relay {

/// Installs this program as the Windows service `pcsc-relay`, which starts with the machine, with
/// these words behind its name, and starts it. It runs as the virtual account
/// `NT SERVICE\pcsc-relay`, which has no rights but those that files and pipes give it by name.
/// Throws std::system_error.
void installService(const std::vector<std::string>& words);

/// Ends the service and removes it. Throws std::system_error.
void removeService();

/// What the service does until its argument, an event, is set. Returns the program's exit code.
using ServiceBody = std::function<int(HANDLE stop)>;

/// Runs the body as the service that the service manager started this process for. Throws
/// std::system_error when it did not.
void runService(ServiceBody body);

}  // namespace tez::relay
