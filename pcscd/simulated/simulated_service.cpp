#include "simulated/simulated_service.h"

#include <algorithm>
#include <utility>

#include "simulated/simulated_service_state.h"

namespace tez::pcscd {

SimulatedService::SimulatedService() = default;

SimulatedService::SimulatedService(HandleBases bases)
    : contextNumbers_(bases.context), cardNumbers_(bases.card) {}

SimulatedService::~SimulatedService() = default;

bool SimulatedService::knows(Context context) const {
    return contexts_.contains(context);
}

SimulatedService::ReaderPointer SimulatedService::findReader(const std::string& name) const {
    const auto found = std::find_if(readers_.begin(), readers_.end(),
                                    [&](const auto& reader) { return reader->name == name; });
    return found == readers_.end() ? nullptr : *found;
}

SimulatedService::ConnectionPointer SimulatedService::findConnection(Card card) const {
    const auto found = connections_.find(card);
    return found == connections_.end() ? nullptr : found->second;
}

bool SimulatedService::addReader(const std::string& name) {
    const Lock lock(mutex_);
    if (findReader(name) != nullptr) {
        return false;
    }
    auto reader = std::make_shared<Reader>();
    reader->name = name;
    reader->unit = nextUnit_++;
    readers_.push_back(std::move(reader));
    changed_.notify_all();
    return true;
}

bool SimulatedService::removeReader(const std::string& name) {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr) {
        return false;
    }
    takeOut(*reader);
    reader->attached = false;
    std::erase(readers_, reader);
    changed_.notify_all();
    return true;
}

bool SimulatedService::insertCard(const std::string& name, VirtualCard card) {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr || reader->card) {
        return false;
    }
    card.reset();
    reader->card = std::move(card);
    ++reader->cardSession;
    ++reader->events;
    changed_.notify_all();
    return true;
}

bool SimulatedService::removeCard(const std::string& name) {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr || !reader->card) {
        return false;
    }
    takeOut(*reader);
    changed_.notify_all();
    return true;
}

void SimulatedService::takeOut(Reader& reader) {
    if (!reader.card) {
        return;
    }
    reader.card.reset();
    reader.transactionOwner = 0;
    ++reader.events;
}

std::vector<std::string> SimulatedService::readers() const {
    std::vector<std::string> names;
    listReaders(0, names);
    return names;
}

bool SimulatedService::hasCard(const std::string& name) const {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    return reader != nullptr && reader->card;
}

bool SimulatedService::holdCommands(const std::string& name) {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    if (reader != nullptr) {
        reader->holding = true;
    }
    return reader != nullptr;
}

bool SimulatedService::releaseCommands(const std::string& name) {
    const Lock lock(mutex_);
    const ReaderPointer reader = findReader(name);
    if (reader == nullptr) {
        return false;
    }
    reader->holding = false;
    changed_.notify_all();
    return true;
}

bool SimulatedService::waitForCount(const std::size_t& counter, std::size_t count,
                                    std::chrono::milliseconds timeout) const {
    Lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return counter >= count; });
}

bool SimulatedService::waitForHeldCommands(std::size_t count,
                                           std::chrono::milliseconds timeout) const {
    return waitForCount(heldCommands_, count, timeout);
}

bool SimulatedService::waitForStatusWaits(std::size_t count,
                                          std::chrono::milliseconds timeout) const {
    return waitForCount(statusWaits_, count, timeout);
}

bool SimulatedService::waitForTransactionWaits(std::size_t count,
                                               std::chrono::milliseconds timeout) const {
    return waitForCount(transactionWaits_, count, timeout);
}

std::size_t SimulatedService::contextCount() const {
    const Lock lock(mutex_);
    return contexts_.size();
}

std::size_t SimulatedService::cardCount() const {
    const Lock lock(mutex_);
    return connections_.size();
}

Result SimulatedService::establishContext(std::uint32_t scope, Context& context) {
    if (scope > scope::kSystem) {
        return result::kInvalidValue;
    }
    const Lock lock(mutex_);
    context = contextNumbers_.next();
    contexts_.emplace(context, std::make_shared<WaitEnds>());
    return result::kSuccess;
}

Result SimulatedService::closeContexts(const Contexts& contexts, std::uint32_t disposition) {
    const Lock lock(mutex_);
    Result answer = result::kSuccess;
    for (const Context context : contexts) {
        if (knows(context)) {
            dropContext(context, disposition);
        } else {
            answer = result::kInvalidHandle;
        }
    }
    changed_.notify_all();
    return answer;
}

void SimulatedService::releaseAll() {
    const Lock lock(mutex_);
    while (!contexts_.empty()) {
        dropContext(contexts_.begin()->first, disposition::kLeave);
    }
    changed_.notify_all();
}

void SimulatedService::dropContext(Context context, std::uint32_t disposition) {
    std::vector<Card> cards;
    for (const auto& [card, connection] : connections_) {
        if (connection->context == context) {
            cards.push_back(card);
        }
    }
    for (const Card card : cards) {
        dispose(*connections_.at(card), disposition);
        closeConnection(card);
    }
    contexts_.at(context)->released = true;
    contexts_.erase(context);
}

Result SimulatedService::isValidContext(Context context) const {
    const Lock lock(mutex_);
    return knows(context) ? result::kSuccess : result::kInvalidHandle;
}

Result SimulatedService::listReaders(Context context, std::vector<std::string>& names) const {
    const Lock lock(mutex_);
    if (context != 0 && !knows(context)) {
        return result::kInvalidHandle;
    }
    names.clear();
    for (const ReaderPointer& reader : readers_) {
        names.push_back(reader->name);
    }
    return result::kSuccess;
}

Result SimulatedService::listReaderGroups(Context context, std::vector<std::string>& groups) const {
    const Lock lock(mutex_);
    if (context != 0 && !knows(context)) {
        return result::kInvalidHandle;
    }
    groups = {"SCard$DefaultReaders"};
    return result::kSuccess;
}

}  // namespace tez::pcscd
