#include <gtest/gtest.h>

#include "agent/listener.h"

namespace tez::agent {
namespace {

TEST(AddressTest, IsAUnixSocketOrAnAddressWithItsPort) {
    const auto local = parseAddress("unix:/run/user/1/x");
    ASSERT_TRUE(local && std::holds_alternative<UnixAddress>(*local));
    EXPECT_EQ(std::get<UnixAddress>(*local).path, "/run/user/1/x");
    const auto tcp = parseAddress("127.0.0.1:7777");
    ASSERT_TRUE(tcp && std::holds_alternative<TcpAddress>(*tcp));
    EXPECT_EQ(std::get<TcpAddress>(*tcp).port, 7777);
    for (const char* wrong : {"", "unix:", "7777", ":7777", "localhost:1", "127.0.0.1:",
                              "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:77x", "127.0.0.1"}) {
        EXPECT_FALSE(parseAddress(wrong)) << wrong;
    }
}

TEST(AddressTest, IsOfThisMachineWhenNoOtherReachesIt) {
    EXPECT_TRUE(isOfThisMachine(*parseAddress("unix:x")));
    EXPECT_TRUE(isOfThisMachine(*parseAddress("127.0.0.1:1")));
    EXPECT_TRUE(isOfThisMachine(*parseAddress("127.1.2.3:1")));
    EXPECT_FALSE(isOfThisMachine(*parseAddress("0.0.0.0:1")));
    EXPECT_FALSE(isOfThisMachine(*parseAddress("192.168.1.1:1")));
}

}  // namespace
}  // namespace tez::agent
