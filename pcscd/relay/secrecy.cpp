#include "relay/secrecy.h"

#include "pipe/system_failure.h"
#include "relay/security_identifier.h"

namespace tez::relay {
namespace {

/// Rights that give a secret away, or let somebody put another one in its place.
constexpr DWORD kHarmfulRights = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | WRITE_DAC |
                                 WRITE_OWNER | GENERIC_READ | GENERIC_WRITE | GENERIC_ALL;

bool isTrusted(PSID who) {
    const SecurityIdentifier identifier = toText(who);
    return identifier == kLocalSystem || identifier == kAdministrators ||
           identifier == currentUser();
}

std::optional<std::string> strangerInEntry(void* entry) {
    const auto* const header = static_cast<const ACE_HEADER*>(entry);
    if (header->AceType == ACCESS_DENIED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) {
        return std::nullopt;
    }
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) {
        return "whoever an entry with conditions admits";
    }
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    if ((allowed->Mask & kHarmfulRights) == 0 || isTrusted(&allowed->SidStart)) {
        return std::nullopt;
    }
    return nameOf(&allowed->SidStart);
}

/// An access list that is not there admits everybody.
PACL accessListOf(PSECURITY_DESCRIPTOR descriptor) {
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL list = nullptr;
    if (GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted) == FALSE) {
        throw pcscd::systemFailure("cannot read an access list");
    }
    return present != FALSE ? list : nullptr;
}

}  // namespace

std::optional<std::string> strangerIn(PSECURITY_DESCRIPTOR descriptor) {
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    if (GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) == FALSE || owner == nullptr) {
        throw pcscd::systemFailure("cannot tell an owner");
    }
    if (!isTrusted(owner)) {
        return nameOf(owner);
    }
    const PACL list = accessListOf(descriptor);
    if (list == nullptr) {
        return "everybody";
    }
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* entry = nullptr;
        if (GetAce(list, index, &entry) == FALSE) {
            throw pcscd::systemFailure("cannot read an access list");
        }
        if (std::optional<std::string> stranger = strangerInEntry(entry)) {
            return stranger;
        }
    }
    return std::nullopt;
}

}  // namespace tez::relay
