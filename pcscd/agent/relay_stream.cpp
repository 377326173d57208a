#include "agent/relay_stream.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>

#include "link/frame.h"

namespace tez::agent {

void RelayStream::limitSilence(std::optional<std::chrono::milliseconds> limit) {
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(
                                  limit.value_or(std::chrono::milliseconds(0)))
                                  .count();
    const timeval time{microseconds / 1'000'000, microseconds % 1'000'000};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
}

std::size_t RelayStream::read(std::span<std::uint8_t> buffer) {
    std::size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t count = recv(socket_.get(), &buffer[done], buffer.size() - done, 0);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    return done;
}

bool RelayStream::write(std::span<const std::uint8_t> bytes) {
    return writeRaw(link::encodeFrame(bytes));
}

bool RelayStream::writeRaw(std::span<const std::uint8_t> bytes) {
    const std::scoped_lock lock(writing_);
    while (!bytes.empty()) {
        const ssize_t count = send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

void RelayStream::close() {
    shutdown(socket_.get(), SHUT_RDWR);
}

}  // namespace tez::agent
