#include "pipe_server.h"

#include <gtest/gtest.h>

namespace tez::test {

ServerPipe::ServerPipe(HANDLE stop, DWORD bufferSize, DWORD busyTimeout)
    : stop_(stop),
      pipe_(CreateNamedPipeA(kDaemonPipe, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                             PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
                             PIPE_UNLIMITED_INSTANCES, bufferSize, bufferSize, busyTimeout,
                             nullptr)) {
    if (!pipe_.isOpen()) {
        throw std::runtime_error("the daemon's pipe cannot be made");
    }
}

template <class Start>
std::size_t ServerPipe::transfer(Start start) {
    const OwnedHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event.get();
    if (start(&overlapped) == FALSE) {
        const DWORD error = GetLastError();
        if (error == ERROR_PIPE_CONNECTED) {
            return 0;
        }
        if (error != ERROR_IO_PENDING) {
            throw PipeBroken("the client has closed the pipe");
        }
        const HANDLE handles[] = {event.get(), stop_};
        if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0) {
            CancelIoEx(pipe_.get(), &overlapped);
            DWORD count = 0;
            GetOverlappedResult(pipe_.get(), &overlapped, &count, TRUE);
            throw PipeBroken("the test is over");
        }
    }
    DWORD count = 0;
    if (GetOverlappedResult(pipe_.get(), &overlapped, &count, FALSE) == FALSE) {
        throw PipeBroken("the client has closed the pipe");
    }
    return count;
}

void ServerPipe::accept() {
    transfer([this](OVERLAPPED* overlapped) { return ConnectNamedPipe(pipe_.get(), overlapped); });
}

Bytes ServerPipe::read(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t done = 0; done < size;) {
        done += transfer([&](OVERLAPPED* overlapped) {
            return ReadFile(pipe_.get(), bytes.data() + done, static_cast<DWORD>(size - done),
                            nullptr, overlapped);
        });
    }
    return bytes;
}

void ServerPipe::write(const Bytes& bytes) {
    transfer([&](OVERLAPPED* overlapped) {
        return WriteFile(pipe_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                         overlapped);
    });
}

Bytes ServerPipe::handshake(std::uint32_t major, std::uint32_t minor) {
    Bytes received = read(5);
    write(ByteString().u32(major).u32(minor).bytes());
    return received;
}

bool ServerPipe::waitForClose() {
    try {
        read(1);
    } catch (const PipeBroken&) {
        return true;
    }
    return false;
}

PipeServer::PipeServer(std::function<void(ServerPipe&)> script, DWORD bufferSize, DWORD busyTimeout)
    : stop_(CreateEventA(nullptr, TRUE, FALSE, nullptr)),
      first_(stop_.get(), bufferSize, busyTimeout),
      thread_([this, script = std::move(script)] {
          try {
              script(first_);
          } catch (const PipeBroken&) {
              // The client is what the test looks at.
          } catch (const std::exception& error) {
              ADD_FAILURE() << error.what();
          }
          first_.close();
      }) {}

PipeServer::~PipeServer() {
    SetEvent(stop_.get());
    finish();
}

void PipeServer::finish() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace tez::test
