#pragma once

#include <gmock/gmock.h>

#include "daemon/daemon_connection.h"

namespace tez::test {

class MockDaemonConnection : public DaemonConnection {
  public:
    MockDaemonConnection() = default;
    MockDaemonConnection(const MockDaemonConnection&) = delete;
    MockDaemonConnection& operator=(const MockDaemonConnection&) = delete;

    MOCK_METHOD(bool, connect, (), (override));
    MOCK_METHOD(void, closeSocket, (), (override));
    MOCK_METHOD(LONG, sendMessage, (const void* data, std::uint64_t size), (override));
    MOCK_METHOD(LONG, sendHeaderForward, (std::uint32_t command, std::uint64_t size), (override));
    MOCK_METHOD(LONG, sendHeader, (std::uint32_t command, std::uint64_t size), (override));
    MOCK_METHOD(LONG, sendRequestFlagged,
                (std::uint32_t command, const void* data, std::uint64_t size, bool flag),
                (override));
    MOCK_METHOD(LONG, sendRequest, (std::uint32_t command, const void* data, std::uint64_t size),
                (override));
    MOCK_METHOD(LONG, receiveMessage, (void* buffer, std::uint64_t size, std::uint32_t timeout),
                (override));
    MOCK_METHOD(LONG, readMessage, (void* buffer, std::uint64_t size), (override));
    MOCK_METHOD(bool, isProtocolAtLeast, (std::uint32_t major, std::uint32_t minor),
                (const, override));
    MOCK_METHOD(bool, checkDaemonAvailability, (), (override));
    MOCK_METHOD(ServiceState, serviceKind, (), (const, override));
    MOCK_METHOD(LONG, startReceive, (void* buffer, std::uint64_t size, HANDLE& ended), (override));
    MOCK_METHOD(LONG, finishReceive, (), (override));
    /// Tells that the connection was destroyed.
    MOCK_METHOD(void, destroyed, ());

    // NOLINTNEXTLINE(bugprone-exception-escape): a mock that throws here ends the test program
    ~MockDaemonConnection() override { destroyed(); }
};

}  // namespace tez::test
