#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

#include "core/card_service.h"

namespace tez::pcscd {

/// The programs that are connected, by the id of their process, and the contexts that each of them
/// holds. A context belongs to no connection: a program has several, and makes and drops them as it
/// likes. It is gone when the last one has ended and none has come for a while. Thread-safe.
class Clients {
  public:
    /// The process id, or more where several machines have processes.
    using Process = std::uint64_t;

    /// A connection of the process has begun.
    void enter(Process process);
    /// A connection of the process has ended. When it was the last one, waits up to half a second
    /// for another. @return the contexts that are to be released now, as the program is gone.
    [[nodiscard]] Contexts leave(Process process);

    void hold(Process process, Context context);
    void letGo(Process process, Context context);
    /// The contexts of a process that was gone before it held them: made by a call that was still
    /// being served when its last connection ended. Empty while the process is connected.
    [[nodiscard]] Contexts leftBehind(Process process);

    /// Forgets all contexts, for instance because the service has released them.
    void forgetContexts();

  private:
    struct Program {
        int connections = 0;
        Contexts contexts;
    };

    Contexts takeOut(Process process);

    std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::map<Process, Program> programs_;
};

}  // namespace tez::pcscd
