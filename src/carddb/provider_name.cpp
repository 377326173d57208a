#include <cstring>
#include <string_view>

#include "carddb/remote_call.h"
#include "common/copy_out.h"
#include "common/scard_api.h"
#include "context/routing.h"
#include "local/local_calls.h"
#include "log/call_frame.h"
#include "wire/database_records.h"
#include "wire/text_field.h"

using namespace tez;

namespace {

struct ProviderArguments {
    LPCSTR cardName;
    DWORD providerId;
    LPSTR provider;
    LPDWORD length;
};

/// @param name  out: the name with its NUL, of the record's length.
LONG getProviderRemotely(const RemoteCall& call, const ProviderArguments& arguments,
                         ProviderNameRecord& record, HeapPtr<char>& name) {
    if (arguments.length == nullptr) {
        return refuse(call.log, "pcchProvider cannot be NULL");
    }
    if (arguments.cardName == nullptr) {
        return refuse(call.log, "szCardName cannot be NULL");
    }
    if (!copyToField(record.szCardName, arguments.cardName)) {
        return SCARD_E_INVALID_VALUE;
    }
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        record.hContext = remoteContext;
        record.dwProviderId = arguments.providerId;
        const LONG rv =
            exchange.callFlagged(CMD_GET_CARD_TYPE_PROVIDER_NAME, record, call.redirection);
        if (rv != SCARD_S_SUCCESS) {
            return rv;
        }
        const std::uint32_t size = record.cchProvider;
        const LONG read = exchange.readBlock(size, name, "Failed to read data for provider name");
        // The block ends in a NUL of its own, which stands in for one that the daemon left out.
        if (read == SCARD_S_SUCCESS && (size == 0 || name.get()[size - 1] != '\0')) {
            ++record.cchProvider;
        }
        return read;
    });
}

LONG getProvider(const RemoteCall& call, const ProviderArguments& arguments) {
    if (isRemoteAllowed(call.state)) {
        const bool hasArguments = arguments.length != nullptr && arguments.cardName != nullptr;
        if (hasArguments && call.context != 0 && !isContextKnown(call.context)) {
            return SCARD_E_INVALID_PARAMETER;
        }
        ProviderNameRecord record = {};
        HeapPtr<char> name;
        const LONG rv = getProviderRemotely(call, arguments, record, name);
        // A name that the caller has no room for is found all the same: no reason to ask the host.
        if (rv == SCARD_S_SUCCESS) {
            return copyOutBuffer(name.get(), record.cchProvider, arguments.provider,
                                 arguments.length, 1);
        }
        if (call.state == ServiceState::RemoteOnly) {
            return rv;
        }
    }
    return withLocalSide(call.context, [&arguments](SCARDCONTEXT systemContext) {
        return LocalSCardGetCardTypeProviderNameA(systemContext, arguments.cardName,
                                                  arguments.providerId, arguments.provider,
                                                  arguments.length);
    });
}

void logProvider(const CallFrame& frame, const ProviderArguments& arguments, bool isAllocated) {
    const DWORD length = valueOf(arguments.length);
    frame.out("%lu", length);
    const char* const name = handedOut(arguments.provider, isAllocated);
    if (name != nullptr && length != 0) {
        frame.log().debug("    provider: %s", std::string(name, strnlen(name, length)).c_str());
    }
}

LONG setProviderRemotely(const RemoteCall& call, LPCSTR cardName, DWORD providerId,
                         LPCSTR provider) {
    ProviderNameRecord record = {};
    if (cardName == nullptr) {
        return SCARD_E_INVALID_PARAMETER;
    }
    if (!copyToField(record.szCardName, cardName)) {
        return SCARD_E_INVALID_VALUE;
    }
    const char* const name = provider == nullptr ? "" : provider;
    const std::string_view tail(name, std::strlen(name) + 1);
    return callRemotely(call, [&](Exchange& exchange, std::uint64_t remoteContext) {
        record.hContext = remoteContext;
        record.dwProviderId = providerId;
        record.cchProvider = static_cast<std::uint32_t>(tail.size());
        return exchange.callFlagged(CMD_SET_CARD_TYPE_PROVIDER_NAME, record, call.redirection,
                                    tail);
    });
}

}  // namespace

LONG WINAPI SCardGetCardTypeProviderNameA(SCARDCONTEXT hContext, LPCSTR szCardName,
                                          DWORD dwProviderId, LPSTR szProvider,
                                          LPDWORD pcchProvider) {
    static constexpr CallFrame frame("SCardGetCardTypeProviderNameA",
                                     "GET_CARD_TYPE_PROVIDER_NAME");
    const ServiceState state = getServiceState();
    const bool isAllocated = pcchProvider != nullptr && *pcchProvider == SCARD_AUTOALLOCATE;
    const ProviderArguments arguments = {szCardName, dwProviderId, szProvider, pcchProvider};
    frame.in("%Ix, %s, %lu, %p, %p, %lu", hContext, szCardName == nullptr ? "" : szCardName,
             dwProviderId, static_cast<void*>(szProvider), static_cast<void*>(pcchProvider),
             valueOf(pcchProvider));
    return frame.run(
        [&] {
            const RemoteCall call = {.log = frame.log(),
                                     .state = state,
                                     .context = hContext,
                                     .redirection = redirectionFlag(state)};
            return getProvider(call, arguments);
        },
        [&] { logProvider(frame, arguments, isAllocated); });
}

LONG WINAPI SCardSetCardTypeProviderNameA(SCARDCONTEXT hContext, LPCSTR szCardName,
                                          DWORD dwProviderId, LPCSTR szProvider) {
    static constexpr CallFrame frame("SCardSetCardTypeProviderNameA", "SET CARD TYPE PROVIDER NAME",
                                     ResultFormat::Decimal);
    const ServiceState state = getServiceState();
    frame.in("%Ix, %s, %lu, %s", hContext, szCardName, dwProviderId, szProvider);
    return frame.run([&]() -> LONG {
        if (isRemoteAllowed(state)) {
            if (isContextKnown(hContext)) {
                // As for every update the daemon's side takes a context only if the library does
                // not know it; in effect the null one, which the daemon sees as its context 0.
                return SCARD_E_INVALID_HANDLE;
            }
            const RemoteCall call = {.log = frame.log(),
                                     .state = state,
                                     .context = hContext,
                                     .redirection = redirectionFlag(state),
                                     .isGated = false};
            const LONG rv = setProviderRemotely(call, szCardName, dwProviderId, szProvider);
            if (rv == SCARD_S_SUCCESS || state == ServiceState::RemoteOnly) {
                return rv;
            }
        }
        return withLocalSide(hContext, [&](SCARDCONTEXT systemContext) {
            return LocalSCardSetCardTypeProviderNameA(systemContext, szCardName, dwProviderId,
                                                      szProvider);
        });
    });
}
