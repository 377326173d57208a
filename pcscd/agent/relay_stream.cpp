#include "agent/relay_stream.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

#include "link/frame.h"

namespace tez::agent {

/// Whether there is something to read, if only the end; false when the time is over.
bool RelayStream::awaitReadable(Clock::time_point deadline) const {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited{socket_.get(), POLLIN, 0};
        const int count = left <= 0 ? 0 : poll(&waited, 1, static_cast<int>(left));
        if (count >= 0 || errno != EINTR) {
            return count > 0;
        }
    }
}

std::size_t RelayStream::read(std::span<std::uint8_t> buffer) {
    const auto deadline = Clock::now() + readLimit_.value_or(std::chrono::milliseconds(0));
    std::size_t done = 0;
    while (done < buffer.size() && (!readLimit_ || awaitReadable(deadline))) {
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
