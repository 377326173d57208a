#include "core/daemon.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <future>
#include <utility>

#include "core/commands.h"
#include "core/request_queue.h"
#include "wire/message_header.h"

namespace tez::pcscd {
namespace {

constexpr std::size_t kOptionSize = 4;
constexpr std::size_t kLongestToken = std::size_t{64} << 10;
constexpr std::size_t kLongestBody = std::size_t{16} << 20;

bool writeAll(ByteStream& stream, const std::vector<Bytes>& blocks) {
    return std::ranges::all_of(blocks, [&](const Bytes& block) {
        // Writing nothing would still end a client's read on some systems.
        return block.empty() || stream.write(block);
    });
}

/// Reads what a header announces, with memory for no more than what has arrived and as much again.
Bytes readBody(ByteStream& stream, std::size_t size) {
    constexpr std::size_t kFirstPiece = std::size_t{64} << 10;
    Bytes body;
    for (std::size_t arrived = 0; arrived < size && arrived == body.size();) {
        body.resize(std::min(size, std::max(kFirstPiece, 2 * arrived)));
        arrived += stream.read(std::span(body).subspan(arrived));
        if (arrived < body.size()) {
            body.resize(arrived);
            break;
        }
    }
    return body;
}

/// nullopt when the stream ends, or announces more than any request has.
std::optional<Request> readRequest(ByteStream& stream, std::uint64_t connection,
                                   ProtocolVersion version) {
    Request request{connection, version, Bytes(sizeof(MessageHeader)), {}, {}, true};
    if (stream.read(request.header) != request.header.size()) {
        return std::nullopt;
    }
    MessageHeader header{};
    std::memcpy(&header, request.header.data(), sizeof header);
    request.command = static_cast<Command>(header.command);
    if (header.size <= kLongestBody) {
        request.body = readBody(stream, header.size);
    }
    request.complete = request.body.size() == header.size;
    return request;
}

/// Ends a connection with a scope, however that is left: neither of its two threads is of any use
/// without the other.
class Ending {
  public:
    Ending(ByteStream& stream, RequestQueue& requests) : stream_(stream), requests_(requests) {}
    ~Ending() {
        requests_.close();
        stream_.close();
    }
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;

  private:
    ByteStream& stream_;
    RequestQueue& requests_;
};

}  // namespace

Reply Daemon::greet(const Handshake& handshake) {
    const std::uint32_t numbers[] = {handshake.version.major, handshake.version.minor};
    Bytes answer(sizeof numbers);
    std::memcpy(answer.data(), numbers, sizeof numbers);
    return Reply::of({std::move(answer)});
}

Reply Daemon::answer(const Request& request, Clients::Process process) {
    return answerRequest(service_, clients_, process, request);
}

/// The version that the client was told; nullopt when the stream ended before.
std::optional<ProtocolVersion> Daemon::shakeHands(ByteStream& stream, std::uint64_t connection) {
    Handshake handshake{connection, {}, Bytes(kOptionSize), {}};
    do {
        std::uint8_t next = 0;
        if (handshake.token.size() == kLongestToken || stream.read({&next, 1}) != 1) {
            return std::nullopt;
        }
        handshake.token.push_back(next);
    } while (handshake.token.back() != 0);
    if (stream.read(handshake.option) != kOptionSize) {
        return std::nullopt;
    }
    handshake.version = version_;
    const Reply greeting = greet(handshake);
    if (!writeAll(stream, greeting.blocks) || greeting.close) {
        return std::nullopt;
    }
    return handshake.version;
}

void Daemon::serve(ByteStream& stream, std::uint64_t connection, Clients::Process process) {
    // What is asked for can take days, and the client can end meanwhile: one thread answers, this
    // one keeps an eye on the stream. It comes first: when there is none to be had, nothing has
    // happened yet.
    RequestQueue requests;
    std::future<void> answering = std::async(std::launch::async, [&] {
        const Ending ending(stream, requests);
        while (const std::optional<Request> request = requests.take()) {
            const Reply reply = answer(*request, process);
            if (!writeAll(stream, reply.blocks) || reply.close) {
                break;
            }
        }
    });
    std::exception_ptr failure;
    try {
        const Ending ending(stream, requests);
        clients_.enter(process);
        opened(connection);
        if (const std::optional<ProtocolVersion> version = shakeHands(stream, connection)) {
            std::optional<Request> request;
            do {
                request = readRequest(stream, connection, *version);
            } while (request && requests.put(std::move(*request)));
        }
    } catch (...) {
        failure = std::current_exception();
    }
    closed(connection);
    release(clients_.leave(process));
    answering.wait();
    release(clients_.leftBehind(process));
    if (failure) {
        std::rethrow_exception(failure);
    }
    answering.get();
}

void Daemon::release(const Contexts& contexts) {
    // What the program has done to a card, such as showing a PIN, is for no other one.
    service_.closeContexts(contexts, disposition::kReset);
}

void Daemon::releaseAll() {
    clients_.forgetContexts();
    service_.releaseAll();
}

}  // namespace tez::pcscd
