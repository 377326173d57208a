#include <memory>
#include <optional>

#include "commands/commands.h"
#include "deadline.h"
#include "failure.h"
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

void addStarted(CLI::App& app, Client& client) {
    CLI::App* const command = app.add_subcommand(
        "started", "Wait for the event that says that a smart-card service runs");
    const auto timeout = std::make_shared<std::optional<unsigned>>();
    addTimeoutOption(*command, *timeout, "fail when it is not set after so many seconds");
    client.report.addJsonOption(*command);
    command->callback([&client, timeout] {
        const Deadline deadline(*timeout);
        const StartedEvent event;
        const bool isSetAtOnce = event.wait(0);
        client.report.field("at once", isSetAtOnce ? "set" : "not set");
        const bool isSet = event.wait(deadline.remaining());
        client.report.field("then", isSet ? "set: a smart-card service runs" : "not set");
        client.report.data()["atOnce"] = isSetAtOnce;
        client.report.data()["then"] = isSet;
        if (!isSet) {
            throw Failure("no smart-card service has started in time");
        }
    });
}

}  // namespace tez::client
