#include "relay/token_file.h"

#include <windows.h>

#include <aclapi.h>
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>

#include "pipe/unique_handle.h"
#include "relay/security_identifier.h"
#include "relay/system_failure.h"
#include "utf8.h"

namespace tez::relay {
namespace {

/// Larger than any text of a token.
constexpr std::size_t kLargestFile = 4096;

/// Rights that give the secret away, or let somebody put another one in its place.
constexpr DWORD kHarmfulRights = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | WRITE_DAC |
                                 WRITE_OWNER | GENERIC_READ | GENERIC_WRITE | GENERIC_ALL;

struct FreeLocal {
    void operator()(void* memory) const { LocalFree(memory); }
};

bool isTrusted(const SecurityIdentifier& who) {
    return who == kLocalSystem || who == kAdministrators || who == currentUser();
}

/// Whom an entry gives harmful rights that should not have them; nothing when it gives none.
std::optional<SecurityIdentifier> strangerIn(void* entry) {
    const auto* const header = static_cast<const ACE_HEADER*>(entry);
    if (header->AceType == ACCESS_DENIED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) {
        return std::nullopt;
    }
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) {
        return "an entry with conditions in its access list";
    }
    auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    const SecurityIdentifier who = toText(&allowed->SidStart);
    return (allowed->Mask & kHarmfulRights) == 0 || isTrusted(who) ? std::nullopt
                                                                   : std::optional(who);
}

/// Somebody who can read or replace the file and should not; nothing when there is no such one.
std::optional<SecurityIdentifier> strangerAt(HANDLE file) {
    PSID owner = nullptr;
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetSecurityInfo(file, SE_FILE_OBJECT,
                                        OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                        &owner, nullptr, &list, nullptr, &descriptor);
    if (error != ERROR_SUCCESS) {
        throw systemFailure("cannot tell who can read the token", error);
    }
    const std::unique_ptr<void, FreeLocal> keeper(descriptor);
    if (!isTrusted(toText(owner))) {
        return toText(owner);
    }
    if (list == nullptr) {
        return "everyone";
    }
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* entry = nullptr;
        if (GetAce(list, index, &entry) == FALSE) {
            throw systemFailure("cannot tell who can read the token");
        }
        if (std::optional<SecurityIdentifier> stranger = strangerIn(entry)) {
            return stranger;
        }
    }
    return std::nullopt;
}

}  // namespace

link::Token readTokenFile(const std::string& utf8Path) {
    const test::UniqueHandle file(CreateFileW(tools::toPath(utf8Path).c_str(), GENERIC_READ,
                                              FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file) {
        throw systemFailure("cannot read the token " + utf8Path);
    }
    if (const std::optional<SecurityIdentifier> stranger = strangerAt(file.get())) {
        throw std::runtime_error("the token " + utf8Path + " is no secret: " + *stranger +
                                 " has access to it");
    }
    std::array<char, kLargestFile> text = {};
    DWORD size = 0;
    if (ReadFile(file.get(), text.data(), kLargestFile, &size, nullptr) == FALSE) {
        throw systemFailure("cannot read the token " + utf8Path);
    }
    const std::optional<link::Token> token = link::parseToken({text.data(), size});
    if (!token) {
        throw std::runtime_error(utf8Path + " is not a token that pcsc-agent --make-token wrote");
    }
    return *token;
}

}  // namespace tez::relay
