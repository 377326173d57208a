#include "readers/remote_wait.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "context/context_registry.h"
#include "daemon/exchange.h"
#include "wire/reader_records.h"
#include "wire/text_field.h"

namespace tez {

namespace {

constexpr DWORD kContextRetry = 1000;  // milliseconds

/// Gets the daemon's context, waiting for the daemon while it is away.
LONG awaitRemoteContext(const RemoteWait& call, std::uint64_t& remoteContext, DWORD& timeout) {
    for (;;) {
        const LONG rv = getRemoteContextVolatile(call.context, remoteContext, true);
        if (rv != SCARD_E_NO_SERVICE) {
            return rv;
        }
        call.log.debug("Waiting for remote context: %Ix, timeout=%lu", call.context, timeout);
        if (timeout == INFINITE) {
            Sleep(kContextRetry);
        } else if (timeout <= kContextRetry) {
            Sleep(timeout);
            return SCARD_E_TIMEOUT;
        } else {
            Sleep(kContextRetry);
            timeout -= kContextRetry;
        }
        if (isContextCancelled(call.context) || call.wait.isRemoteToEnd()) {
            return SCARD_E_CANCELLED;
        }
    }
}

/// The record of an entry; false when the reader's name does not fit.
bool fillRecord(const RemoteWait& call, const SCARD_READERSTATEA& entry,
                ReaderStateRecord& record) {
    record.dwCurrentState = isPnpReader(entry.szReader)
                                ? withoutOthersReaders(entry.dwCurrentState, call.localIndexes)
                                : entry.dwCurrentState;
    record.dwEventState = entry.dwEventState;
    record.cbAtr = entry.cbAtr;
    std::memcpy(record.rgbAtr, entry.rgbAtr, sizeof(record.rgbAtr));
    return copyToField(record.szReader, entry.szReader);
}

LONG sendRequest(const RemoteWait& call, Exchange& exchange, const StatusChangeRecord& record,
                 const std::vector<ReaderStateRecord>& readers) {
    LONG rv =
        exchange.sendHeader(CMD_GET_STATUS_CHANGE, sizeof(record),
                            static_cast<std::uint32_t>(sizeof(ReaderStateRecord) * readers.size()));
    if (rv == SCARD_S_SUCCESS) {
        rv = exchange.send(&record, sizeof(record), "Failed to send data");
    }
    for (std::size_t i = 0; rv == SCARD_S_SUCCESS && i < readers.size(); ++i) {
        const ReaderStateRecord& reader = readers[i];
        logReaderState(call.log, "REMOTE READER STATE", call.indexes[i], reader.szReader,
                       reader.dwCurrentState, reader.dwEventState, reader.cbAtr);
        rv = exchange.send(&reader, sizeof(reader), "Failed to send data with reader state");
    }
    return rv;
}

/// The ATR length that the daemon told is kept to what its record, and so the entry, can hold.
void storeRecord(const RemoteWait& call, DWORD index, ReaderStateRecord& reader) {
    SCARD_READERSTATEA& entry = call.entries[index];
    reader.szReader[sizeof(reader.szReader) - 1] = '\0';
    if (isPnpReader(entry.szReader) && reader.dwEventState == 0) {
        reader.dwEventState = reader.dwCurrentState;
    }
    entry.dwEventState = reader.dwEventState;
    entry.cbAtr = std::min<DWORD>(reader.cbAtr, sizeof(reader.rgbAtr));
    std::memcpy(entry.rgbAtr, reader.rgbAtr, sizeof(reader.rgbAtr));
    logReaderState(call.log, "NEW REMOTE READER STATE", index, reader.szReader,
                   reader.dwCurrentState, entry.dwEventState, entry.cbAtr);
}

/// Reads the answer. The records belong to the entries by their position, not by their names.
LONG receiveAnswer(const RemoteWait& call, Exchange& exchange, StatusChangeRecord& record) {
    const LONG received = exchange.receive(record);
    if (received != SCARD_S_SUCCESS) {
        return received;
    }
    const auto rv = static_cast<LONG>(record.rv);
    const bool isOldFailure = call.state == ServiceState::LocalFirst &&
                              !exchange.isMinorAtLeast(call.state, 1) && rv != SCARD_S_SUCCESS;
    if (isOldFailure || record.cReaders == 0) {
        return rv;
    }
    exchange.announce(std::uint64_t{record.cReaders} * sizeof(ReaderStateRecord));
    if (record.cReaders > call.indexes.size()) {
        call.log.warning("Received %lu reader states, asked for %lu",
                         static_cast<unsigned long>(record.cReaders),
                         static_cast<unsigned long>(call.indexes.size()));
        return SCARD_F_INTERNAL_ERROR;
    }
    for (std::uint32_t i = 0; i < record.cReaders; ++i) {
        ReaderStateRecord reader = {};
        const LONG read = exchange.readAnnounced(&reader, sizeof(reader),
                                                 "Failed to receive data with reader state");
        if (read != SCARD_S_SUCCESS) {
            return read;
        }
        storeRecord(call, call.indexes[i], reader);
    }
    return rv;
}

LONG exchangeStates(const RemoteWait& call, DWORD& timeout) {
    std::vector<ReaderStateRecord> readers(call.indexes.size());
    for (std::size_t i = 0; i < readers.size(); ++i) {
        if (!fillRecord(call, call.entries[call.indexes[i]], readers[i])) {
            return SCARD_E_INVALID_VALUE;
        }
    }
    std::uint64_t remoteContext = NO_REMOTE_CONTEXT;
    LONG rv = awaitRemoteContext(call, remoteContext, timeout);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    Exchange exchange(call.log);
    if (!exchange.isConnected()) {
        return SCARD_E_NO_SERVICE;
    }
    if (call.indexes.empty()) {
        return SCARD_S_SUCCESS;
    }
    StatusChangeRecord record = {remoteContext, timeout,
                                 static_cast<std::uint32_t>(call.indexes.size()), 0};
    rv = sendRequest(call, exchange, record, readers);
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    call.wait.markRemoteRequestOut(remoteContext);
    return receiveAnswer(call, exchange, record);
}

}  // namespace

LONG waitRemotely(const RemoteWait& call, DWORD& timeout) noexcept {
    try {
        return exchangeStates(call, timeout);
    } catch (const std::bad_alloc&) {
        // The local half is under way and has to be collected all the same.
        return SCARD_E_NO_MEMORY;
    }
}

}  // namespace tez
