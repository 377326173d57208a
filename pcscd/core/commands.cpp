#include "core/commands.h"

#include <algorithm>

#include "core/card_commands.h"
#include "core/database_commands.h"

namespace tez::pcscd {
namespace {

/// Null for a command that is not served.
const Served* findServed(Command command) {
    for (const std::span<const Served> commands : {cardCommands(), databaseCommands()}) {
        const auto served = std::ranges::find(commands, command, &Served::command);
        if (served != commands.end()) {
            return &*served;
        }
    }
    return nullptr;
}

}  // namespace

Reply answerRequest(CardService& service, Clients& clients, Clients::Process process,
                    const Request& request) {
    const Served* served = findServed(request.command);
    const std::span<const std::uint8_t> body = request.body;
    if (!request.complete || served == nullptr || body.size() < served->recordSize ||
        (body.size() > served->recordSize && !served->hasData)) {
        return Reply::closePipe();
    }
    const Call call{service, clients, process, request.version, body.subspan(served->recordSize)};
    return served->answer(call, body.first(served->recordSize));
}

}  // namespace tez::pcscd
