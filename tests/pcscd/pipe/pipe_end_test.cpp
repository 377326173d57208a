#include "pipe/pipe_end.h"

#include <array>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using namespace tez::pcscd;

namespace {

constexpr DWORD kBuffer = 1000;  // bytes that the client need not have taken

/// Both ends of a pipe, and an event that interrupts the server's.
class PipeEndTest : public testing::Test {
  protected:
    PipeEndTest() {
        const std::string name =
            R"(\\.\pipe\pipe-end-test-)" + std::to_string(GetCurrentProcessId());
        UniqueHandle server(CreateNamedPipeA(name.c_str(),
                                             PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                             PIPE_TYPE_BYTE, 1, kBuffer, kBuffer, 0, nullptr));
        client_ = UniqueHandle(CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                           OPEN_EXISTING, 0, nullptr));
        server_.emplace(std::move(server));
    }

    bool write(std::size_t size) {
        return server_->write(std::vector<std::uint8_t>(size, 0x55), {event_.get()});
    }

    std::optional<PipeEnd> server_;
    UniqueHandle client_;
    const UniqueHandle event_ = makeEvent();
};

}  // namespace

TEST_F(PipeEndTest, KnowsTheClientsProcess) {
    EXPECT_EQ(server_->clientProcess(), GetCurrentProcessId());
}

TEST_F(PipeEndTest, WhatWasWrittenWholeIsWrittenThoughInterrupted) {
    SetEvent(event_.get());
    EXPECT_TRUE(write(3));
    std::array<std::uint8_t, 10> buffer = {};
    DWORD count = 0;
    EXPECT_TRUE(ReadFile(client_.get(), buffer.data(), buffer.size(), &count, nullptr));
    EXPECT_EQ(count, 3U);
}

TEST_F(PipeEndTest, AWriteThatTheClientDoesNotTakeIsInterrupted) {
    SetEvent(event_.get());
    EXPECT_FALSE(write(std::size_t{100} * kBuffer));
}

TEST_F(PipeEndTest, NothingIsWrittenToAClientThatIsGone) {
    client_.reset();
    EXPECT_FALSE(write(3));
}
