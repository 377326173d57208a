#include "relay/access_list.h"

#include <windows.h>
#include <winsock2.h>

#include <aclapi.h>
#include <sddl.h>
#include <stdexcept>

#include "relay/security_identifier.h"
#include "relay_fixture.h"

using namespace tez;
using relay::AccessList;
using test::RelayTest;
using testing::HasSubstr;
using testing::Not;

namespace {

class RelayAccess : public RelayTest {};

std::string accessTo(HANDLE handle) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_EQ(GetSecurityInfo(handle, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                              nullptr, nullptr, &descriptor),
              DWORD{ERROR_SUCCESS});
    char* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorA(descriptor, SDDL_REVISION_1,
                                                         DACL_SECURITY_INFORMATION, &text, nullptr);
    std::string copy = text != nullptr ? text : "";
    LocalFree(text);
    LocalFree(descriptor);
    return copy;
}

}  // namespace

TEST(AccessList, AdmitsTheUserThatRunsTheRelayAndNobodyElse) {
    const AccessList list({});
    EXPECT_EQ(list.text(), "D:P(A;;GA;;;" + relay::currentUser() + ")");
}

TEST(AccessList, AdmitsOthersByName) {
    const AccessList list({"Administrators", "Everyone"});
    EXPECT_THAT(list.text(), HasSubstr("(A;;GRGW;;;S-1-5-32-544)"));
    EXPECT_THAT(list.text(), HasSubstr("(A;;GRGW;;;S-1-1-0)"));
}

TEST(AccessList, RefusesANameThatNobodyHas) {
    EXPECT_THROW(AccessList({"nobody of this name"}), std::runtime_error);
}

TEST_F(RelayAccess, ListIsThatOfEachInstance) {
    AccessList list({"Administrators"});
    settings_.pipe.access = list.attributes();
    startBoth();
    for (int i = 0; i < 10; ++i) {  // more than wait at a time
        EXPECT_THAT(accessTo(connect().get()), HasSubstr("D:P(A;;GA;;;" + relay::currentUser()));
    }
}
