#include "relay/agent_stream.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <mswsock.h>
#include <stdexcept>
#include <string>
#include <ws2tcpip.h>

#include "pipe/system_failure.h"

namespace tez::relay {
namespace {

struct FreeAddresses {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses resolve(const AgentAddress& address) {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
    if (error != 0) {
        throw pcscd::systemFailure("no address for " + address.host, static_cast<DWORD>(error));
    }
    return Addresses(found);
}

void setOption(const Socket& socket, int level, int option, DWORD value) {
    setsockopt(socket.get(), level, option, reinterpret_cast<const char*>(&value), sizeof value);
}

LPFN_CONNECTEX connectFunction(const Socket& socket) {
    GUID id = WSAID_CONNECTEX;
    LPFN_CONNECTEX function = nullptr;
    DWORD size = 0;
    if (WSAIoctl(socket.get(), SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function,
                 sizeof function, &size, nullptr, nullptr) != 0) {
        throw pcscd::systemFailure("no overlapped connect");
    }
    return function;
}

/// The ordinary connect could be interrupted only by closing its socket.
Socket connectTo(const addrinfo& address, pcscd::Transfer& transfer, HANDLE interrupt,
                 pcscd::Limit limit) {
    Socket socket(WSASocketW(address.ai_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                             WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
    if (!socket) {
        throw pcscd::systemFailure("no socket");
    }
    const LPFN_CONNECTEX connectEx = connectFunction(socket);
    sockaddr_storage any = {};
    any.ss_family = static_cast<short>(address.ai_family);
    const auto length = static_cast<int>(address.ai_addrlen);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&any), length) != 0) {
        throw pcscd::systemFailure("no local port");
    }
    const pcscd::Outcome outcome =
        transfer.run(socket.handle(), {interrupt}, limit, [&](OVERLAPPED* overlapped) {
            return connectEx(socket.get(), address.ai_addr, length, nullptr, 0, nullptr,
                             overlapped) != FALSE;
        });
    if (outcome.error != ERROR_SUCCESS) {
        throw pcscd::systemFailure("nothing answers", outcome.error);
    }
    setOption(socket, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, 0);
    // A request goes out in several small pieces, none of which may wait for the last one's
    // receipt.
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, TRUE);
    return socket;
}

Socket connectToAny(const AgentAddress& address, pcscd::Transfer& transfer, HANDLE interrupt,
                    pcscd::Limit limit) {
    const Addresses addresses = resolve(address);
    for (const addrinfo* next = addresses.get();; next = next->ai_next) {
        try {
            return connectTo(*next, transfer, interrupt, limit);
        } catch (const std::system_error&) {
            if (next->ai_next == nullptr) {
                throw;
            }
        }
    }
}

WSABUF bufferOf(std::span<const std::uint8_t> bytes) {
    WSABUF buffer = {};
    buffer.len = static_cast<ULONG>(bytes.size());
    buffer.buf = reinterpret_cast<char*>(const_cast<std::uint8_t*>(bytes.data()));
    return buffer;
}

const char* complaintAbout(link::Greeting greeting) {
    switch (greeting) {
        case link::Greeting::accepted:
            return nullptr;
        case link::Greeting::notTheLink:
            return "what answers is no agent, or one of another version";
        case link::Greeting::wrongToken:
            break;
    }
    return "what answers does not have the agent's half of the token, but was shown the relay's: "
           "unless an old agent runs there, make a new token";
}

}  // namespace

Winsock::Winsock() {
    WSADATA data = {};
    const int error = WSAStartup(MAKEWORD(2, 2), &data);
    if (error != 0) {
        throw pcscd::systemFailure("no sockets", static_cast<DWORD>(error));
    }
}

Winsock::~Winsock() {
    WSACleanup();
}

AgentStream::AgentStream(const Peer& peer, const link::Origin& origin, HANDLE interrupt)
    : socket_(connectToAny(peer.address, writing_, interrupt, peer.helloLimit)) {
    std::array<std::uint8_t, link::kAgentHelloSize> answer = {};
    if (!write(link::encodeRelayHello(peer.token, origin), {interrupt}) ||
        !readAll(answer, interrupt, peer.helloLimit)) {
        throw std::runtime_error(
            "no answer: the agent does not run, has another token or too many connections (its log "
            "tells)");
    }
    const char* const complaint = complaintAbout(link::decodeAgentHello(answer, peer.token));
    if (complaint != nullptr) {
        throw std::runtime_error(complaint);
    }
}

pcscd::Outcome AgentStream::read(std::span<std::uint8_t> buffer, pcscd::Interrupts interrupts,
                                 pcscd::Limit limit) {
    return reading_.run(socket_.handle(), interrupts, limit, [&](OVERLAPPED* overlapped) {
        WSABUF target = bufferOf(buffer);
        DWORD flags = 0;
        return WSARecv(socket_.get(), &target, 1, nullptr, &flags, overlapped, nullptr) == 0;
    });
}

bool AgentStream::readAll(std::span<std::uint8_t> buffer, HANDLE interrupt, pcscd::Limit limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!buffer.empty()) {
        const auto rest = std::chrono::ceil<pcscd::Limit>(end - std::chrono::steady_clock::now());
        const pcscd::Outcome outcome = read(buffer, {interrupt}, std::max(rest, pcscd::Limit(0)));
        if (outcome.error != ERROR_SUCCESS || outcome.count == 0) {
            return false;
        }
        buffer = buffer.subspan(outcome.count);
    }
    return true;
}

bool AgentStream::write(std::span<const std::uint8_t> bytes, pcscd::Interrupts interrupts) {
    const pcscd::Outcome outcome =
        writing_.run(socket_.handle(), interrupts, pcscd::kNoLimit, [&](OVERLAPPED* overlapped) {
            WSABUF source = bufferOf(bytes);
            return WSASend(socket_.get(), &source, 1, nullptr, 0, overlapped, nullptr) == 0;
        });
    return outcome.error == ERROR_SUCCESS && outcome.count == bytes.size();
}

void AgentStream::finishWriting() {
    shutdown(socket_.get(), SD_SEND);
}

}  // namespace tez::relay
