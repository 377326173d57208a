#include "pipe/pipe_listener.h"

#include <array>
#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <thread>

#include "handle_mark.h"

namespace tez::pcscd {
namespace {

using namespace std::chrono_literals;

class PipeListenerTest : public testing::Test {
  protected:
    UniqueHandle connect() const {
        return UniqueHandle(CreateFileA(settings_.name.c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                        nullptr, OPEN_EXISTING, 0, nullptr));
    }

    static bool isEchoed(const UniqueHandle& client) {
        std::uint8_t byte = 42;
        DWORD count = 0;
        return WriteFile(client.get(), &byte, 1, &count, nullptr) != FALSE &&
               ReadFile(client.get(), &byte, 1, &count, nullptr) != FALSE && byte == 42;
    }

    static bool isBroken(const UniqueHandle& client) {
        std::uint8_t byte = 0;
        DWORD count = 0;
        return ReadFile(client.get(), &byte, 1, &count, nullptr) == FALSE;
    }

    static void echo(PipeConnection& connection) {
        std::array<std::uint8_t, 1> byte = {};
        while (connection.read(byte) == 1 && connection.write(byte)) {
        }
    }

    const PipeServer::Settings settings_{.name = R"(\\.\pipe\pipe-listener-test-)" +
                                                 std::to_string(GetCurrentProcessId())};
};

TEST_F(PipeListenerTest, ServesEachClientAndClosesThemAll) {
    PipeListener listener(settings_, echo);
    listener.start();
    const UniqueHandle first = connect();
    const UniqueHandle second = connect();
    EXPECT_TRUE(isEchoed(first));
    EXPECT_TRUE(isEchoed(second));
    EXPECT_EQ(listener.open().size(), 2U);
    listener.close();
    EXPECT_TRUE(isBroken(first));
    EXPECT_TRUE(isBroken(second));
    EXPECT_FALSE(connect());
    listener.join();
    listener.start();
    EXPECT_TRUE(isEchoed(connect()));
}

TEST_F(PipeListenerTest, IsTheOnlyOneOfItsName) {
    PipeListener listener(settings_, echo);
    PipeListener second(settings_, echo);
    listener.start();
    EXPECT_THROW(second.start(), std::system_error);
    EXPECT_FALSE(second.serving());
    EXPECT_TRUE(isEchoed(connect()));
}

TEST_F(PipeListenerTest, LosesNoneButTheClientThatCannotBeServed) {
    std::atomic<bool> failing = true;
    PipeListener listener(settings_, [&](PipeConnection& connection) {
        if (failing) {
            throw std::runtime_error("no means");
        }
        echo(connection);
    });
    listener.start();
    EXPECT_TRUE(isBroken(connect()));
    failing = false;
    EXPECT_TRUE(isEchoed(connect()));
}

TEST_F(PipeListenerTest, KeepsNoThreadOfAClientThatIsGone) {
    PipeListener listener(settings_, echo);
    listener.start();
    const auto serveSome = [&] {
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(isEchoed(connect()));
        }
        while (!listener.open().empty()) {
            std::this_thread::sleep_for(1ms);
        }
    };
    serveSome();
    const std::uintptr_t before = test::handleMark();
    serveSome();
    EXPECT_LT(test::handleMark(), before + test::kHandleStep * 50);
}

}  // namespace
}  // namespace tez::pcscd
