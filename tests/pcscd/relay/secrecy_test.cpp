#include "relay/secrecy.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include "relay/security_identifier.h"

using namespace tez::relay;
using testing::Optional;

namespace {

/// Judges a descriptor in Windows' own notation, in which ME is the user that runs the test.
std::optional<std::string> strangerInText(std::string text) {
    for (std::size_t at = text.find("ME"); at != std::string::npos; at = text.find("ME")) {
        text.replace(at, 2, currentUser());
    }
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(text.c_str(), SDDL_REVISION_1,
                                                                     &descriptor, nullptr))
        << text;
    std::optional<std::string> stranger = strangerIn(descriptor);
    LocalFree(descriptor);
    return stranger;
}

}  // namespace

TEST(Secrecy, IsGivenWithTheUserAdministratorsAndTheSystem) {
    for (const char* text : {"O:MED:(A;;FA;;;ME)", "O:SYD:(A;;FA;;;ME)(A;;FA;;;SY)",
                             "O:BAD:(A;;FA;;;BA)(A;;FR;;;ME)", "O:MED:P"}) {
        EXPECT_EQ(strangerInText(text), std::nullopt) << text;
    }
}

TEST(Secrecy, IsNotGivenWithAnyOtherOwner) {
    EXPECT_THAT(strangerInText("O:WDD:(A;;FA;;;ME)"), Optional(std::string("Everyone")));
    EXPECT_TRUE(strangerInText("O:BUD:(A;;FA;;;ME)"));
}

TEST(Secrecy, IsNotGivenWithAnyRightThatLetsSomebodyReadOrReplace) {
    // Read data, write data, append, change the list, become the owner, and the generic ones.
    for (const char* right :
         {"0x1", "0x2", "0x4", "WD", "WO", "GR", "GW", "GA", "FR", "FW", "FA"}) {
        const std::string text = std::string("O:MED:(A;;FA;;;ME)(A;;") + right + ";;;WD)";
        EXPECT_THAT(strangerInText(text), Optional(std::string("Everyone"))) << text;
    }
}

TEST(Secrecy, IsGivenThoughOthersSeeThatThereIsAFile) {
    // Read attributes, read the list, wait.
    for (const char* right : {"0x80", "RC", "0x100000"}) {
        const std::string text = std::string("O:MED:(A;;FA;;;ME)(A;;") + right + ";;;WD)";
        EXPECT_EQ(strangerInText(text), std::nullopt) << text;
    }
}

TEST(Secrecy, IsJudgedByEntriesThatCount) {
    EXPECT_EQ(strangerInText("O:MED:(D;;FA;;;WD)(A;;FA;;;ME)"), std::nullopt);
    EXPECT_EQ(strangerInText("O:MED:(A;OICIIO;FA;;;WD)(A;;FA;;;ME)"), std::nullopt);
    EXPECT_TRUE(strangerInText("O:MED:(A;OICI;FA;;;WD)(A;;FA;;;ME)"));
}

TEST(Secrecy, IsNotGivenWithoutAnAccessList) {
    EXPECT_THAT(strangerInText("O:ME"), Optional(std::string("everybody")));
}
