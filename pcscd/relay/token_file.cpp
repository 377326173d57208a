#include "relay/token_file.h"

#include <windows.h>

#include <aclapi.h>
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>

#include "pipe/system_failure.h"
#include "pipe/unique_handle.h"
#include "relay/secrecy.h"
#include "utf8.h"

namespace tez::relay {
namespace {

/// Larger than any text of a token.
constexpr std::size_t kLargestFile = 4096;

struct FreeLocal {
    void operator()(void* memory) const { LocalFree(memory); }
};

/// Nothing when nobody has access who should not.
std::optional<std::string> strangerAt(HANDLE file) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetSecurityInfo(file, SE_FILE_OBJECT,
                                        OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                        nullptr, nullptr, nullptr, nullptr, &descriptor);
    if (error != ERROR_SUCCESS) {
        throw pcscd::systemFailure("cannot tell who can read the token", error);
    }
    const std::unique_ptr<void, FreeLocal> keeper(descriptor);
    return strangerIn(descriptor);
}

}  // namespace

link::Token readTokenFile(const std::string& utf8Path) {
    const pcscd::UniqueHandle file(CreateFileW(tools::toPath(utf8Path).c_str(), GENERIC_READ,
                                               FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                               nullptr));
    if (!file) {
        throw pcscd::systemFailure("cannot read the token " + utf8Path);
    }
    if (const std::optional<std::string> stranger = strangerAt(file.get())) {
        throw std::runtime_error("the token " + utf8Path + " is no secret: " + *stranger +
                                 " has access to it");
    }
    std::array<char, kLargestFile> text = {};
    DWORD size = 0;
    if (ReadFile(file.get(), text.data(), kLargestFile, &size, nullptr) == FALSE) {
        throw pcscd::systemFailure("cannot read the token " + utf8Path);
    }
    const std::optional<link::Token> token = link::parseToken({text.data(), size});
    if (!token) {
        throw std::runtime_error(utf8Path + " is not a token that pcsc-agent --make-token wrote");
    }
    return *token;
}

}  // namespace tez::relay
