#include "relay_fixture.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

namespace tez::test {
namespace {

std::string uniqueName() {
    return "relay-test-" + std::to_string(GetCurrentProcessId());
}

pcscd::UniqueHandle open(const std::string& pipe) {
    for (;;) {
        pcscd::UniqueHandle handle(CreateFileA(pipe.c_str(), GENERIC_READ | GENERIC_WRITE,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                               OPEN_EXISTING, 0, nullptr));
        if (handle || GetLastError() != ERROR_PIPE_BUSY ||
            WaitNamedPipeA(pipe.c_str(), NMPWAIT_USE_DEFAULT_WAIT) == FALSE) {
            return handle;
        }
    }
}

std::string temporaryFile(const std::string& name) {
    char directory[MAX_PATH] = {};
    GetTempPathA(sizeof directory, directory);
    return directory + name;
}

}  // namespace

PipeClient::PipeClient(const std::string& pipe) : pipe_(open(pipe)) {}

bool PipeClient::write(std::span<const std::uint8_t> bytes) const {
    DWORD count = 0;
    return WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                     nullptr) != FALSE &&
           count == bytes.size();
}

Bytes PipeClient::readOnce(std::size_t most) const {
    Bytes bytes(most);
    DWORD count = 0;
    if (ReadFile(pipe_.get(), bytes.data(), static_cast<DWORD>(most), &count, nullptr) == FALSE) {
        count = 0;
    }
    bytes.resize(count);
    return bytes;
}

Bytes PipeClient::exchange(std::span<const std::uint8_t> bytes) const {
    return write(bytes) ? readOnce(bytes.size()) : Bytes();
}

RelayTest::RelayTest() : RelayTest(R"(\\.\pipe\)" + uniqueName()) {}

RelayTest::RelayTest(std::string pipe)
    : pipe_(std::move(pipe)), logFile_(temporaryFile(uniqueName() + ".log")) {
    std::remove(logFile_.c_str());
    log_->appendTo(logFile_);
    settings_.agent.address = {"127.0.0.1", std::to_string(agent_.port())};
    settings_.agent.token = FakeAgent::token();
    settings_.pipe.name = pipe_;
    settings_.retry = pcscd::Limit(20);
}

RelayTest::~RelayTest() {
    stopRelay();
    if (HasFailure()) {
        std::fputs(logText().c_str(), stderr);
    }
    log_.reset();
    std::remove(logFile_.c_str());
}

void RelayTest::startRelay() {
    stop_ = pcscd::makeEvent();
    relay_ = std::thread([this] { relay::runRelay(settings_, stop_.get(), *log_); });
}

void RelayTest::stopRelay() {
    if (relay_.joinable()) {
        SetEvent(stop_.get());
        relay_.join();
    }
}

void RelayTest::startBoth() {
    agent_.start();
    startRelay();
    ASSERT_TRUE(pipeComes());
}

bool RelayTest::pipeExists() const {
    return WaitNamedPipeA(pipe_.c_str(), 1) != FALSE || GetLastError() != ERROR_FILE_NOT_FOUND;
}

std::string RelayTest::logText() const {
    std::ostringstream text;
    text << std::ifstream(logFile_).rdbuf();
    return text.str();
}

}  // namespace tez::test
