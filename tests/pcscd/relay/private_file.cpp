#include "private_file.h"

#include <windows.h>

#include <fstream>
#include <sddl.h>
#include <stdexcept>

#include "relay/security_identifier.h"

namespace tez::test {

void writePrivateFile(const std::string& path, const std::string& text,
                      const std::string& otherEntries) {
    std::ofstream(path, std::ios::binary) << text;
    const std::string access = "D:P(A;;FA;;;" + relay::currentUser() + ")" + otherEntries;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const bool done =
        ConvertStringSecurityDescriptorToSecurityDescriptorA(access.c_str(), SDDL_REVISION_1,
                                                             &descriptor, nullptr) != FALSE &&
        SetFileSecurityA(path.c_str(), DACL_SECURITY_INFORMATION, descriptor) != FALSE;
    LocalFree(descriptor);
    if (!done) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace tez::test
