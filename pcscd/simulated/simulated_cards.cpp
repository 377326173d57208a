#include <algorithm>
#include <utility>

#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::pcscd {
namespace {

bool isShareMode(std::uint32_t value) {
    return value >= share::kExclusive && value <= share::kDirect;
}

bool isDisposition(std::uint32_t value) {
    return value <= disposition::kEject;
}

Result handOver(Bytes data, std::size_t capacity, Bytes& target) {
    if (data.size() > capacity) {
        return result::kInsufficientBuffer;
    }
    target = std::move(data);
    return result::kSuccess;
}

}  // namespace

Result SimulatedService::readerResult(const Connection& connection) {
    if (!connection.open) {
        return result::kInvalidHandle;
    }
    return connection.reader->attached ? result::kSuccess : result::kReaderUnavailable;
}

Result SimulatedService::cardResult(const Connection& connection) {
    if (const Result result = readerResult(connection); result != result::kSuccess) {
        return result;
    }
    if (connection.cardSession == 0) {
        return result::kNoSmartcard;
    }
    if (!connection.holdsCard()) {
        return result::kRemovedCard;
    }
    return connection.resetsSeen == connection.reader->resets ? result::kSuccess
                                                              : result::kResetCard;
}

Result SimulatedService::waitForTurn(Lock& lock, Card card, const Connection& connection) {
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

Result SimulatedService::checkSharing(const Reader& reader, const Connection* self,
                                      std::uint32_t shareMode) const {
    if (!isShareMode(shareMode)) {
        return result::kInvalidValue;
    }
    if (shareMode != share::kDirect && !reader.card) {
        return result::kNoSmartcard;
    }
    const bool violated = std::any_of(connections_.begin(), connections_.end(), [&](auto& entry) {
        const Connection& other = *entry.second;
        return &other != self && other.reader.get() == &reader && other.keepsReader() &&
               (shareMode != share::kShared || other.shareMode != share::kShared);
    });
    return violated ? result::kSharingViolation : result::kSuccess;
}

Result SimulatedService::chooseProtocol(const Reader& reader, const Connection* self,
                                        std::uint32_t shareMode, std::uint32_t preferred,
                                        std::uint32_t& protocol) const {
    const bool direct = shareMode == share::kDirect;
    if (direct && (preferred == 0 || !reader.card)) {
        protocol = protocol::kUndefined;
        return result::kSuccess;
    }
    std::vector<std::uint32_t> choices = offeredProtocols(reader.card->atr());
    choices.push_back(protocol::kRaw);
    // A card speaks one protocol at a time: the one that another connection uses is the only
    // choice.
    for (const auto& [card, other] : connections_) {
        if (other.get() != self && other->reader.get() == &reader && other->holdsCard() &&
            other->protocol != protocol::kUndefined) {
            choices = {other->protocol};
        }
    }
    const auto chosen = std::find_if(choices.begin(), choices.end(), [&](std::uint32_t choice) {
        return (choice & preferred) != 0;
    });
    if (chosen == choices.end()) {
        return result::kProtocolMismatch;
    }
    protocol = *chosen;
    return result::kSuccess;
}

Result SimulatedService::connect(Context context, const std::string& name, std::uint32_t shareMode,
                                 std::uint32_t preferredProtocols, Card& card,
                                 std::uint32_t& activeProtocol) {
    const Lock lock(mutex_);
    if (!knows(context)) {
        return result::kInvalidHandle;
    }
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr) {
        return result::kUnknownReader;
    }
    Result result = checkSharing(*reader, nullptr, shareMode);
    if (result == result::kSuccess) {
        result = chooseProtocol(*reader, nullptr, shareMode, preferredProtocols, activeProtocol);
    }
    if (result != result::kSuccess) {
        return result;
    }
    card = cardNumbers_.next();
    const auto connection = std::make_shared<Connection>();
    connection->context = context;
    connection->reader = reader;
    connection->shareMode = shareMode;
    connection->protocol = activeProtocol;
    connection->cardSession = reader->card ? reader->cardSession : 0;
    connection->resetsSeen = reader->resets;
    connections_.emplace(card, connection);
    changed_.notify_all();
    return result::kSuccess;
}

