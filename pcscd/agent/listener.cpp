#include "agent/listener.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace tez::agent {
namespace {

constexpr int kBacklog = 64;
constexpr int kFirstActivationSocket = 3;  // by the manager's convention

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

FileDescriptor makeSocket(int family) {
    FileDescriptor made(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!made) {
        fail("cannot make a socket");
    }
    return made;
}

sockaddr_un socketAddress(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = path.string();
    if (name.size() >= sizeof address.sun_path) {
        throw std::system_error(ENAMETOOLONG, std::generic_category(), name);
    }
    std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
    return address;
}

template <typename SocketAddress>
const sockaddr* generic(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

/// Whether the path is a socket's, and nobody listens on it.
bool isAbandoned(const std::filesystem::path& path) {
    if (!std::filesystem::is_socket(path)) {
        return false;
    }
    const sockaddr_un address = socketAddress(path);
    const FileDescriptor probe = makeSocket(AF_UNIX);
    return connect(probe.get(), generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
}

FileDescriptor listenOn(const UnixAddress& unixAddress) {
    const std::string name = unixAddress.path.string();
    const sockaddr_un address = socketAddress(unixAddress.path);
    FileDescriptor made = makeSocket(AF_UNIX);
    if (isAbandoned(unixAddress.path)) {
        std::filesystem::remove(unixAddress.path);
    }
    // The mode must be right from the start: there is no moment at which another one may connect.
    const mode_t mask = umask(S_IRWXG | S_IRWXO | S_IXUSR);
    const int bound = bind(made.get(), generic(address), sizeof address);
    umask(mask);
    if (bound != 0 || listen(made.get(), kBacklog) != 0) {
        fail("cannot listen on " + name);
    }
    return made;
}

FileDescriptor listenOn(const TcpAddress& tcpAddress) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(tcpAddress.host);
    address.sin_port = htons(tcpAddress.port);
    FileDescriptor made = makeSocket(AF_INET);
    const int on = 1;
    setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(made.get(), generic(address), sizeof address) != 0 ||
        listen(made.get(), kBacklog) != 0) {
        fail("cannot listen on port " + std::to_string(tcpAddress.port));
    }
    return made;
}

}  // namespace

std::optional<Address> parseAddress(const std::string& text) {
    constexpr std::string_view kUnix = "unix:";
    if (text.starts_with(kUnix)) {
        return text.size() == kUnix.size()
                   ? std::nullopt
                   : std::optional<Address>(UnixAddress{text.substr(kUnix.size())});
    }
    const std::size_t colon = text.rfind(':');
    in_addr host{};
    if (colon == std::string::npos ||
        inet_pton(AF_INET, text.substr(0, colon).c_str(), &host) != 1) {
        return std::nullopt;
    }
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error != std::errc() || parsed != end || port == 0) {
        return std::nullopt;
    }
    return TcpAddress{ntohl(host.s_addr), port};
}

bool isOfThisMachine(const Address& address) {
    const auto* tcp = std::get_if<TcpAddress>(&address);
    return tcp == nullptr || tcp->host >> 24 == IN_LOOPBACKNET;
}

Listener::Listener(const Address& address)
    : socket_(std::visit([](const auto& each) { return listenOn(each); }, address)) {
    if (const auto* local = std::get_if<UnixAddress>(&address)) {
        path_ = local->path;
    }
}

Listener::~Listener() {
    if (!path_.empty()) {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
}

FileDescriptor Listener::accept(int stop) const {
    for (;;) {
        pollfd waited[] = {{socket_.get(), POLLIN, 0}, {stop, POLLIN, 0}};
        if (poll(waited, std::size(waited), -1) < 0 && errno != EINTR) {
            fail("cannot wait for connections");
        }
        if (waited[1].revents != 0) {
            return {};
        }
        if (waited[0].revents == 0) {
            continue;
        }
        FileDescriptor accepted(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (accepted) {
            // Answers are small and waited for; on a Unix socket there is no such option.
            const int on = 1;
            setsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            return accepted;
        }
        // The connection is gone again, or there are no descriptors left until another one ends.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::optional<FileDescriptor> takeActivationSocket() {
    const char* process = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    if (process == nullptr || count == nullptr || process != std::to_string(getpid())) {
        return std::nullopt;
    }
    if (std::string_view(count) != "1") {
        throw std::runtime_error("the service manager passes " + std::string(count) +
                                 " sockets where one is expected");
    }
    fcntl(kFirstActivationSocket, F_SETFD, FD_CLOEXEC);
    return FileDescriptor(kFirstActivationSocket);
}

}  // namespace tez::agent
