#include "relay/security_identifier.h"

#include <array>
#include <sddl.h>
#include <stdexcept>

#include "pipe/system_failure.h"
#include "pipe/unique_handle.h"
#include "utf8.h"

namespace tez::relay {
namespace {

/// As large as an identifier can be, with what stands around it.
struct alignas(TOKEN_USER) IdentifierBuffer
    : std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> {};

using NameBuffer = std::array<wchar_t, 256>;

}  // namespace

SecurityIdentifier toText(PSID identifier) {
    char* text = nullptr;
    if (ConvertSidToStringSidA(identifier, &text) == FALSE) {
        throw pcscd::systemFailure("not a security identifier");
    }
    SecurityIdentifier copy(text);
    LocalFree(text);
    return copy;
}

std::string nameOf(PSID identifier) {
    NameBuffer name = {};
    NameBuffer domain = {};
    auto nameSize = static_cast<DWORD>(name.size());
    auto domainSize = static_cast<DWORD>(domain.size());
    SID_NAME_USE use = {};
    if (LookupAccountSidW(nullptr, identifier, name.data(), &nameSize, domain.data(), &domainSize,
                          &use) == FALSE) {
        return toText(identifier);
    }
    const std::string prefix = domainSize > 0 ? tools::toUtf8(domain.data()) + "\\" : "";
    return prefix + tools::toUtf8(name.data());
}

SecurityIdentifier currentUser() {
    HANDLE handle = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &handle) == FALSE) {
        throw pcscd::systemFailure("cannot tell the user that runs this program");
    }
    const pcscd::UniqueHandle token(handle);
    IdentifierBuffer buffer = {};
    DWORD size = 0;
    if (GetTokenInformation(token.get(), TokenUser, buffer.data(), sizeof buffer, &size) == FALSE) {
        throw pcscd::systemFailure("cannot tell the user that runs this program");
    }
    return toText(reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid);
}

SecurityIdentifier identifierOf(const std::string& name) {
    IdentifierBuffer buffer = {};
    auto size = static_cast<DWORD>(sizeof buffer);
    NameBuffer domain = {};
    auto domainSize = static_cast<DWORD>(domain.size());
    SID_NAME_USE use = {};
    const std::wstring wideName = tools::toPath(name).wstring();
    if (LookupAccountNameW(nullptr, wideName.c_str(), buffer.data(), &size, domain.data(),
                           &domainSize, &use) == FALSE) {
        throw std::runtime_error("no user or group of this name: " + name);
    }
    return toText(buffer.data());
}

}  // namespace tez::relay
