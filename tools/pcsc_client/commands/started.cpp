#include <memory>
#include <optional>

#include "commands/commands.h"
#include "deadline.h"
#include "failure.h"
#include "output.h"
#include "result_names.h"

namespace tez::client {
namespace {

/// The event that is set while a smart-card service runs; needs no context.
class StartedEvent {
  public:
    StartedEvent() : handle_(SCardAccessStartedEvent()) {
        if (handle_ == nullptr) {
            check("SCardAccessStartedEvent", static_cast<LONG>(GetLastError()));
            throw Failure("SCardAccessStartedEvent: there is no started event");
        }
    }
    ~StartedEvent() { SCardReleaseStartedEvent(); }
    StartedEvent(const StartedEvent&) = delete;
    StartedEvent& operator=(const StartedEvent&) = delete;

    bool wait(DWORD milliseconds) const {
        return WaitForSingleObject(handle_, milliseconds) == WAIT_OBJECT_0;
    }

  private:
    HANDLE handle_;
};

}  // namespace

void addStarted(CLI::App& app, Session& /*session*/) {
    CLI::App* const command = app.add_subcommand(
        "started", "Wait for the event that says that a smart-card service runs");
    const auto timeout = std::make_shared<std::optional<unsigned>>();
    addTimeoutOption(*command, *timeout, "fail when it is not set after so many seconds");
    command->callback([timeout] {
        const Deadline deadline(*timeout);
        const StartedEvent event;
        printField("at once", event.wait(0) ? "set" : "not set");
        const bool isSet = event.wait(deadline.remaining());
        printField("then", isSet ? "set: a smart-card service runs" : "not set");
        if (!isSet) {
            throw Failure("no smart-card service has started in time");
        }
    });
}

}  // namespace tez::client
