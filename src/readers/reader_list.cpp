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
#include "state/reader_names.h"
#include "wire/context_records.h"

using namespace tez;

namespace {

/// Room for the daemon's reader names in bytes: more than ten readers with the longest names that
/// fit a connect request.
constexpr DWORD kRemoteNamesSize = 2048;

struct ListArguments {
    SCARDCONTEXT context;
    LPCSTR groups;
    LPSTR readers;
    LPDWORD length;
};

/// Asks the daemon for its readers and notes them.
/// @param names  out on success: a well-formed multi-string.
LONG fetchRemoteNames(const FunctionLog& log, SCARDCONTEXT context, std::string& names) {
    std::uint64_t remoteContext = 0;
    if (context != 0) {
        const LONG rv = getRemoteContextVolatile(context, remoteContext, true);
        if (rv != SCARD_S_SUCCESS) {
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
        return rv;
    }
    exchange.announce(record.cchReaders);
    if (record.cchReaders > kRemoteNamesSize) {
        log.warning("Received reader names of %lu bytes, maximum value is %lu",
                    static_cast<unsigned long>(record.cchReaders), kRemoteNamesSize);
        return SCARD_F_INTERNAL_ERROR;
    }
    names.resize(record.cchReaders);
    rv = exchange.readAnnounced(names.data(), record.cchReaders,
                                "Failed to read data for reader names");
    if (rv == SCARD_S_SUCCESS) {
        closeMultiString(names);
        setRemoteReaderNames(names);
    }
    return rv;
}

/// The multi-string that the caller received, where it asked for one.
std::optional<std::string_view> receivedList(const ListArguments& arguments, bool isAllocated) {
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
    const LONG remoteRv = fetchRemoteNames(log, arguments.context, names);
    if (remoteRv != SCARD_S_SUCCESS) {
        return state == ServiceState::RemoteOnly ? remoteRv
                                                 : listLocalReaders(arguments, isAllocated);
    }
    if (state != ServiceState::RemoteOnly) {
        appendLocalNames(arguments, names);
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

LONG WINAPI SCardListReadersA(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders,
                              LPDWORD pcchReaders) {
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
