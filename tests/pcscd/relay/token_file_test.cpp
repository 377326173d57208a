#include "relay/token_file.h"

#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

#include "../link/example_token.h"
#include "private_file.h"

using namespace tez;
using relay::readTokenFile;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class TokenFile : public testing::Test {
  public:
    TokenFile(const TokenFile&) = delete;
    TokenFile& operator=(const TokenFile&) = delete;

  protected:
    TokenFile() = default;
    ~TokenFile() override { DeleteFileA(path_.c_str()); }

    void write(const std::string& text, const std::string& otherEntries = "") {
        test::writePrivateFile(path_, text, otherEntries);
    }

    const std::string path_ = "token-of-" + std::to_string(GetCurrentProcessId());
};

}  // namespace

TEST_F(TokenFile, IsRead) {
    write(link::formatToken(test::exampleToken()));
    EXPECT_EQ(readTokenFile(path_), test::exampleToken());
}

TEST_F(TokenFile, IsReadThoughTheSystemAndAdministratorsCanReadIt) {
    write(link::formatToken(test::exampleToken()), "(A;;FA;;;SY)(A;;FA;;;BA)");
    EXPECT_EQ(readTokenFile(path_), test::exampleToken());
}

TEST_F(TokenFile, IsRefusedWhenOthersCanReadIt) {
    write(link::formatToken(test::exampleToken()), "(A;;FR;;;WD)");
    EXPECT_THAT([&] { readTokenFile(path_); },
                ThrowsMessage<std::runtime_error>(HasSubstr("is no secret")));
}

TEST_F(TokenFile, IsRefusedWhenOthersCanReplaceIt) {
    write(link::formatToken(test::exampleToken()), "(A;;FW;;;WD)");
    EXPECT_THAT([&] { readTokenFile(path_); },
                ThrowsMessage<std::runtime_error>(HasSubstr("is no secret")));
}

TEST_F(TokenFile, IsRefusedWhenItIsNotThere) {
    EXPECT_THROW(readTokenFile("no such file"), std::runtime_error);
}

TEST_F(TokenFile, IsRefusedWhenItHoldsSomethingElse) {
    const std::string token = link::formatToken(test::exampleToken());
    for (const std::string& text :
         {std::string(), token.substr(1), token + std::string(5000, 'x')}) {
        write(text);
        EXPECT_THAT([&] { readTokenFile(path_); },
                    ThrowsMessage<std::runtime_error>(HasSubstr("is not a token")));
    }
}
