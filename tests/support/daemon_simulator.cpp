#include "daemon_simulator.h"

#include <algorithm>
#include <utility>

#include "record_codec.h"

namespace tez::test {
namespace {

constexpr std::size_t kRequestHeaderSize = 12;
constexpr std::size_t kOptionSize = 4;
constexpr std::size_t kVersionSize = 8;
constexpr std::size_t kLongestToken = std::size_t{64} << 10;
constexpr std::size_t kLongestBody = std::size_t{16} << 20;

template <typename Function, typename Argument>
void notify(const Function& function, const Argument& argument) {
    if (function) {
        function(argument);
    }
}

bool writeAll(PipeConnection& pipe, const std::vector<Bytes>& blocks) {
    return std::all_of(blocks.begin(), blocks.end(), [&](const Bytes& block) {
        // Writing nothing would still end a client's read on some systems.
        return block.empty() || pipe.write(block);
    });
}

}  // namespace

DaemonSimulator::DaemonSimulator(SimulatedService& service) : DaemonSimulator(service, Options{}) {}

DaemonSimulator::DaemonSimulator(SimulatedService& service, Options options)
    : service_(service),
      commands_(service),
      listener_(
          std::move(options.pipe), [this](PipeConnection& pipe) { serve(pipe); },
          [this](std::uint64_t connection) {
              notify(observer().connected, connection);
              noteProgress();
          },
          [this](std::uint64_t connection) {
              notify(observer().disconnected, connection);
              noteProgress();
          }),
      version_(options.version) {}

DaemonSimulator::~DaemonSimulator() {
    stop();
}

void DaemonSimulator::start() {
    listener_.start();
}

void DaemonSimulator::stop() {
    listener_.close();
    service_.releaseAll();
    listener_.join();
    // A request that was being served meanwhile may have made another one.
    service_.releaseAll();
    noteProgress();
}

bool DaemonSimulator::serving() const {
    return listener_.serving();
}

void DaemonSimulator::setVersion(std::uint32_t major, std::uint32_t minor) {
    const std::scoped_lock lock(mutex_);
    version_ = {major, minor};
}

void DaemonSimulator::setReplyVersion(bool reply) {
    const std::scoped_lock lock(mutex_);
    replyVersion_ = reply;
}

void DaemonSimulator::on(Command command, Handler handler) {
    const std::scoped_lock lock(mutex_);
    handlers_[command] = std::move(handler);
}

void DaemonSimulator::restore(Command command) {
    const std::scoped_lock lock(mutex_);
    handlers_.erase(command);
}

void DaemonSimulator::setObserver(Observer observer) {
    const std::scoped_lock lock(mutex_);
    observer_ = std::move(observer);
}

DaemonSimulator::Observer DaemonSimulator::observer() const {
    const std::scoped_lock lock(mutex_);
    return observer_;
}

void DaemonSimulator::pauseReading() {
    listener_.pauseReading();
}

void DaemonSimulator::resumeReading() {
    listener_.resumeReading();
}

bool DaemonSimulator::send(std::uint64_t connection, const std::vector<Bytes>& blocks) {
    const std::shared_ptr<PipeConnection> pipe = listener_.find(connection);
    return pipe != nullptr && writeAll(*pipe, blocks);
}

bool DaemonSimulator::closeConnection(std::uint64_t connection) {
    const bool closed = listener_.close(connection);
    noteProgress();
    return closed;
}

void DaemonSimulator::closeAllConnections() {
    listener_.closeConnections();
    noteProgress();
}

std::vector<std::uint64_t> DaemonSimulator::openConnections() const {
    return listener_.open();
}

std::uint64_t DaemonSimulator::acceptedConnections() const {
    return listener_.accepted();
}

std::vector<Handshake> DaemonSimulator::handshakes() const {
    const std::scoped_lock lock(mutex_);
    return handshakes_;
}

std::vector<Request> DaemonSimulator::requests() const {
    const std::scoped_lock lock(mutex_);
    return requests_;
}

std::vector<Request> DaemonSimulator::requests(Command command) const {
    std::vector<Request> found = requests();
    std::erase_if(found, [&](const Request& request) { return request.command != command; });
    return found;
}

void DaemonSimulator::clearRecords() {
    const std::scoped_lock lock(mutex_);
    handshakes_.clear();
    requests_.clear();
}

bool DaemonSimulator::waitForRequest(Command command, std::size_t count, Timeout timeout) const {
    return waitUntil([&] { return requests(command).size() >= count; }, timeout);
}

bool DaemonSimulator::waitUntil(const std::function<bool()>& predicate, Timeout timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        std::unique_lock lock(mutex_);
        const std::uint64_t seen = progress_;
        lock.unlock();
        if (predicate()) {
            return true;
        }
        lock.lock();
        if (!progressed_.wait_until(lock, deadline, [&] { return progress_ != seen; })) {
            return false;
        }
    }
}

void DaemonSimulator::noteProgress() {
    const std::scoped_lock lock(mutex_);
    ++progress_;
    progressed_.notify_all();
}

void DaemonSimulator::serve(PipeConnection& pipe) {
    const std::optional<ProtocolVersion> version = shakeHands(pipe);
    while (version && serveRequest(pipe, *version)) {
    }
}

/// The version that the client was told; nullopt when the pipe broke before.
std::optional<ProtocolVersion> DaemonSimulator::shakeHands(PipeConnection& pipe) {
    Handshake handshake{pipe.number(), {}, Bytes(kOptionSize), {}};
    do {
        std::uint8_t next = 0;
        if (handshake.token.size() == kLongestToken || pipe.read({&next, 1}) != 1) {
            return std::nullopt;
        }
        handshake.token.push_back(next);
    } while (handshake.token.back() != 0);
    if (pipe.read(handshake.option) != kOptionSize) {
        return std::nullopt;
    }

    bool reply = false;
    {
        const std::scoped_lock lock(mutex_);
        handshake.version = version_;
        handshakes_.push_back(handshake);
        reply = replyVersion_;
    }
    notify(observer().handshake, handshake);
    if (reply) {
        Bytes record(kVersionSize);
        putU32(record, 0, handshake.version.major);
        putU32(record, 4, handshake.version.minor);
        if (!pipe.write(record)) {
            return std::nullopt;
        }
    }
    noteProgress();
    return handshake.version;
}

/// False when the connection is to end.
bool DaemonSimulator::serveRequest(PipeConnection& pipe, ProtocolVersion version) {
    Request request{pipe.number(), version, Bytes(kRequestHeaderSize), {}, {}, true};
    if (pipe.read(request.header) != kRequestHeaderSize) {
        return false;
    }
    const std::size_t size = u32At(request.header, 0);
    request.command = static_cast<Command>(u32At(request.header, 4));
    if (size <= kLongestBody) {
        request.body.resize(size);
        request.body.resize(pipe.read(request.body));
    }
    request.complete = request.body.size() == size;
    {
        const std::scoped_lock lock(mutex_);
        requests_.push_back(request);
    }
    notify(observer().request, request);
    noteProgress();

    const Reply reply = replyTo(request);
    const bool goesOn = writeAll(pipe, reply.blocks) && !reply.close;
    noteProgress();
    return goesOn;
}

Reply DaemonSimulator::replyTo(const Request& request) {
    Handler handler;
    {
        const std::scoped_lock lock(mutex_);
        const auto found = handlers_.find(request.command);
        if (found != handlers_.end()) {
            handler = found->second;
        }
    }
    if (handler) {
        if (std::optional<Reply> reply = handler(request)) {
            return std::move(*reply);
        }
    }
    return commands_.answer(request);
}

}  // namespace tez::test
