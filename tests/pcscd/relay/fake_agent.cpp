#include "fake_agent.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "../link/example_token.h"
#include "link/frame.h"

namespace tez::test {
namespace {

/// Taken with one read.
constexpr std::size_t kMost = 64U << 10U;

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A program that a test starts would keep its sockets open otherwise.
relay::Socket notInherited(SOCKET socket) {
    relay::Socket owned(socket);
    SetHandleInformation(owned.handle(), HANDLE_FLAG_INHERIT, 0);
    return owned;
}

relay::Socket listenAt(std::uint16_t port) {
    relay::Socket listener = notInherited(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    const BOOL reuse = TRUE;  // the port's last streams may still be fading away
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&reuse),
               sizeof reuse);
    const sockaddr_in address = loopback(port);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0) {
        throw std::runtime_error("the fake agent cannot listen");
    }
    return listener;
}

std::uint16_t portOf(const relay::Socket& socket) {
    sockaddr_in address = {};
    int size = sizeof address;
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace

Bytes AgentConnection::readSome(std::size_t most) const {
    Bytes bytes(most);
    const int count =
        recv(socket_, reinterpret_cast<char*>(bytes.data()), static_cast<int>(bytes.size()), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

Bytes AgentConnection::read() const {
    return readSome(kMost);
}

Bytes AgentConnection::read(std::size_t count) const {
    Bytes bytes;
    while (bytes.size() < count) {
        const Bytes part = readSome(std::min(count - bytes.size(), kMost));
        if (part.empty()) {
            break;
        }
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

bool AgentConnection::send(std::span<const std::uint8_t> bytes) const {
    while (!bytes.empty()) {
        const int count = ::send(socket_, reinterpret_cast<const char*>(bytes.data()),
                                 static_cast<int>(bytes.size()), 0);
        if (count <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

bool AgentConnection::sendPiece(std::span<const std::uint8_t> piece) const {
    return send(link::encodeFrame(piece));
}

void AgentConnection::finishSending() const {
    shutdown(socket_, SD_SEND);
}

void AgentConnection::close() const {
    shutdown(socket_, SD_BOTH);
}

FakeAgent::FakeAgent() : port_(portOf(listenAt(0))) {
    const auto hello = link::encodeAgentHello(token());
    helloAnswer_.emplace(hello.begin(), hello.end());
}

FakeAgent::~FakeAgent() {
    stop();
}

link::Token FakeAgent::token() {
    return exampleToken();
}

void FakeAgent::start() {
    listener_ = listenAt(port_);
    acceptor_ = std::thread([this] { acceptStreams(); });
}

void FakeAgent::stop() {
    if (!acceptor_.joinable()) {
        return;
    }
    listener_ = relay::Socket();
    acceptor_.join();
    std::list<Stream> streams;
    {
        const std::scoped_lock lock(mutex_);
        streams.swap(streams_);
    }
    for (const Stream& stream : streams) {
        shutdown(stream.socket.get(), SD_BOTH);
    }
    for (Stream& stream : streams) {
        stream.thread.join();
    }
}

void FakeAgent::onClient(Serve serve) {
    const std::scoped_lock lock(mutex_);
    serveClient_ = std::move(serve);
}

void FakeAgent::onControl(Serve serve) {
    const std::scoped_lock lock(mutex_);
    serveControl_ = std::move(serve);
}

void FakeAgent::answerHelloWith(std::optional<Bytes> answer) {
    const std::scoped_lock lock(mutex_);
    helloAnswer_ = std::move(answer);
}

void FakeAgent::echo(AgentConnection& connection) {
    for (Bytes bytes = connection.read(); !bytes.empty() && connection.sendPiece(bytes);
         bytes = connection.read()) {
    }
}

bool FakeAgent::waitForEndedClients(std::size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(30),
                             [&] { return endedClients_ >= count; });
}

void FakeAgent::acceptStreams() {
    for (;;) {
        relay::Socket socket = notInherited(accept(listener_.get(), nullptr, nullptr));
        if (!socket) {
            return;
        }
        const std::scoped_lock lock(mutex_);
        Stream& stream = streams_.emplace_back();
        stream.socket = std::move(socket);
        stream.thread = std::thread([this, raw = stream.socket.get()] { run(raw); });
    }
}

void FakeAgent::run(SOCKET socket) {
    serve(socket);
    shutdown(socket, SD_BOTH);
}

void FakeAgent::serve(SOCKET socket) {
    const BOOL atOnce = TRUE;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&atOnce),
               sizeof atOnce);
    std::optional<Bytes> answer;
    Serve serveClient;
    Serve serveControl;
    {
        const std::scoped_lock lock(mutex_);
        answer = helloAnswer_;
        serveClient = serveClient_;
        serveControl = serveControl_;
    }
    AgentConnection stranger(socket, 0);
    const Bytes bytes = stranger.read(link::kRelayHelloSize);
    if (bytes.size() != link::kRelayHelloSize || !answer) {
        return;
    }
    const link::RelayHello hello =
        link::decodeRelayHello(std::span(bytes).first<link::kRelayHelloSize>(), token());
    if (hello.greeting != link::Greeting::accepted || !stranger.send(*answer)) {
        return;
    }
    AgentConnection connection(socket, hello.origin.processId);
    if (hello.origin.processId == link::kControlProcess) {
        serveControl(connection);
        return;
    }
    serveClient(connection);
    const std::scoped_lock lock(mutex_);
    ++endedClients_;
    changed_.notify_all();
}

}  // namespace tez::test
