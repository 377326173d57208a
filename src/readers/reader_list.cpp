#include "readers/reader_list.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "common/copy_out.h"
#include "common/local_buffer.h"
#include "common/multi_string.h"
#include "common/scard_api.h"
#include "context/context_registry.h"
#include "context/routing.h"
#include "daemon/exchange.h"
#include "local/local_calls.h"
#include "log/call_frame.h"
#include "log/switches.h"
#include "readers/known_readers.h"
#include "state/reader_names.h"
#include "state/told_readers.h"
#include "wire/context_records.h"

using namespace tez;

namespace {

/// Room for the daemon's reader names in bytes: more than ten readers with the longest names that
/// fit a connect request.
constexpr DWORD kRemoteNamesSize = 2048;
/// The same with standard answers.
constexpr DWORD kStandardRemoteNamesSize = 64 * 1024;

DWORD remoteNamesSize() {
    return isStandardCallsEnabled() ? kStandardRemoteNamesSize : kRemoteNamesSize;
}

struct ListArguments {
    SCARDCONTEXT context;
    LPCSTR groups;
    LPSTR readers;
    LPDWORD length;
};

/// Asks the daemon for its readers and notes them.
/// @param names   out on success: a well-formed multi-string.
/// @param isLost  out: whether the code is that of the transport and not the daemon's.
LONG fetchRemoteNames(const FunctionLog& log, SCARDCONTEXT context, std::string& names,
                      bool& isLost) {
    isLost = true;  // until the daemon has answered
    std::uint64_t remoteContext = 0;
    if (context != 0) {
        const LONG rv = getRemoteContextVolatile(context, remoteContext, true);
        if (rv != SCARD_S_SUCCESS) {
            isLost = rv == SCARD_E_NO_SERVICE;
            return rv;
        }
    }
    Exchange exchange(log);
    if (!exchange.hasConnection()) {
        return SCARD_E_NO_SERVICE;
    }
    ListReadersRecord record = {remoteContext, 0, 0};
    LONG rv = exchange.call(CMD_LIST_READERS, record);
    if (rv != SCARD_S_SUCCESS) {
        isLost = record.rv == 0;
        return rv;
    }
    exchange.announce(record.cchReaders);
    if (record.cchReaders > remoteNamesSize()) {
        log.warning("Received reader names of %lu bytes, maximum value is %lu",
                    static_cast<unsigned long>(record.cchReaders), remoteNamesSize());
        return SCARD_F_INTERNAL_ERROR;
    }
    names.resize(record.cchReaders);
    rv = exchange.readAnnounced(names.data(), record.cchReaders,
                                "Failed to read data for reader names");
    if (rv == SCARD_S_SUCCESS) {
        isLost = false;
        closeMultiString(names);
        setRemoteReaderNames(names);
    }
    return rv;
}

/// The multi-string that the caller received, where it asked for one.
std::optional<std::string_view> receivedList(const ListArguments& arguments,
                                             bool isAllocated) noexcept {
    const char* const list = handedOut(arguments.readers, isAllocated);
    if (list == nullptr) {
        return std::nullopt;
    }
    return std::string_view(list, *arguments.length);
}

/// The host's readers alone, straight into the caller's buffer.
LONG listLocalReaders(const ListArguments& arguments, bool isAllocated) {
    const LONG rv = withLocalSide(arguments.context, [&arguments](SCARDCONTEXT systemContext) {
        return LocalSCardListReadersA(systemContext, arguments.groups, arguments.readers,
                                      arguments.length);
    });
    if (rv == SCARD_S_SUCCESS) {
        try {
            if (const auto list = receivedList(arguments, isAllocated)) {
                setLocalReaderNames(*list);
            } else {
                markLocalReaderNamesUntold();
            }
        } catch (const std::bad_alloc&) {
            if (isAllocated) {
                takeBack(arguments.readers);
            }
            throw;
        }
    }
    return rv;
}

/// Puts the host's readers behind the daemon's. Nothing is sorted or dropped: a name that both
/// sides have is listed twice. A failing or missing host leaves the daemon's alone.
void appendLocalNames(const ListArguments& arguments, std::string& names) {
    LocalBuffer local;
    if (withLocalSide(arguments.context, [&](SCARDCONTEXT systemContext) {
            return LocalSCardListReadersA(systemContext, arguments.groups, local.destination(),
                                          local.length());
        }) != SCARD_S_SUCCESS) {
        return;
    }
    setLocalReaderNames(local.text());
    names.pop_back();
    names.append(local.text());
    closeMultiString(names);
}

LONG listReaders(const FunctionLog& log, ServiceState state, const ListArguments& arguments,
                 bool isAllocated) {
    if (arguments.length == nullptr) {
        log.debug("pcchReaders cannot be NULL");
        return SCARD_E_INVALID_PARAMETER;
    }
    log.debug("    pcchReaders: %lu", *arguments.length);
    if (arguments.context != 0 && !isContextKnown(arguments.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    // The daemon is asked in every state; while it is away this fails without touching the pipe.
    std::string names;
    bool isDaemonLost = false;
    const LONG remoteRv = fetchRemoteNames(log, arguments.context, names, isDaemonLost);
    if (remoteRv != SCARD_S_SUCCESS) {
        return state == ServiceState::RemoteOnly ? remoteRv
                                                 : listLocalReaders(arguments, isAllocated);
    }
    if (state != ServiceState::RemoteOnly) {
        appendLocalNames(arguments, names);
    }
    if (names.front() == '\0' && isStandardCallsEnabled()) {
        return SCARD_E_NO_READERS_AVAILABLE;
    }
    return copyOutBuffer(names.data(), static_cast<DWORD>(names.size()), arguments.readers,
                         arguments.length, 1);
}

void logNames(const FunctionLog& log, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        log.debug("    %s", name.c_str());
    }
}

void logReceivedList(const FunctionLog& log, const ListArguments& arguments, bool isAllocated) {
    if (const auto list = receivedList(arguments, isAllocated)) {
        forEachName(*list, [&log](std::string_view name) {
            log.debug("    Reader: %s", std::string(name).c_str());
        });
    }
}

}  // namespace

namespace tez {

LONG listReadersUntold(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                       LPDWORD pcchReaders) noexcept {
    static constexpr CallFrame call("SCardListReadersA", "LIST_READERS");
    const ReaderListing listing = currentReaderListing();
    const ServiceState state = getServiceState();
    const bool isAllocated = pcchReaders != nullptr && *pcchReaders == SCARD_AUTOALLOCATE;
    const ListArguments arguments = {hContext, mszGroups, mszReaders, pcchReaders};
    call.in("%Ix, %p, %p", hContext, static_cast<void*>(mszReaders),
            static_cast<void*>(pcchReaders));
    return call.run([&]() -> LONG {
        const LONG rv = listReaders(call.log(), state, arguments, isAllocated);
        if (rv == SCARD_S_SUCCESS) {
            call.out("%lu", *pcchReaders);
            call.describe([&] { logReceivedList(call.log(), arguments, isAllocated); });
            markListReadersCalled(listing);
        }
        call.describe([&] {
            call.log().debug("local readers:");
            logNames(call.log(), copyLocalReaderNames());
            call.log().debug("remote readers:");
            logNames(call.log(), copyRemoteReaderNames());
        });
        // To the application, no service on either side means that there are no readers.
        return rv == SCARD_E_NO_SERVICE ? SCARD_E_NO_READERS_AVAILABLE : rv;
    });
}

void noteToldList(SCARDCONTEXT context, LPCSTR groups, LONG rv,
                  std::optional<std::string_view> names) noexcept {
    if (rv == SCARD_E_NO_READERS_AVAILABLE) {
        names = std::string_view();
    } else if (rv != SCARD_S_SUCCESS) {
        names.reset();
    }
    if (!names || !isStandardCallsEnabled()) {
        return;
    }
    try {
        ToldReaders told;
        told.names.emplace();
        forEachName(*names, [&told](std::string_view name) { told.names->emplace_back(name); });
        std::sort(told.names->begin(), told.names->end());
        if (groups != nullptr) {
            for (const char* group = groups; *group != '\0'; group += std::strlen(group) + 1) {
                told.groups.append(group) += '\0';
            }
        }
        tellReaders(context, std::move(told));
    } catch (const std::bad_alloc&) {
        // It is told again, rather than not at all.
        forgetToldReaders(context);
    }
}

ReaderSide ListedReaders::sideOf(std::string_view name) const noexcept {
    const auto isIn = [name](const std::vector<std::string>& list) {
        return std::find(list.begin(), list.end(), name) != list.end();
    };
    return isIn(local)    ? ReaderSide::Local
           : isIn(remote) ? ReaderSide::Remote
                          : ReaderSide::Neither;
}

std::vector<std::string> ListedReaders::names() const {
    std::vector<std::string> all = remote;
    all.insert(all.end(), local.begin(), local.end());
    return all;
}

ListedReaders listBothSides(const FunctionLog& log, ServiceState state, SCARDCONTEXT context,
                            const std::string& groups) {
    const ReaderListing listing = currentReaderListing();
    ListedReaders listed;
    if (state != ServiceState::LocalOnly) {
        std::string names;
        const LONG rv = fetchRemoteNames(log, context, names, listed.isDaemonLost);
        if (rv == SCARD_E_NO_READERS_AVAILABLE) {
            setRemoteReaderNames({});
        }
        listed.remote = copyRemoteReaderNames();
    }
    const SCARDCONTEXT systemContext =
        state == ServiceState::RemoteOnly ? 0 : getLocalContext(context);
    if (systemContext != 0) {
        LocalBuffer names;
        const LONG rv =
            LocalSCardListReadersA(systemContext, groups.empty() ? nullptr : groups.c_str(),
                                   names.destination(), names.length());
        if (rv == SCARD_S_SUCCESS || rv == SCARD_E_NO_READERS_AVAILABLE) {
            const std::string_view text = rv == SCARD_S_SUCCESS ? names.text() : std::string_view();
            forEachName(text, [&](std::string_view name) { listed.local.emplace_back(name); });
            if (groups.empty()) {
                setLocalReaderNames(text);
            }
        } else {
            listed.local = copyLocalReaderNames();
        }
    }
    if (!listed.isDaemonLost) {
        markListReadersCalled(listing);
    }
    return listed;
}

}  // namespace tez

LONG WINAPI SCardListReadersA(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                              LPDWORD pcchReaders) {
    const bool isAllocated = pcchReaders != nullptr && *pcchReaders == SCARD_AUTOALLOCATE;
    const LONG rv = listReadersUntold(hContext, mszGroups, mszReaders, pcchReaders);
    const bool isSuccess = rv == SCARD_S_SUCCESS;
    noteToldList(hContext, mszGroups, rv,
                 isSuccess
                     ? receivedList({hContext, mszGroups, mszReaders, pcchReaders}, isAllocated)
                     : std::nullopt);
    return rv;
}
