#include "pipe/pipe_listener.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace tez::pcscd {

PipeListener::PipeListener(PipeOptions options, Serve serve)
    : options_(std::move(options)),
      serve_(std::move(serve)),
      stop_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}

PipeListener::~PipeListener() {
    close();
    join();
}

/// Wine does not enforce FILE_FLAG_FIRST_PIPE_INSTANCE: two programs would share the clients. The
/// claim is a named mutex that nobody waits for. Null, with the last error set, when it is taken.
UniqueHandle PipeListener::claimName() const {
    std::string name = "serving " + options_.name;
    std::replace(name.begin(), name.end(), '\\', '/');
    UniqueHandle claim(CreateMutexA(nullptr, FALSE, name.c_str()));
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
        return claim;
    }
    claim.reset();
    SetLastError(ERROR_PIPE_BUSY);
    return {};
}

UniqueHandle PipeListener::createInstance(bool first) const {
    const DWORD mode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
    return UniqueHandle(CreateNamedPipeA(
        options_.name.c_str(), first ? mode | FILE_FLAG_FIRST_PIPE_INSTANCE : mode,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        options_.maxInstances, options_.bufferSize, options_.bufferSize, options_.busyWait,
        nullptr));
}

/// Null when the server is to stop.
UniqueHandle PipeListener::createInstanceWhenFree() {
    std::unique_lock lock(mutex_);
    UniqueHandle instance;
    connectionEnded_.wait(lock, [&] {
        if (serving_) {
            instance = createInstance(false);
        }
        return !serving_ || instance;
    });
    return instance;
}

void PipeListener::start() {
    if (serving()) {
        return;
    }
    UniqueHandle claim = claimName();
    UniqueHandle first = claim ? createInstance(true) : UniqueHandle();
    if (!first) {
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                                "cannot serve " + options_.name);
    }
    {
        const std::scoped_lock lock(mutex_);
        serving_ = true;
    }
    claim_ = std::move(claim);
    ResetEvent(stop_.get());
    acceptor_ =
        std::thread([this, instance = std::move(first)]() mutable { listen(std::move(instance)); });
}

void PipeListener::close() {
    {
        const std::scoped_lock lock(mutex_);
        serving_ = false;
    }
    SetEvent(stop_.get());
    connectionEnded_.notify_all();
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    closeConnections();
    claim_.reset();
}

void PipeListener::join() {
    std::vector<std::thread> workers;
    {
        const std::scoped_lock lock(mutex_);
        workers.swap(workers_);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}

bool PipeListener::serving() const {
    const std::scoped_lock lock(mutex_);
    return serving_;
}

void PipeListener::listen(UniqueHandle instance) {
    while (instance && waitForClient(instance.get())) {
        // The next instance comes first: a client must find one even if this connection ends at
        // once and takes its own along.
        UniqueHandle next = createInstance(false);
        accept(std::move(instance));
        instance = next ? std::move(next) : createInstanceWhenFree();
    }
}

/// False when the server is to stop instead.
bool PipeListener::waitForClient(HANDLE instance) const {
    const UniqueHandle connected(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped{};
    overlapped.hEvent = connected.get();
    if (ConnectNamedPipe(instance, &overlapped) != FALSE) {
        return true;
    }
    switch (GetLastError()) {
        case ERROR_PIPE_CONNECTED:
        case ERROR_NO_DATA:  // connected and gone again: its thread will find out
            return WaitForSingleObject(stop_.get(), 0) != WAIT_OBJECT_0;
        case ERROR_IO_PENDING:
            break;
        default:
            return false;
    }
    const HANDLE events[] = {stop_.get(), connected.get()};
    const bool stopped = WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0;
    if (stopped) {
        CancelIoEx(instance, &overlapped);
    }
    DWORD none = 0;
    GetOverlappedResult(instance, &overlapped, &none, TRUE);
    return !stopped;
}

void PipeListener::accept(UniqueHandle instance) {
    const std::scoped_lock lock(mutex_);
    const auto connection = std::make_shared<PipeConnection>(++accepted_, std::move(instance));
    if (paused_) {
        connection->pauseReading();
    }
    open_.emplace(connection->number(), connection);
    workers_.emplace_back([this, connection] { run(connection); });
}

void PipeListener::run(const std::shared_ptr<PipeConnection>& connection) {
    serve_(*connection);
    connection->close();
    forget(connection->number());
}

void PipeListener::forget(std::uint64_t connection) {
    {
        const std::scoped_lock lock(mutex_);
        open_.erase(connection);
    }
    connectionEnded_.notify_all();
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
