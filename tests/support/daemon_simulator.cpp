#include "daemon_simulator.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tez::test {

DaemonSimulator::DaemonSimulator(CardService& service) : DaemonSimulator(service, Options{}) {}

DaemonSimulator::DaemonSimulator(CardService& service, Options options)
    : PipeDaemon(service, options.version, std::move(options.pipe)) {}

DaemonSimulator::~DaemonSimulator() {
    stop();
}

void DaemonSimulator::stop() {
    PipeDaemon::stop();
    noteProgress();
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
    listener().pauseReading();
}

void DaemonSimulator::resumeReading() {
    listener().resumeReading();
}

bool DaemonSimulator::send(std::uint64_t connection, const std::vector<Bytes>& blocks) {
    const std::shared_ptr<PipeConnection> pipe = listener().find(connection);
    return pipe != nullptr &&
           std::ranges::all_of(blocks, [&](const Bytes& block) { return pipe->write(block); });
}

bool DaemonSimulator::closeConnection(std::uint64_t connection) {
    const bool closed = listener().close(connection);
    noteProgress();
    return closed;
}

void DaemonSimulator::closeAllConnections() {
    listener().closeConnections();
    noteProgress();
}

std::vector<std::uint64_t> DaemonSimulator::openConnections() const {
    return listener().open();
}

std::uint64_t DaemonSimulator::acceptedConnections() const {
    return listener().accepted();
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

void DaemonSimulator::opened(std::uint64_t /*connection*/) {
    noteProgress();
}

void DaemonSimulator::closed(std::uint64_t connection) {
    PipeDaemon::closed(connection);
    if (const Observer watching = observer(); watching.disconnected) {
        watching.disconnected(connection);
    }
    noteProgress();
}

Reply DaemonSimulator::greet(const Handshake& handshake) {
    bool reply = false;
    {
        const std::scoped_lock lock(mutex_);
        handshakes_.push_back(handshake);
        reply = replyVersion_;
    }
    if (const Observer watching = observer(); watching.handshake) {
        watching.handshake(handshake);
    }
    noteProgress();
    return reply ? PipeDaemon::greet(handshake) : Reply::silence();
}

Reply DaemonSimulator::answer(const Request& request, Clients::Process process) {
    Handler handler;
    {
        const std::scoped_lock lock(mutex_);
        requests_.push_back(request);
        const auto found = handlers_.find(request.command);
        if (found != handlers_.end()) {
            handler = found->second;
        }
    }
    noteProgress();
    if (handler) {
        if (std::optional<Reply> reply = handler(request)) {
            return std::move(*reply);
        }
    }
    return PipeDaemon::answer(request, process);
}

}  // namespace tez::test
