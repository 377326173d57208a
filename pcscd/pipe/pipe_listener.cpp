#include "pipe/pipe_listener.h"

#include <utility>

namespace tez::pcscd {

PipeListener::~PipeListener() {
    close();
}

void PipeListener::start() {
    if (serving()) {
        return;
    }
    setServing(true);  // a client can be there before the server is
    try {
        // A client that is turned away sees its pipe break, and nobody else need know.
        server_.emplace(
            settings_,
            [this](UniqueHandle instance, HANDLE /*end*/) { serve(std::move(instance)); },
            [](const std::string& /*complaint*/) {});
    } catch (...) {
        setServing(false);
        throw;
    }
}

void PipeListener::close() {
    setServing(false);
    if (server_) {
        server_->close();
    }
    closeConnections();
}

bool PipeListener::serving() const {
    const std::scoped_lock lock(mutex_);
    return serving_;
}

void PipeListener::setServing(bool serving) {
    const std::scoped_lock lock(mutex_);
    serving_ = serving;
}

/// Null when the pipes have been closed since the client came.
std::shared_ptr<PipeConnection> PipeListener::enter(UniqueHandle instance) {
    const std::scoped_lock lock(mutex_);
    if (!serving_) {
        return nullptr;
    }
    auto connection = std::make_shared<PipeConnection>(++accepted_, std::move(instance));
    if (paused_) {
        connection->pauseReading();
    }
    open_.emplace(connection->number(), connection);
    return connection;
}

void PipeListener::serve(UniqueHandle instance) {
    const std::shared_ptr<PipeConnection> connection = enter(std::move(instance));
    if (connection == nullptr) {
        return;
    }
    const auto end = [&] {
        connection->close();
        forget(connection->number());
    };
    try {
        serve_(*connection);
    } catch (...) {
        end();
        throw;
    }
    end();
}

void PipeListener::forget(std::uint64_t connection) {
    const std::scoped_lock lock(mutex_);
    open_.erase(connection);
}

bool PipeListener::close(std::uint64_t connection) {
    const std::shared_ptr<PipeConnection> found = find(connection);
    if (found == nullptr) {
        return false;
    }
    found->close();
    forget(connection);
    return true;
}

void PipeListener::closeConnections() {
    for (const std::uint64_t connection : open()) {
        close(connection);
    }
}

void PipeListener::pauseReading() {
    Connections connections;
    {
        const std::scoped_lock lock(mutex_);
        paused_ = true;
        connections = open_;
    }
    for (const auto& [number, connection] : connections) {
        connection->pauseReading();
    }
}

void PipeListener::resumeReading() {
    const std::scoped_lock lock(mutex_);
    paused_ = false;
    for (const auto& [number, connection] : open_) {
        connection->resumeReading();
    }
}

std::shared_ptr<PipeConnection> PipeListener::find(std::uint64_t connection) const {
    const std::scoped_lock lock(mutex_);
    const auto found = open_.find(connection);
    return found == open_.end() ? nullptr : found->second;
}

std::vector<std::uint64_t> PipeListener::open() const {
    const std::scoped_lock lock(mutex_);
    std::vector<std::uint64_t> numbers;
    for (const auto& [number, connection] : open_) {
        numbers.push_back(number);
    }
    return numbers;
}

std::uint64_t PipeListener::accepted() const {
    const std::scoped_lock lock(mutex_);
    return accepted_;
}

}  // namespace tez::pcscd
