#include <bit>
#include <cstring>
#include <string>

#include "carddb/remote_data.h"
#include "common/copy_out.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/local_calls.h"
#include "local/winscard_table.h"
#include "log/call_frame.h"
#include "log/log_sink.h"
#include "log/value_format.h"
#include "wire/database_records.h"

using namespace tez;

namespace {

std::string_view withNul(const char* text) {
    return {text, std::strlen(text) + 1};
}

void logData(const FunctionLog& log, const void* data, DWORD length) {
    if (isLogged(LogLevel::Debug)) {
        log.debug("    Data %s", formatHexDump(data, length).get());
    }
}

CacheRecord cacheRecord(std::uint64_t remoteContext, const UUID& identifier, DWORD freshness,
                        DWORD length) {
    return {remoteContext, std::bit_cast<WireGuid>(identifier), freshness, length, 0};
}

struct ReadArguments {
    UUID* identifier;
    DWORD freshness;
    LPSTR lookupName;
    PBYTE data;
    DWORD* length;
};

LONG readRemotely(const RemoteCall& call, const ReadArguments& arguments, bool& hasArrived) {
    if (arguments.identifier == nullptr) {
        return refuse(call.log, "cardIdentifier cannot be NULL");
    }
    if (arguments.lookupName == nullptr) {
        return refuse(call.log, "LookupName cannot be NULL");
    }
    call.log.debug("    lookupName is %s", arguments.lookupName);
    if (arguments.length == nullptr) {
        return refuse(call.log, "dataLen cannot be NULL");
    }
    call.log.debug("    dataLen is %lu", *arguments.length);
    if (!checkKnown(call.log, call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        CacheRecord record =
            cacheRecord(remoteContext, *arguments.identifier, arguments.freshness, 0);
        LONG rv = exchange.call(CMD_READ_CACHE, record, withNul(arguments.lookupName));
        if (rv == SCARD_S_SUCCESS) {
            rv = handOutData(exchange, record.cbData, arguments.data, arguments.length,
                             "Failed to read data for cache data", hasArrived, [&](DWORD error) {
                                 call.log.debug("Error while allocating data: %lu", error);
                             });
        }
        if (hasArrived) {
            *arguments.identifier = std::bit_cast<UUID>(record.cardIdentifier);
        }
        return rv;
    });
}

void logRead(const CallFrame& frame, const ReadArguments& arguments, bool isAllocated,
             bool hasArrived) {
    const DWORD length = valueOf(arguments.length);
    frame.out("dataLen %lu", length);
    const BYTE* const data = handedOut(arguments.data, isAllocated);
    if (hasArrived && data != nullptr) {
        logData(frame.log(), data, length);
    }
}

struct WriteArguments {
    UUID* identifier;
    DWORD freshness;
    LPSTR lookupName;
    PBYTE data;
    DWORD length;
};

LONG writeRemotely(const RemoteCall& call, const WriteArguments& arguments) {
    if (arguments.identifier == nullptr) {
        return refuse(call.log, "cardIdentifier cannot be NULL");
    }
    if (arguments.lookupName == nullptr) {
        return refuse(call.log, "LookupName cannot be NULL");
    }
    call.log.debug("    LookupName is %s", arguments.lookupName);
    if (arguments.data == nullptr) {
        return refuse(call.log, "data cannot be NULL");
    }
    if (!isSendable(sizeof(CacheRecord), arguments.length)) {
        return SCARD_E_INVALID_PARAMETER;
    }
    logData(call.log, arguments.data, arguments.length);
    if (arguments.length == 0) {
        return refuse(call.log, "No data to write");
    }
    call.log.debug("    dataLen %lu", arguments.length);
    if (!checkKnown(call.log, call.context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        // The data first and the name behind it, the reverse of reading.
        std::string tail(reinterpret_cast<const char*>(arguments.data), arguments.length);
        tail.append(withNul(arguments.lookupName));
        CacheRecord record = cacheRecord(remoteContext, *arguments.identifier, arguments.freshness,
                                         arguments.length);
        const LONG rv = exchange.call(CMD_WRITE_CACHE, record, tail);
        if (rv == SCARD_S_SUCCESS) {
            *arguments.identifier = std::bit_cast<UUID>(record.cardIdentifier);
        }
        return rv;
    });
}

}  // namespace

LONG WINAPI SCardReadCacheA(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter,
                            LPSTR LookupName, PBYTE Data, DWORD* DataLen) {
    static constexpr CallFrame frame("SCardReadCacheA", "READ_CACHE");
    const ServiceState state = getServiceState();
    const DWORD room = valueOf(DataLen);
    const ReadArguments arguments = {CardIdentifier, FreshnessCounter, LookupName, Data, DataLen};
    bool hasArrived = false;
    frame.in("%Ix, %p, %lu, %p, %p, %p", hContext, static_cast<void*>(CardIdentifier),
             FreshnessCounter, static_cast<void*>(LookupName), static_cast<void*>(Data),
             static_cast<void*>(DataLen));
    return frame.run(
        [&] {
            return localFirst(
                frame.log(), state,
                [&] {
                    const LONG rv = withLocalContext(hContext, [&](SCARDCONTEXT systemContext) {
                        return LocalSCardReadCacheA(systemContext, CardIdentifier, FreshnessCounter,
                                                    LookupName, Data, DataLen);
                    });
                    hasArrived = rv == SCARD_S_SUCCESS;
                    return rv;
                },
                [&] {
                    restoreRoom(DataLen, room);
                    const RemoteCall call = {
                        .log = frame.log(), .state = state, .context = hContext};
                    return readRemotely(call, arguments, hasArrived);
                });
        },
        [&] { logRead(frame, arguments, room == SCARD_AUTOALLOCATE, hasArrived); });
}

LONG WINAPI SCardWriteCacheA(SCARDCONTEXT hContext, UUID* CardIdentifier, DWORD FreshnessCounter,
                             LPSTR LookupName, PBYTE Data, DWORD DataLen) {
    static constexpr CallFrame frame("SCardWriteCacheA", "WRITE_CACHE");
    const ServiceState state = getServiceState();
    const WriteArguments arguments = {CardIdentifier, FreshnessCounter, LookupName, Data, DataLen};
    frame.in("%Ix, %p, %lu, %p, %p, %lu", hContext, static_cast<void*>(CardIdentifier),
             FreshnessCounter, static_cast<void*>(LookupName), static_cast<void*>(Data), DataLen);
    return frame.run([&] {
        return localFirst(
            frame.log(), state,
            [&] {
                return withLocalContext(hContext, [&](SCARDCONTEXT systemContext) {
                    return callSystem(&WinscardTable::SCardWriteCacheA, systemContext,
                                      CardIdentifier, FreshnessCounter, LookupName, Data, DataLen);
                });
            },
            [&] {
                const RemoteCall call = {.log = frame.log(), .state = state, .context = hContext};
                return writeRemotely(call, arguments);
            });
    });
}
