#pragma once

#include <windows.h>

#include <string>

namespace tez::relay {

/// A user or group as Windows identifies it, in the text form (`S-1-5-...`).
using SecurityIdentifier = std::string;

inline constexpr const char* kLocalSystem = "S-1-5-18";
inline constexpr const char* kAdministrators = "S-1-5-32-544";

SecurityIdentifier toText(PSID identifier);

/// What a person calls the user or group, in UTF-8; the text form when it has no name.
std::string nameOf(PSID identifier);

/// Of the user that this process runs as. Throws std::system_error.
SecurityIdentifier currentUser();

/// Of a user or group by its name in UTF-8. Throws std::runtime_error when Windows does not know
/// it.
SecurityIdentifier identifierOf(const std::string& name);

}  // namespace tez::relay
