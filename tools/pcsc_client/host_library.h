#pragma once

#include <windows.h>
#include <winscard.h>

#include <optional>
#include <string>
#include <vector>

namespace tez::client {

/// The library that this program's PC/SC calls go to.
HMODULE usedLibrary();

/// The host's own library: the other module named winscard.dll that the used one has loaded, which
/// tells better than any path where it came from. The used library itself when it is the host's
/// own; null when no host library is loaded, or none yet: that happens with the first context.
HMODULE hostLibrary();

/// The file that a module was loaded from.
std::wstring modulePath(HMODULE module);

/// Whether the module says of itself that it is the library for remote and local readers, and not
/// the system's own.
bool servesRemoteReaders(HMODULE module);

/// "1.2.3.4" from a module's version resource; empty when it has none.
std::string moduleVersion(HMODULE module);

struct HostReaders {
    LONG result = SCARD_F_INTERNAL_ERROR;  ///< of the call that failed
    std::vector<std::string> names;
};

/// The host's readers as its own library tells them, past the one in use. nullopt when there is no
/// host library, or not with the entry points for that.
std::optional<HostReaders> listHostReaders();

}  // namespace tez::client
