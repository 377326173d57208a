#pragma once

#include <winsock2.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "fake_agent.h"
#include "patience.h"
#include "relay/relay.h"

namespace tez::test {

/// A client of a pipe, as the library is one: it opens, writes and reads.
class PipeClient {
  public:
    /// Not open when there is no such pipe.
    explicit PipeClient(const std::string& pipe);

    bool isOpen() const { return static_cast<bool>(pipe_); }
    HANDLE get() const { return pipe_.get(); }

    /// With one WriteFile. False when the pipe broke.
    bool write(std::span<const std::uint8_t> bytes) const;
    /// What one ReadFile for as many bytes gives; empty when the pipe broke.
    Bytes readOnce(std::size_t most) const;
    /// Writes and reads as many bytes back, in one piece.
    Bytes exchange(std::span<const std::uint8_t> bytes) const;
    void close() { pipe_.reset(); }

  private:
    pcscd::UniqueHandle pipe_;
};

/// A relay in this process between a pipe of the test's own and a fake agent.
class RelayTest : public testing::Test {
  public:
    RelayTest(const RelayTest&) = delete;
    RelayTest& operator=(const RelayTest&) = delete;

  protected:
    /// With a pipe of the test's own.
    RelayTest();
    explicit RelayTest(std::string pipe);
    ~RelayTest() override;

    /// Runs the relay until stopRelay, or the test's end.
    void startRelay();
    void stopRelay();
    /// Both, and waits for the pipe.
    void startBoth();

    PipeClient connect() const { return PipeClient(pipe_); }
    bool pipeExists() const;
    bool pipeComes() const {
        return eventually([this] { return pipeExists(); });
    }
    bool pipeGoes() const {
        return eventually([this] { return !pipeExists(); });
    }
    /// All lines that the relay has written.
    std::string logText() const;
    bool logComesToHave(const std::string& text) const {
        return eventually([&] { return logText().find(text) != std::string::npos; });
    }

    const relay::Winsock winsock_;
    const std::string pipe_;
    const std::string logFile_;
    FakeAgent agent_;
    relay::RelaySettings settings_;

  private:
    std::optional<relay::Log> log_{std::in_place, true};
    pcscd::UniqueHandle stop_;
    std::thread relay_;
};

}  // namespace tez::test
