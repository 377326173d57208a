#include "scripted_daemon.h"

#include <gtest/gtest.h>

namespace tez::test {

ScriptedPipe::ScriptedPipe(HANDLE stop, DWORD bufferSize, DWORD busyTimeout)
    : stop_(stop),
      pipe_(CreateNamedPipeA(kDaemonPipe, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                             PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                             PIPE_UNLIMITED_INSTANCES, bufferSize, bufferSize, busyTimeout,
                             nullptr)) {
    if (!pipe_) {
        throw std::runtime_error("the daemon's pipe cannot be made");
    }
}

template <class Start>
std::size_t ScriptedPipe::transfer(Start start) {
    const Outcome outcome = transfer_.run(pipe_.get(), {stop_}, kNoLimit, start);
    if (outcome.error != ERROR_SUCCESS && outcome.error != ERROR_PIPE_CONNECTED) {
        throw PipeBroken("the client has closed the pipe, or the test is over");
    }
    return outcome.count;
}

void ScriptedPipe::accept() {
    transfer([this](OVERLAPPED* overlapped) { return ConnectNamedPipe(pipe_.get(), overlapped); });
}

Bytes ScriptedPipe::read(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t done = 0; done < size;) {
        done += transfer([&](OVERLAPPED* overlapped) {
            return ReadFile(pipe_.get(), bytes.data() + done, static_cast<DWORD>(size - done),
                            nullptr, overlapped);
        });
    }
    return bytes;
}

void ScriptedPipe::write(const Bytes& bytes) {
    transfer([&](OVERLAPPED* overlapped) {
        return WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                         overlapped);
    });
}

Bytes ScriptedPipe::handshake(std::uint32_t major, std::uint32_t minor) {
    Bytes received = read(5);
    write(RecordBytes(8).u32(0, major).u32(4, minor).bytes());
    return received;
}

bool ScriptedPipe::waitForClose() {
    try {
        read(1);
    } catch (const PipeBroken&) {
        return true;
    }
    return false;
}

ScriptedDaemon::ScriptedDaemon(std::function<void(ScriptedPipe&)> script, DWORD bufferSize,
                               DWORD busyTimeout)
    : first_(stop_.get(), bufferSize, busyTimeout), thread_([this, script = std::move(script)] {
          try {
              script(first_);
          } catch (const PipeBroken&) {
              // The client is what the test looks at.
          } catch (const std::exception& error) {
              ADD_FAILURE() << error.what();
          }
          first_.close();
      }) {}

ScriptedDaemon::~ScriptedDaemon() {
    SetEvent(stop_.get());
    finish();
}

void ScriptedDaemon::finish() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace tez::test
