#include "core/clients.h"

#include <chrono>
#include <utility>

namespace tez::pcscd {
namespace {

// A program may drop its only connection to make a new one. What it held must be free again within
// a second.
constexpr std::chrono::milliseconds kGrace{500};

}  // namespace

void Clients::enter(Process process) {
    const std::scoped_lock lock(mutex_);
    ++programs_[process].connections;
    changed_.notify_all();
}

Contexts Clients::leave(Process process) {
    std::unique_lock lock(mutex_);
    --programs_[process].connections;
    changed_.wait_for(lock, kGrace, [&] {
        const auto program = programs_.find(process);
        return program == programs_.end() || program->second.connections > 0 ||
               program->second.contexts.empty();
    });
    return takeOut(process);
}

Contexts Clients::leftBehind(Process process) {
    const std::scoped_lock lock(mutex_);
    return takeOut(process);
}

/// The contexts of a process without a connection, which is forgotten.
Contexts Clients::takeOut(Process process) {
    const auto program = programs_.find(process);
    if (program == programs_.end() || program->second.connections > 0) {
        return {};
    }
    Contexts contexts;
    contexts.swap(program->second.contexts);
    programs_.erase(program);
    return contexts;
}

void Clients::hold(Process process, Context context) {
    const std::scoped_lock lock(mutex_);
    programs_[process].contexts.insert(context);
}

void Clients::letGo(Process process, Context context) {
    const std::scoped_lock lock(mutex_);
    const auto program = programs_.find(process);
    if (program != programs_.end()) {
        program->second.contexts.erase(context);
    }
}

void Clients::forgetContexts() {
    const std::scoped_lock lock(mutex_);
    for (auto& [process, program] : programs_) {
        program.contexts.clear();
    }
    changed_.notify_all();
}

}  // namespace tez::pcscd
