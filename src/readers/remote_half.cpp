#include "readers/remote_half.h"

#include <algorithm>
#include <cstring>

#include "wire/text_field.h"

namespace tez {

/// The record of an entry; false when the reader's name does not fit.
bool RemoteHalf::fillRecord(const SCARD_READERSTATEA& entry, ReaderStateRecord& record) const {
    record.dwCurrentState = isPnpReader(entry.szReader)
                                ? withoutOthersReaders(entry.dwCurrentState, entries_.othersReaders)
                                : entry.dwCurrentState;
    record.dwEventState = entry.dwEventState;
    record.cbAtr = entry.cbAtr;
    std::memcpy(record.rgbAtr, entry.rgbAtr, sizeof(record.rgbAtr));
    return copyToField(record.szReader, entry.szReader);
}

LONG RemoteHalf::prepare() {
    readers_.resize(entries_.indexes.size());
    for (std::size_t i = 0; i < readers_.size(); ++i) {
        if (!fillRecord(entries_.states[entries_.indexes[i]], readers_[i])) {
            return SCARD_E_INVALID_VALUE;
        }
    }
    return SCARD_S_SUCCESS;
}

bool RemoteHalf::connect() {
    exchange_.emplace(log_);
    return exchange_->isConnected();
}

LONG RemoteHalf::send(std::uint64_t remoteContext, DWORD timeout) {
    hasAnswered_ = false;
    record_ = {remoteContext, timeout, static_cast<std::uint32_t>(readers_.size()), 0};
    LONG rv = exchange_->sendHeader(
        CMD_GET_STATUS_CHANGE, sizeof(record_),
        static_cast<std::uint32_t>(sizeof(ReaderStateRecord) * readers_.size()));
    if (rv == SCARD_S_SUCCESS) {
        rv = exchange_->send(&record_, sizeof(record_), "Failed to send data");
    }
    for (std::size_t i = 0; rv == SCARD_S_SUCCESS && i < readers_.size(); ++i) {
        const ReaderStateRecord& reader = readers_[i];
        logReaderState(log_, "REMOTE READER STATE", entries_.indexes[i], reader.szReader,
                       reader.dwCurrentState, reader.dwEventState, reader.cbAtr);
        rv = exchange_->send(&reader, sizeof(reader), "Failed to send data with reader state");
    }
    return rv == SCARD_S_SUCCESS ? exchange_->startReceive(record_) : rv;
}

/// The ATR length that the daemon told is kept to what its record, and so the entry, can hold.
void RemoteHalf::storeRecord(DWORD index, ReaderStateRecord& reader) const {
    SCARD_READERSTATEA& entry = entries_.states[index];
    reader.szReader[sizeof(reader.szReader) - 1] = '\0';
    if (isPnpReader(entry.szReader) && reader.dwEventState == 0) {
        reader.dwEventState = reader.dwCurrentState;
    }
    entry.dwEventState = reader.dwEventState;
    entry.cbAtr = std::min<DWORD>(reader.cbAtr, sizeof(reader.rgbAtr));
    std::memcpy(entry.rgbAtr, reader.rgbAtr, sizeof(reader.rgbAtr));
    logReaderState(log_, "NEW REMOTE READER STATE", index, reader.szReader, reader.dwCurrentState,
                   entry.dwEventState, entry.cbAtr);
}

/// The records of the answer belong to the entries by their position, not by their names.
LONG RemoteHalf::finish() {
    const LONG received = exchange_->finishReceive();
    hasAnswered_ = received == SCARD_S_SUCCESS;
    if (!hasAnswered_) {
        return received;
    }
    const auto rv = static_cast<LONG>(record_.rv);
    const bool isOldFailure = state_ == ServiceState::LocalFirst &&
                              !exchange_->isMinorAtLeast(state_, 1) && rv != SCARD_S_SUCCESS;
    if (isOldFailure || record_.cReaders == 0) {
        return rv;
    }
    exchange_->announce(std::uint64_t{record_.cReaders} * sizeof(ReaderStateRecord));
    if (record_.cReaders > entries_.indexes.size()) {
        log_.warning("Received %lu reader states, asked for %lu",
                     static_cast<unsigned long>(record_.cReaders),
                     static_cast<unsigned long>(entries_.indexes.size()));
        return SCARD_F_INTERNAL_ERROR;
    }
    for (std::uint32_t i = 0; i < record_.cReaders; ++i) {
        ReaderStateRecord reader = {};
        const LONG read = exchange_->readAnnounced(&reader, sizeof(reader),
                                                   "Failed to receive data with reader state");
        if (read != SCARD_S_SUCCESS) {
            hasAnswered_ = false;
            return read;
        }
        storeRecord(entries_.indexes[i], reader);
    }
    return rv;
}

}  // namespace tez
