#include "relay/access_list.h"

#include <sddl.h>

#include "pipe/system_failure.h"
#include "relay/security_identifier.h"

namespace tez::relay {
namespace {

std::string allow(const char* rights, const SecurityIdentifier& who) {
    return std::string("(A;;") + rights + ";;;" + who + ")";
}

}  // namespace

// Protected: nothing is inherited.
AccessList::AccessList(const std::vector<std::string>& users)
    : text_("D:P" + allow("GA", currentUser())) {
    for (const std::string& user : users) {
        // What the library asks for. The right to write is also the one to make further instances
        // of a pipe: those who are admitted must be trusted with each other's cards.
        text_ += allow("GRGW", identifierOf(user));
    }
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorA(text_.c_str(), SDDL_REVISION_1,
                                                             &descriptor, nullptr) == FALSE) {
        throw pcscd::systemFailure("no access list for the pipe");
    }
    descriptor_.reset(descriptor);
    attributes_ = {sizeof attributes_, descriptor, FALSE};
}

}  // namespace tez::relay
