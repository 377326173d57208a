// The pipe is there while the agent answers, and at no other time.
#include <atomic>
#include <string_view>
#include <utility>
#include <vector>

#include "relay_fixture.h"

using namespace tez;
using test::AgentConnection;
using test::Bytes;
using test::PipeClient;
using test::RelayTest;

namespace {

class AgentPresence : public RelayTest {};

Bytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

/// Serves a control stream until its end without a word.
void staySilent(AgentConnection& connection) {
    while (!connection.read().empty()) {
    }
}

}  // namespace

TEST_F(AgentPresence, IsAwaitedWithoutAPipe) {
    startRelay();
    ASSERT_TRUE(logComesToHave("nothing answers"));
    EXPECT_FALSE(pipeExists());
    agent_.start();
    EXPECT_TRUE(pipeComes());
}

TEST_F(AgentPresence, TakesThePipeAlongAndBringsItBack) {
    startBoth();
    for (int round = 0; round < 3; ++round) {
        agent_.stop();
        EXPECT_TRUE(pipeGoes());
        agent_.start();
        EXPECT_TRUE(pipeComes());
        EXPECT_EQ(connect().exchange(bytesOf("hello")), bytesOf("hello"));
    }
}

TEST_F(AgentPresence, HasInstancesOfThePipeToSpareForARush) {
    startBoth();
    // By now those are there that wait at any time, and one of them is taken.
    ASSERT_EQ(connect().exchange(Bytes{1}), Bytes{1});
    std::vector<pcscd::UniqueHandle> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back(CreateFileA(pipe_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(clients.back()) << GetLastError();
    }
}

TEST_F(AgentPresence, IsToldOnceAndNotForEachTry) {
    settings_.retry = pcscd::Limit(1);
    startRelay();
    ASSERT_TRUE(logComesToHave("nothing answers"));
    // Both ways to be away, each told once however often it is tried.
    agent_.answerHelloWith(std::nullopt);
    agent_.start();
    ASSERT_TRUE(logComesToHave("no answer"));
    agent_.stop();
    stopRelay();
    const std::string log = logText();
    EXPECT_EQ(log.find("no answer"), log.rfind("no answer"));
}

TEST_F(AgentPresence, EndsWhenNoEchoComes) {
    settings_.heartbeat.silence = pcscd::Limit(100);
    agent_.onControl(staySilent);
    agent_.start();
    startRelay();
    ASSERT_TRUE(logComesToHave("serving"));
    EXPECT_TRUE(logComesToHave("the agent is gone"));
}

TEST_F(AgentPresence, EndsWhenATunnelFallsSilent) {
    settings_.heartbeat = {pcscd::Limit(5), pcscd::Limit(200)};
    std::atomic<bool> silent = false;
    agent_.onControl([&](AgentConnection& connection) {
        for (Bytes beat = connection.read(); !beat.empty(); beat = connection.read()) {
            if (!silent) {
                connection.sendPiece(beat);
            }
        }
    });
    startBoth();
    const PipeClient client = connect();
    EXPECT_EQ(client.exchange(bytesOf("hello")), bytesOf("hello"));
    silent = true;
    EXPECT_TRUE(client.readOnce(1).empty());
    EXPECT_TRUE(logComesToHave("the agent is gone"));
}

TEST_F(AgentPresence, LastsThroughManyHeartbeats) {
    settings_.heartbeat.interval = pcscd::Limit(1);
    std::atomic<int> beats = 0;
    agent_.onControl([&](AgentConnection& connection) {
        for (Bytes beat = connection.read(1); !beat.empty(); beat = connection.read(1)) {
            ++beats;
            connection.sendPiece(beat);
        }
    });
    startBoth();
    const PipeClient client = connect();
    ASSERT_TRUE(test::eventually([&] { return beats > 100; }));
    EXPECT_EQ(client.exchange(bytesOf("hello")), bytesOf("hello"));
    EXPECT_EQ(logText().find("gone"), std::string::npos);
}

TEST_F(AgentPresence, EndsWithAnEchoOfSomethingElse) {
    settings_.heartbeat.silence = pcscd::Limit(60000);
    for (const Bytes& echo : {Bytes{1, 0, 0, 0, 77}, Bytes{2, 0, 0, 0, 0}, Bytes(5, 0xFF)}) {
        agent_.onControl([&](AgentConnection& connection) {
            connection.read(1);
            connection.send(echo);
            staySilent(connection);
        });
        agent_.start();
        startRelay();
        EXPECT_TRUE(logComesToHave("the agent is gone"));
        stopRelay();
        agent_.stop();
    }
}

TEST_F(AgentPresence, EndsWithAWordThatNobodyAskedFor) {
    settings_.heartbeat = {pcscd::Limit(60000), pcscd::Limit(60000)};
    agent_.onControl([](AgentConnection& connection) {
        connection.sendPiece(connection.read(1));
        connection.send(Bytes{0});
        staySilent(connection);
    });
    agent_.start();
    startRelay();
    EXPECT_TRUE(logComesToHave("the agent is gone"));
}

TEST_F(AgentPresence, IsNotThatOfAStranger) {
    const auto hello = link::encodeAgentHello(test::FakeAgent::token());
    Bytes otherToken(hello.begin(), hello.end());
    ++otherToken.back();
    const std::pair<Bytes, const char*> strangers[] = {
        {otherToken, "does not have the agent's half of the token"},
        {bytesOf("HTTP/1.1 400 Bad Request, and forty more"), "no agent"},
        {Bytes(hello.begin(), hello.end() - 1), "no answer"}};
    settings_.agent.helloLimit = pcscd::Limit(300);
    for (const auto& [answer, complaint] : strangers) {
        agent_.answerHelloWith(answer);
        agent_.start();
        startRelay();
        EXPECT_TRUE(logComesToHave(complaint));
        EXPECT_FALSE(pipeExists());
        stopRelay();
        agent_.stop();
    }
    EXPECT_EQ(logText().find("serving"), std::string::npos);
}

TEST_F(AgentPresence, IsNotThatOfAnAgentWithAnotherToken) {
    ++settings_.agent.token.relay.front();
    agent_.start();
    startRelay();
    EXPECT_TRUE(logComesToHave("no answer: the agent does not run, has another token"));
    EXPECT_FALSE(pipeExists());
}

TEST_F(AgentPresence, IsTriedAgainAfterAClientWasTurnedAway) {
    startBoth();
    agent_.answerHelloWith(std::nullopt);
    EXPECT_TRUE(connect().readOnce(1).empty());
    EXPECT_TRUE(logComesToHave("turned away"));
    const auto hello = link::encodeAgentHello(test::FakeAgent::token());
    agent_.answerHelloWith(Bytes(hello.begin(), hello.end()));
    EXPECT_EQ(connect().exchange(bytesOf("hello")), bytesOf("hello"));
}

TEST_F(AgentPresence, LetsClientsThatAreTurnedAwayFillNoLog) {
    startBoth();
    agent_.answerHelloWith(std::nullopt);  // as it does to those that are too many
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(connect().readOnce(1).empty());
    }
    EXPECT_TRUE(logComesToHave("another token or too many connections"));
    stopRelay();
    const std::string log = logText();
    EXPECT_EQ(log.find("turned away"), log.rfind("turned away"));
}

TEST_F(AgentPresence, DoesNotMakeThePipeOfAnotherProgramOurs) {
    pcscd::UniqueHandle squatter(
        CreateNamedPipeA(pipe_.c_str(), PIPE_ACCESS_DUPLEX, 0, 2, 0, 0, 0, nullptr));
    agent_.start();
    startRelay();
    EXPECT_TRUE(logComesToHave("belongs to another program"));
    EXPECT_EQ(logText().find("serving"), std::string::npos);
    squatter.reset();
    EXPECT_TRUE(logComesToHave("serving"));
}
