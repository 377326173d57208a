#include "daemon/exchange.h"

#include <string>
#include <utility>

#include "daemon/connection_pool.h"

namespace tez {

namespace {

constexpr std::uint32_t kLargestBlock = 16 * 1024 * 1024;

}  // namespace

Exchange::Exchange(const FunctionLog& log, const FailureLines& failureLines)
    : log_(log), failureLines_(failureLines), connection_(acquireConnection()) {}

Exchange::~Exchange() {
    if (announced_ != 0 || received_ != nullptr) {
        connection_->closeSocket();
    }
    releaseConnection(std::move(connection_));
}

bool Exchange::isMinorAtLeast(ServiceState state, std::uint32_t minor) const {
    return connection_->isProtocolAtLeast(state == ServiceState::LocalFirst ? 1 : 0, minor);
}

bool Exchange::meets(ServiceState state, const VersionGate& gate) const {
    const std::optional<std::uint32_t> minor = gate.minorFor(state);
    return !minor || isMinorAtLeast(state, *minor);
}

LONG Exchange::refuseIncompatible() const {
    log_.debug("%s is not compatible with the current negotiated protocol", log_.functionName());
    return SCARD_F_INTERNAL_ERROR;
}

LONG Exchange::sendWhole(CommandCode command, std::string_view record, std::string_view tail,
                         std::optional<bool> flag) {
    if (!isSendable(record.size(), tail.size())) {
        return SCARD_E_INVALID_PARAMETER;
    }
    std::string whole;
    std::string_view request = record;
    if (!tail.empty()) {
        whole.reserve(record.size() + tail.size());
        whole.append(record).append(tail);
        request = whole;
    }
    if (gate_) {
        // In two steps, with a look at the version between them. A flag stays behind then: it is
        // for connections that take all calls, and with these no flagged request has a gate.
        const LONG rv = sendHeader(command, static_cast<std::uint32_t>(request.size()), 0);
        return rv == SCARD_S_SUCCESS
                   ? warnUnless(connection_->sendMessage(request.data(), request.size()),
                                failureLines_.send)
                   : rv;
    }
    return warnUnless(
        flag ? connection_->sendRequestFlagged(command, request.data(), request.size(), *flag)
             : connection_->sendRequest(command, request.data(), request.size()),
        failureLines_.send);
}

LONG Exchange::sendHeader(CommandCode command, std::uint32_t recordSize, std::uint32_t dataSize) {
    if (!isSendable(recordSize, dataSize)) {
        return SCARD_E_INVALID_PARAMETER;
    }
    LONG rv = connection_->sendHeader(command, recordSize + dataSize);
    if (rv == SCARD_S_SUCCESS && gate_ && meets(gate_->state, gate_->gate) != gate_->isMet) {
        connection_->closeSocket();
        rv = SCARD_E_NO_SERVICE;
        if (connection_->connect()) {
            isGivenUp_ = true;
            return rv;  // told to nobody: adapt begins anew
        }
    }
    return warnUnless(rv, failureLines_.send);
}

LONG Exchange::send(const void* data, std::uint32_t size, const char* failure) {
    return size == 0 ? SCARD_S_SUCCESS : warnUnless(connection_->sendMessage(data, size), failure);
}

LONG Exchange::startReceive(void* record, std::uint32_t size) {
    return warnUnless(connection_->startReceive(record, size, received_), failureLines_.receive);
}

LONG Exchange::finishReceive() {
    received_ = nullptr;
    return warnUnless(connection_->finishReceive(), failureLines_.receive);
}

LONG Exchange::readAnnounced(void* buffer, std::uint32_t size, const char* failure) {
    const LONG rv = warnUnless(connection_->readMessage(buffer, size), failure);
    if (rv == SCARD_S_SUCCESS) {
        announced_ -= size;
    }
    return rv;
}

LONG Exchange::readBlock(std::uint32_t size, HeapPtr<char>& block, const char* failure) {
    announce(size);
    block.reset(size > kLargestBlock ? nullptr : static_cast<char*>(heapAllocate(size + 1)));
    if (block == nullptr) {
        return SCARD_E_NO_MEMORY;
    }
    block.get()[size] = '\0';
    return readAnnounced(block.get(), size, failure);
}

LONG Exchange::warnUnless(LONG rv, const char* failure) const {
    if (rv != SCARD_S_SUCCESS) {
        log_.line(failureLines_.level, failure);
    }
    return rv;
}

}  // namespace tez