Result SimulatedService::reconnect(Card card, std::uint32_t shareMode,
                                   std::uint32_t preferredProtocols, std::uint32_t initialization,
                                   std::uint32_t& activeProtocol) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (!isDisposition(initialization)) {
        return result::kInvalidValue;
    }
    waitForTurn(lock, card, *connection);
    // What the wait says of the card is no matter: to mend that is what reconnecting is for.
    Result result = readerResult(*connection);
    Reader& reader = *connection->reader;
    if (result == result::kSuccess) {
        result = checkSharing(reader, connection.get(), shareMode);
    }
    if (result == result::kSuccess) {
        result =
            chooseProtocol(reader, connection.get(), shareMode, preferredProtocols, activeProtocol);
    }
    if (result != result::kSuccess) {
        return result;
    }
    connection->shareMode = shareMode;
    connection->protocol = activeProtocol;
    connection->cardSession = reader.card ? reader.cardSession : 0;
    connection->resetsSeen = reader.resets;
    dispose(*connection, initialization);
    changed_.notify_all();
    return result::kSuccess;
}

void SimulatedService::dispose(Connection& connection, std::uint32_t disposition) {
    if (disposition == disposition::kLeave || !connection.holdsCard()) {
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

Result SimulatedService::disconnect(Card card, std::uint32_t disposition) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (!isDisposition(disposition)) {
        return result::kInvalidValue;
    }
    dispose(*connection, disposition);
    closeConnection(card);
    changed_.notify_all();
    return result::kSuccess;
}

Result SimulatedService::beginTransaction(Card card) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (const Result result = waitForTurn(lock, card, *connection); result != result::kSuccess) {
        return result;
    }
    Reader& reader = *connection->reader;
    reader.transactionDepth = reader.transactionOwner == card ? reader.transactionDepth + 1 : 1;
    reader.transactionOwner = card;
    return result::kSuccess;
}

Result SimulatedService::endTransaction(Card card, std::uint32_t disposition) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    if (!isDisposition(disposition)) {
        return result::kInvalidValue;
    }
    if (const Result result = cardResult(*connection); result != result::kSuccess) {
        return result;
    }
    Reader& reader = *connection->reader;
    if (reader.transactionOwner != card) {
        return result::kNotTransacted;
    }
    dispose(*connection, disposition);
    if (--reader.transactionDepth == 0) {
        reader.transactionOwner = 0;
    }
    changed_.notify_all();
    return result::kSuccess;
}

Result SimulatedService::status(Card card, CardStatus& status) {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    const Result result = cardResult(*connection);
    // A connection made without a card can still be asked.
    if (result != result::kSuccess && result != result::kNoSmartcard) {
        return result;
    }
    const Reader& reader = *connection->reader;
    const bool present = reader.card.has_value();
    status.reader = reader.name;
    status.present = present;
    status.powered = present;
    status.negotiable = present && connection->protocol == protocol::kUndefined;
    status.protocol = connection->protocol;
    status.atr = present ? reader.card->atr() : Bytes{};
    return result::kSuccess;
}

Result SimulatedService::transmit(Card card, std::uint32_t protocol,
                                  std::span<const std::uint8_t> command, std::size_t capacity,
                                  Bytes& response) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    Result result = waitForTurn(lock, card, *connection);
    if (result != result::kSuccess) {
        return result;
    }
    if (protocol != connection->protocol || protocol == protocol::kUndefined) {
        return result::kProtocolMismatch;
    }
    if (connection->reader->holding) {
        const Blocked blocked(heldCommands_, changed_);
        changed_.wait(lock, [&] {
            result = cardResult(*connection);
            return !connection->reader->holding || result != result::kSuccess;
        });
        if (result != result::kSuccess) {
            return result;
        }
    }
    result = handOver(connection->reader->card->transmit(command), capacity, response);
    if (result == result::kSuccess) {
        ++connection->transmits;
    }
    return result;
}

Result SimulatedService::transmitCount(Card card, std::uint32_t& count) const {
    const Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    count = connection->transmits;
    return result::kSuccess;
}

Result SimulatedService::control(Card card, std::uint32_t function,
                                 std::span<const std::uint8_t> input, std::size_t capacity,
                                 Bytes& output) {
    Lock lock(mutex_);
    const ConnectionPointer connection = findConnection(card);
    if (connection == nullptr) {
        return result::kInvalidHandle;
    }
    // The reader answers controls, with a card in it or without.
    waitForTurn(lock, card, *connection);
    if (const Result result = readerResult(*connection); result != result::kSuccess) {
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
            return result::kUnsupportedFeature;
    }
}

}  // namespace tez::pcscd
