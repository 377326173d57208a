#include "relay/agent_address.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "relay/agent_stream.h"

using namespace tez::relay;

TEST(AgentAddress, HasAHostAndAPort) {
    const auto address = parseAgentAddress("127.0.0.1:4711");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->host, "127.0.0.1");
    EXPECT_EQ(address->port, "4711");
    EXPECT_EQ(address->text(), "127.0.0.1:4711");
}

TEST(AgentAddress, HasAnIpv6HostInBrackets) {
    const auto address = parseAgentAddress("[::1]:1");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->host, "::1");
    EXPECT_EQ(address->text(), "[::1]:1");
}

TEST(AgentAddress, IsNothingElse) {
    for (const char* text :
         {"", ":", "host", "host:", ":4711", "host:0", "host:65536", "host:1x", "host: 1",
          "host:-1", "::1:4711", "[::1]", "[]:1", "[::1:1", "::1]:1", "a:b:1"}) {
        EXPECT_FALSE(parseAgentAddress(text)) << text;
    }
}

TEST(AgentAddress, IsOfThisMachineInItsLoopbackNetwork) {
    const Winsock winsock;
    for (const char* host : {"127.0.0.1", "127.8.9.10", "localhost", "::1"}) {
        EXPECT_TRUE(isLoopback(host)) << host;
    }
    for (const char* host : {"10.0.0.1", "0.0.0.0", "192.168.1.127", "::", "::2", "host.example",
                             "127.0.0.1.example", "localhost.example", "128.0.0.1"}) {
        EXPECT_FALSE(isLoopback(host)) << host;
    }
}
