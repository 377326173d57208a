#pragma once

#include "doctor/finding.h"

namespace tez::client {

/// Which winscard.dll this program uses. Makes no PC/SC call.
Finding checkUsedLibrary();

/// Which library serves the host's side, and which readers it has. To be called with a context.
Findings checkHostLibrary();

}  // namespace tez::client
