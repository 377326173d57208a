#include <algorithm>
#include <utility>

#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::test {
namespace {

bool isShareMode(DWORD value) {
    return value >= SCARD_SHARE_EXCLUSIVE && value <= SCARD_SHARE_DIRECT;
}

bool isDisposition(DWORD value) {
    return value <= SCARD_EJECT_CARD;
}

LONG handOver(Bytes data, std::size_t capacity, Bytes& target) {
    if (data.size() > capacity) {
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    target = std::move(data);
    return SCARD_S_SUCCESS;
}

}  // namespace

LONG SimulatedService::readerResult(const Connection& connection) {
    if (!connection.open) {
        return SCARD_E_INVALID_HANDLE;
    }
    return connection.reader->attached ? SCARD_S_SUCCESS : SCARD_E_READER_UNAVAILABLE;
}

LONG SimulatedService::cardResult(const Connection& connection) {
    if (const LONG result = readerResult(connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    if (connection.cardSession == 0) {
        return SCARD_E_NO_SMARTCARD;
    }
    if (!connection.holdsCard()) {
        return SCARD_W_REMOVED_CARD;
    }
    return connection.resetsSeen == connection.reader->resets ? SCARD_S_SUCCESS
                                                              : SCARD_W_RESET_CARD;
}

LONG SimulatedService::waitForTurn(Lock& lock, Card card, const Connection& connection) {
    const Reader& reader = *connection.reader;
    const auto mine = [&] {
        return !connection.open || reader.transactionOwner == 0 || reader.transactionOwner == card;
    };
    if (!mine()) {
        const Blocked blocked(transactionWaits_, changed_);
        changed_.wait(lock, mine);
    }
    return cardResult(connection);
}

LONG SimulatedService::checkSharing(const Reader& reader, const Connection* self,
                                    DWORD shareMode) const {
    if (!isShareMode(shareMode)) {
        return SCARD_E_INVALID_VALUE;
    }
    if (shareMode != SCARD_SHARE_DIRECT && !reader.card) {
        return SCARD_E_NO_SMARTCARD;
    }
    const bool violated = std::any_of(connections_.begin(), connections_.end(), [&](auto& entry) {
        const Connection& other = *entry.second;
        return &other != self && other.reader.get() == &reader && other.keepsReader() &&
               (shareMode != SCARD_SHARE_SHARED || other.shareMode != SCARD_SHARE_SHARED);
    });
    return violated ? SCARD_E_SHARING_VIOLATION : SCARD_S_SUCCESS;
}

LONG SimulatedService::chooseProtocol(const Reader& reader, const Connection* self, DWORD shareMode,
                                      DWORD preferred, DWORD& protocol) const {
    const bool direct = shareMode == SCARD_SHARE_DIRECT;
    if (direct && (preferred == 0 || !reader.card)) {
        protocol = SCARD_PROTOCOL_UNDEFINED;
        return SCARD_S_SUCCESS;
    }
    std::vector<std::uint32_t> choices = offeredProtocols(reader.card->atr());
    choices.push_back(SCARD_PROTOCOL_RAW);
    // A card speaks one protocol at a time: the one that another connection uses is the only
    // choice.
    for (const auto& [card, other] : connections_) {
        if (other.get() != self && other->reader.get() == &reader && other->holdsCard() &&
            other->protocol != SCARD_PROTOCOL_UNDEFINED) {
            choices = {static_cast<std::uint32_t>(other->protocol)};
        }
    }
    const auto chosen = std::find_if(choices.begin(), choices.end(),
                                     [&](DWORD choice) { return (choice & preferred) != 0; });
    if (chosen == choices.end()) {
        return SCARD_E_PROTO_MISMATCH;
    }
    protocol = *chosen;
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::connect(Context context, const std::string& name, DWORD shareMode,
                               DWORD preferredProtocols, Card& card, DWORD& activeProtocol) {
    const Lock lock(mutex_);
    if (!knows(context)) {
        return SCARD_E_INVALID_HANDLE;
    }
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr) {
        return SCARD_E_UNKNOWN_READER;
    }
    LONG result = checkSharing(*reader, nullptr, shareMode);
    if (result == SCARD_S_SUCCESS) {
        result = chooseProtocol(*reader, nullptr, shareMode, preferredProtocols, activeProtocol);
    }
    if (result != SCARD_S_SUCCESS) {
        return result;
    }
    card = nextCard_++;
    const auto connection = std::make_shared<Connection>();
    connection->context = context;
    connection->reader = reader;
    connection->shareMode = shareMode;
    connection->protocol = activeProtocol;
    connection->cardSession = reader->card ? reader->cardSession : 0;
    connection->resetsSeen = reader->resets;
    connections_.emplace(card, connection);
    changed_.notify_all();
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::reconnect(Card card, DWORD shareMode, DWORD preferredProtocols,
                                 DWORD initialization, DWORD& activeProtocol) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (!isDisposition(initialization)) {
        return SCARD_E_INVALID_VALUE;
    }
    waitForTurn(lock, card, *connection);
    // What the wait says of the card is no matter: to mend that is what reconnecting is for.
    LONG result = readerResult(*connection);
    Reader& reader = *connection->reader;
    if (result == SCARD_S_SUCCESS) {
        result = checkSharing(reader, connection.get(), shareMode);
    }
    if (result == SCARD_S_SUCCESS) {
        result =
            chooseProtocol(reader, connection.get(), shareMode, preferredProtocols, activeProtocol);
    }
    if (result != SCARD_S_SUCCESS) {
        return result;
    }
    connection->shareMode = shareMode;
    connection->protocol = activeProtocol;
    connection->cardSession = reader.card ? reader.cardSession : 0;
    connection->resetsSeen = reader.resets;
    dispose(*connection, initialization);
    changed_.notify_all();
    return SCARD_S_SUCCESS;
}

void SimulatedService::dispose(Connection& connection, DWORD disposition) {
    if (disposition == SCARD_LEAVE_CARD || !connection.holdsCard()) {
        return;
    }
    connection.reader->card->reset();
    connection.resetsSeen = ++connection.reader->resets;
}

void SimulatedService::closeConnection(Card card) {
    Connection& connection = *connections_.at(card);
    connection.open = false;
    if (connection.reader->transactionOwner == card) {
        connection.reader->transactionOwner = 0;
    }
    connections_.erase(card);
}

LONG SimulatedService::disconnect(Card card, DWORD disposition) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (!isDisposition(disposition)) {
        return SCARD_E_INVALID_VALUE;
    }
    dispose(*connection, disposition);
    closeConnection(card);
    changed_.notify_all();
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::beginTransaction(Card card) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (const LONG result = waitForTurn(lock, card, *connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    Reader& reader = *connection->reader;
    reader.transactionDepth = reader.transactionOwner == card ? reader.transactionDepth + 1 : 1;
    reader.transactionOwner = card;
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::endTransaction(Card card, DWORD disposition) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    if (!isDisposition(disposition)) {
        return SCARD_E_INVALID_VALUE;
    }
    if (const LONG result = cardResult(*connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    Reader& reader = *connection->reader;
    if (reader.transactionOwner != card) {
        return SCARD_E_NOT_TRANSACTED;
    }
    dispose(*connection, disposition);
    if (--reader.transactionDepth == 0) {
        reader.transactionOwner = 0;
    }
    changed_.notify_all();
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::status(Card card, CardStatus& status) const {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    const LONG result = cardResult(*connection);
    // A connection made without a card can still be asked.
    if (result != SCARD_S_SUCCESS && result != SCARD_E_NO_SMARTCARD) {
        return result;
    }
    const Reader& reader = *connection->reader;
    const bool present = reader.card.has_value();
    status.reader = reader.name;
    status.present = present;
    status.powered = present;
    status.negotiable = present && connection->protocol == SCARD_PROTOCOL_UNDEFINED;
    status.protocol = connection->protocol;
    status.atr = present ? reader.card->atr() : Bytes{};
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::transmit(Card card, DWORD protocol, std::span<const std::uint8_t> command,
                                std::size_t capacity, Bytes& response) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    LONG result = waitForTurn(lock, card, *connection);
    if (result != SCARD_S_SUCCESS) {
        return result;
    }
    if (protocol != connection->protocol || protocol == SCARD_PROTOCOL_UNDEFINED) {
        return SCARD_E_PROTO_MISMATCH;
    }
    if (connection->reader->holding) {
        const Blocked blocked(heldCommands_, changed_);
        changed_.wait(lock, [&] {
            result = cardResult(*connection);
            return !connection->reader->holding || result != SCARD_S_SUCCESS;
        });
        if (result != SCARD_S_SUCCESS) {
            return result;
        }
    }
    result = handOver(connection->reader->card->transmit(command), capacity, response);
    if (result == SCARD_S_SUCCESS) {
        ++connection->transmits;
    }
    return result;
}

LONG SimulatedService::transmitCount(Card card, DWORD& count) const {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    count = connection->transmits;
    return SCARD_S_SUCCESS;
}

LONG SimulatedService::control(Card card, std::uint32_t function,
                               std::span<const std::uint8_t> input, std::size_t capacity,
                               Bytes& output) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return SCARD_E_INVALID_HANDLE;
    }
    // The reader answers controls, with a card in it or without.
    waitForTurn(lock, card, *connection);
    if (const LONG result = readerResult(*connection); result != SCARD_S_SUCCESS) {
        return result;
    }
    const std::string& name = connection->reader->name;
    switch (function) {
        case kControlEcho:
            return handOver({input.begin(), input.end()}, capacity, output);
        case kControlReaderName:
            return handOver({name.begin(), name.end()}, capacity, output);
        case kControlFeatures:
            return handOver({}, capacity, output);
        default:
            return SCARD_E_UNSUPPORTED_FEATURE;
    }
}

}  // namespace tez::test
