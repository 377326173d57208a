#include "pipe/pipe_server.h"

#include <iterator>
#include <utility>

#include "pipe/system_failure.h"

namespace tez::pcscd {
namespace {

/// ms until another try to make an instance that the system had no means for.
constexpr DWORD kRetry = 100;

/// Wine lets anybody join a pipe in spite of FILE_FLAG_FIRST_PIPE_INSTANCE.
bool exists(const std::string& pipe) {
    return WaitNamedPipeA(pipe.c_str(), 1) != FALSE || GetLastError() != ERROR_FILE_NOT_FOUND;
}

}  // namespace

PipeServer::PipeServer(Settings settings, Serve serve, Complain complain)
    : settings_(std::move(settings)), serve_(std::move(serve)), complain_(std::move(complain)) {
    if (exists(settings_.name)) {
        throw systemFailure(settings_.name + " belongs to another program", ERROR_PIPE_BUSY);
    }
    waiting_.front() = makeInstance(true);
    fillUp();  // so that the first clients, too, find instances for all of them
    acceptor_ = std::thread([this] { acceptClients(); });
}

PipeServer::~PipeServer() {
    close();
    for (Worker& worker : workers_) {
        if (worker.thread.joinable()) {
            worker.thread.join();
        }
    }
}

void PipeServer::close() {
    SetEvent(end_.get());
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
}

PipeServer::Waiting PipeServer::makeInstance(bool first) const {
    const DWORD mode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
    UniqueHandle instance(CreateNamedPipeA(
        settings_.name.c_str(), first ? mode | FILE_FLAG_FIRST_PIPE_INSTANCE : mode,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        settings_.maxInstances, settings_.bufferSize, settings_.bufferSize, settings_.busyWait,
        settings_.access));
    if (!instance) {
        throw systemFailure("cannot make " + settings_.name +
                            (first ? ", perhaps as it belongs to another program" : ""));
    }
    return std::make_unique<WaitingInstance>(std::move(instance));
}

/// Makes the instances that are missing. False when some still are.
bool PipeServer::fillUp() {
    try {
        for (Waiting& waiting : waiting_) {
            if (waiting == nullptr) {
                waiting = makeInstance(false);
            }
        }
    } catch (const std::exception&) {
        return false;  // the clients that are there have all that the system gives
    }
    return true;
}

void PipeServer::acceptClients() {
    for (;;) {
        const bool complete = fillUp();
        std::array<HANDLE, 1 + kWaiting> events = {end_.get()};
        std::array<Waiting*, 1 + kWaiting> sources = {};
        DWORD count = 1;
        for (Waiting& waiting : waiting_) {
            if (waiting != nullptr) {
                sources[count] = &waiting;
                events[count++] = waiting->connected();
            }
        }
        const DWORD woken =
            WaitForMultipleObjects(count, events.data(), FALSE, complete ? INFINITE : kRetry);
        if (woken == WAIT_OBJECT_0) {
            break;
        }
        if (woken - WAIT_OBJECT_0 < count) {
            Waiting& source = *sources[woken - WAIT_OBJECT_0];
            UniqueHandle instance = source->take();
            source.reset();
            startWorker(std::move(instance));
        }
    }
    for (Waiting& waiting : waiting_) {
        waiting.reset();
    }
}

void PipeServer::startWorker(UniqueHandle instance) {
    workers_.remove_if([](Worker& worker) {
        if (worker.ended) {
            worker.thread.join();
        }
        return !worker.thread.joinable();
    });
    try {
        Worker& worker = workers_.emplace_back();
        worker.thread = std::thread([this, &worker, pipe = std::move(instance)]() mutable {
            try {
                serve_(std::move(pipe), end_.get());
            } catch (const std::exception& failure) {
                turnAway(failure);
            }
            worker.ended = true;
        });
    } catch (const std::exception& failure) {
        turnAway(failure);
    }
}

void PipeServer::turnAway(const std::exception& failure) const {
    if (!isSet(end_.get())) {
        complain_(std::string("a client is turned away: ") + failure.what());
    }
}

}  // namespace tez::pcscd
