#include "traffic_text.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <utility>

#include "wire/card_records.h"

namespace tez::sim {
namespace {

using pcscd::Command;

constexpr std::pair<Command, const char*> kNames[] = {
    {Command::kEstablishContext, "ESTABLISH_CONTEXT"},
    {Command::kReleaseContext, "RELEASE_CONTEXT"},
    {Command::kListReaders, "LIST_READERS"},
    {Command::kConnect, "CONNECT"},
    {Command::kReconnect, "RECONNECT"},
    {Command::kDisconnect, "DISCONNECT"},
    {Command::kBeginTransaction, "BEGIN_TRANSACTION"},
    {Command::kEndTransaction, "END_TRANSACTION"},
    {Command::kTransmit, "TRANSMIT"},
    {Command::kControl, "CONTROL"},
    {Command::kStatus, "STATUS"},
    {Command::kGetStatusChange, "GET_STATUS_CHANGE"},
    {Command::kCancel, "CANCEL"},
    {Command::kGetAttribute, "GET_ATTRIB"},
    {Command::kSetAttribute, "SET_ATTRIB"},
    {Command::kGetTransmitCount, "GET_TRANSMIT_COUNT"},
    {Command::kListCards, "LIST_CARDS"},
    {Command::kGetDeviceTypeId, "GET_DEVICE_TYPE_ID"},
    {Command::kGetCardTypeProviderName, "GET_CARD_TYPE_PROVIDER_NAME"},
    {Command::kReadCache, "READ_CACHE"},
    {Command::kWriteCache, "WRITE_CACHE"},
    {Command::kGetReaderIcon, "GET_READER_ICON"},
    {Command::kAudit, "AUDIT"},
    {Command::kSetCardTypeProviderName, "SET_CARD_TYPE_PROVIDER_NAME"},
    {Command::kIntroduceCardType, "INTRODUCE_CARD_TYPE"},
    {Command::kForgetCardType, "FORGET_CARD_TYPE"},
};

// The record that stands before the data phase of transmit and control.
constexpr std::size_t kTransferRecordSize = sizeof(TransmitRecord);
static_assert(sizeof(ControlRecord) == kTransferRecordSize);

std::string hex(std::span<const std::uint8_t> bytes) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) {
            text += ' ';
        }
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

}  // namespace

std::string commandName(Command command) {
    const auto* const found =
        std::find_if(std::begin(kNames), std::end(kNames),
                     [&](const auto& entry) { return entry.first == command; });
    return found != std::end(kNames)
               ? found->second
               : "command " + std::to_string(static_cast<std::uint32_t>(command));
}

std::string describeConnection(std::uint64_t connection) {
    return "connection " + std::to_string(connection) + ": ";
}

std::string describe(pcscd::ProtocolVersion version) {
    return std::to_string(version.major) + "." + std::to_string(version.minor);
}

std::string describe(const pcscd::Handshake& handshake) {
    return describeConnection(handshake.connection) + "handshake, token " + hex(handshake.token) +
           ", option " + hex(handshake.option) + ", protocol " + describe(handshake.version);
}

std::string describe(const pcscd::Request& request) {
    std::string text = describeConnection(request.connection) + commandName(request.command) + " " +
                       std::to_string(request.body.size()) + " bytes";
    const bool transfers =
        request.command == Command::kTransmit || request.command == Command::kControl;
    if (transfers && request.body.size() > kTransferRecordSize) {
        text += ", data " + hex(std::span(request.body).subspan(kTransferRecordSize));
    }
    if (!request.complete) {
        text += ", incomplete";
    }
    return text;
}

}  // namespace tez::sim
