#include "readers/wait_halves.h"

#include "context/context_registry.h"

namespace tez {

WaitHalves::WaitHalves(const StatusChange& statusChange)
    : call(statusChange),
      systemContext(call.state == ServiceState::RemoteOnly ? 0 : getLocalContext(call.context)),
      localEntries{call.entries, {}, 0},
      remoteEntries{call.entries, {}, 0},
      local(systemContext, call.timeout, call.wait),
      remote(call.log, call.state, remoteEntries),
      owner(call.log, call.context, call.timeout, call.wait, local, remote) {}

WaitHalves::Codes WaitHalves::run(bool isSideBySide, bool isRemoteRun) {
    if (systemContext != 0) {
        local.prepare(localEntries);
    }
    if (isSideBySide) {
        call.wait.openWake();
        local.startOnWorker();
    } else if (call.timeout == 0) {
        local.runHere();
    }
    Codes codes = {SCARD_S_SUCCESS, SCARD_E_NO_SERVICE};
    if (isRemoteRun) {
        codes.remote = owner.runRemote();
    }
    call.log.debug("intermediate rv: 0x%08lX", static_cast<unsigned long>(codes.remote));
    if (!local.isEmpty()) {
        codes.local = owner.finishLocal(codes.remote);
        call.log.debug("localRv: 0x%08lX", static_cast<unsigned long>(codes.local));
        local.merge(localEntries.states);
    }
    return codes;
}

}  // namespace tez
