#include "agent/pcsc_service.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "agent/log.h"
#include "core/text.h"

namespace tez::agent {

namespace attribute = pcscd::attribute;
namespace result = pcscd::result;
using pcscd::Result;

namespace {

// Each takes a context of the service, which has 200 for all programs by default: some must be left
// for this machine's own.
constexpr std::size_t kMostCards = 128;

// Each is memory of this machine that a program on the host takes; no program uses that many.
constexpr std::size_t kMostContexts = 10000;

/// Returns when all are closed, and keeps none waiting for another one: in turn they could wait for
/// a transaction that ends only with one of those behind.
void closeAll(std::vector<std::shared_ptr<CardConnection>> connections, std::uint32_t disposition) {
    for (const auto& connection : connections) {
        connection->refuseCalls();
    }
    for (;;) {
        std::erase_if(connections,
                      [&](const auto& connection) { return connection->tryClose(disposition); });
        if (connections.empty()) {
            return;
        }
        std::this_thread::sleep_for(kTurnRetry);
    }
}

}  // namespace

/// The served readers, as waits see them.
class PcscService::Observed final : public pcscd::ObservedReaders {
  public:
    explicit Observed(const PcscService& service) : service_(service) {}

    std::size_t count() const override { return service_.readers_.size(); }
    std::optional<pcscd::ObservedReader> find(const std::string& name) const override {
        const ServedReader* reader = service_.findReader(name);
        return reader == nullptr ? std::nullopt : std::optional(reader->observed);
    }

  private:
    const PcscService& service_;
};

PcscService::PcscService(ReaderChoice choice)
    : choice_(std::move(choice)),
      monitor_([this](std::vector<MonitoredReader> readers) { publish(std::move(readers)); }) {
    monitor_.awaitFirst();
}

PcscService::~PcscService() = default;

void PcscService::publish(std::vector<MonitoredReader> readers) {
    std::vector<ServedReader> served;
    std::vector<std::string> leftOut;
    for (MonitoredReader& reader : readers) {
        if (!choice_.isChosen(reader.name)) {
            continue;
        }
        if (std::optional<std::string> name = choice_.servedName(reader.name)) {
            served.push_back(
                {std::move(*name), std::move(reader.name), std::move(reader.observed)});
        } else {
            leftOut.push_back(std::move(reader.name));
        }
    }
    const std::scoped_lock lock(mutex_);
    for (const ServedReader& reader : served) {
        if (findReader(reader.name) == nullptr) {
            logDetail("reader there: " + reader.name);
        }
    }
    for (const std::string& reader : leftOut) {
        if (std::ranges::find(leftOut_, reader) == leftOut_.end()) {
            logLine("reader left out, with the prefix its name is too long: " + reader);
        }
    }
    readers_.swap(served);
    leftOut_ = std::move(leftOut);
    for (const ServedReader& reader : served) {  // those that were there before
        if (findReader(reader.name) == nullptr) {
            logDetail("reader gone: " + reader.name);
        }
    }
    changed_.notify_all();
}

const PcscService::ServedReader* PcscService::findReader(const std::string& name) const {
    const auto found = std::ranges::find(readers_, name, &ServedReader::name);
    return found == readers_.end() ? nullptr : &*found;
}

PcscService::ConnectionPointer PcscService::find(pcscd::Card card) const {
    const std::scoped_lock lock(mutex_);
    const auto found = cards_.find(card);
    return found == cards_.end() ? nullptr : found->second;
}

Result PcscService::with(pcscd::Card card,
                         const std::function<Result(CardConnection&)>& call) const {
    const ConnectionPointer connection = find(card);
    return connection == nullptr ? result::kInvalidHandle : call(*connection);
}

Result PcscService::establishContext(std::uint32_t scope, pcscd::Context& context) {
    if (scope > pcscd::scope::kSystem) {
        return result::kInvalidValue;
    }
    const std::scoped_lock lock(mutex_);
    if (contexts_.size() == kMostContexts) {
        logLine("refused a context, there are too many");
        return result::kNoMemory;
    }
    context = contextNumbers_.next();
    contexts_.emplace(context, std::make_shared<pcscd::WaitEnds>());
    return result::kSuccess;
}

/// With the lock held: forgets contexts and their cards, which are to be closed without the lock.
std::vector<PcscService::ConnectionPointer> PcscService::takeOut(const pcscd::Contexts& contexts) {
    std::vector<ConnectionPointer> connections;
    for (auto entry = cards_.begin(); entry != cards_.end();) {
        if (contexts.contains(entry->second->owner())) {
            connections.push_back(entry->second);
            entry = cards_.erase(entry);
        } else {
            ++entry;
        }
    }
    for (const pcscd::Context context : contexts) {
        if (const auto found = contexts_.find(context); found != contexts_.end()) {
            found->second->released = true;
            contexts_.erase(found);
        }
    }
    changed_.notify_all();
    return connections;
}

Result PcscService::closeContexts(const pcscd::Contexts& contexts, std::uint32_t disposition) {
    std::vector<ConnectionPointer> connections;
    Result answer = result::kSuccess;
    {
        const std::scoped_lock lock(mutex_);
        if (!std::ranges::all_of(
                contexts, [this](pcscd::Context each) { return contexts_.contains(each); })) {
            answer = result::kInvalidHandle;
        }
        connections = takeOut(contexts);
    }
    closeAll(std::move(connections), disposition);
    return answer;
}

void PcscService::releaseAll() {
    std::vector<ConnectionPointer> connections;
    {
        const std::scoped_lock lock(mutex_);
        pcscd::Contexts contexts;
        for (const auto& [context, ends] : contexts_) {
            contexts.insert(context);
        }
        connections = takeOut(contexts);
    }
    closeAll(std::move(connections), pcscd::disposition::kReset);
}

Result PcscService::isValidContext(pcscd::Context context) const {
    const std::scoped_lock lock(mutex_);
    return contexts_.contains(context) ? result::kSuccess : result::kInvalidHandle;
}

Result PcscService::listReaders(pcscd::Context context, std::vector<std::string>& names) const {
    const std::scoped_lock lock(mutex_);
    if (context != 0 && !contexts_.contains(context)) {
        return result::kInvalidHandle;
    }
    names.clear();
    for (const ServedReader& reader : readers_) {
        names.push_back(reader.name);
    }
    return result::kSuccess;
}

Result PcscService::connect(pcscd::Context context, const std::string& reader,
                            std::uint32_t shareMode, std::uint32_t preferredProtocols,
                            pcscd::Card& card, std::uint32_t& activeProtocol) {
    ConnectionPointer connection;
    {
        const std::scoped_lock lock(mutex_);
        if (!contexts_.contains(context)) {
            return result::kInvalidHandle;
        }
        const ServedReader* served = findReader(reader);
        if (served == nullptr) {
            return result::kUnknownReader;
        }
        if (cards_.size() + opening_ >= kMostCards) {
            logLine("refused a connection to a card, there are too many");
            return result::kNoMemory;
        }
        connection = std::make_shared<CardConnection>(served->serviceName, served->name, context);
        ++opening_;
    }
    const Result opened = connection->open(shareMode, preferredProtocols, activeProtocol);
    const std::scoped_lock lock(mutex_);
    --opening_;
    if (opened != result::kSuccess) {
        return opened;
    }
    if (!contexts_.contains(context)) {
        return result::kInvalidHandle;  // released meanwhile; the connection closes with its
                                        // pointer
    }
    card = cardNumbers_.next();
    cards_.emplace(card, connection);
    return result::kSuccess;
}

Result PcscService::reconnect(pcscd::Card card, std::uint32_t shareMode,
                              std::uint32_t preferredProtocols, std::uint32_t initialization,
                              std::uint32_t& activeProtocol) {
    return with(card, [&](CardConnection& connection) {
        return connection.reconnect(shareMode, preferredProtocols, initialization, activeProtocol);
    });
}

Result PcscService::disconnect(pcscd::Card card, std::uint32_t disposition) {
    if (disposition > pcscd::disposition::kEject) {
        return find(card) == nullptr ? result::kInvalidHandle : result::kInvalidValue;
    }
    ConnectionPointer connection;
    {
        const std::scoped_lock lock(mutex_);
        const auto found = cards_.find(card);
        if (found == cards_.end()) {
            return result::kInvalidHandle;
        }
        connection = found->second;
        cards_.erase(found);
    }
    closeAll({std::move(connection)}, disposition);
    return result::kSuccess;
}

Result PcscService::beginTransaction(pcscd::Card card) {
    return with(card, [](CardConnection& connection) { return connection.beginTransaction(); });
}

Result PcscService::endTransaction(pcscd::Card card, std::uint32_t disposition) {
    return with(card,
                [&](CardConnection& connection) { return connection.endTransaction(disposition); });
}

Result PcscService::status(pcscd::Card card, pcscd::CardStatus& status) {
    return with(card, [&](CardConnection& connection) {
        status.reader = connection.reader();
        const Result answer = connection.status(status);
        if (answer != result::kSharingViolation) {
            return answer;
        }
        // The service keeps even this for the owner of the transaction; the Windows interface tells
        // everyone. A card in a transaction is one that is powered and has its protocol.
        const std::scoped_lock lock(mutex_);
        const ServedReader* reader = findReader(connection.reader());
        if (reader == nullptr) {
            return result::kReaderUnavailable;
        }
        status.present = (reader->observed.bits & pcscd::state::kPresent) != 0;
        status.powered = status.present;
        status.protocol = connection.protocol();
        status.atr = reader->observed.atr;
        return result::kSuccess;
    });
}

Result PcscService::transmit(pcscd::Card card, std::uint32_t protocol,
                             std::span<const std::uint8_t> command, std::size_t capacity,
                             pcscd::Bytes& response) {
    return with(card, [&](CardConnection& connection) {
        return connection.transmit(protocol, command, capacity, response);
    });
}

Result PcscService::control(pcscd::Card card, std::uint32_t function,
                            std::span<const std::uint8_t> input, std::size_t capacity,
                            pcscd::Bytes& output) {
    return with(card, [&](CardConnection& connection) {
        return connection.control(function, input, capacity, output);
    });
}

Result PcscService::getAttribute(pcscd::Card card, std::uint32_t id, pcscd::Bytes& value) {
    if (id == attribute::kAtrString) {  // which some readers do not tell as an attribute
        pcscd::CardStatus known;
        const Result answer = status(card, known);
        value = known.atr;
        return answer;
    }
    return with(card, [&](CardConnection& connection) {
        switch (id) {
            case attribute::kDeviceFriendlyNameA:
            case attribute::kDeviceSystemNameA:
                value = pcscd::terminated(connection.reader());
                return result::kSuccess;
            case attribute::kDeviceFriendlyNameW:
            case attribute::kDeviceSystemNameW:
                value = pcscd::terminatedWide(connection.reader());
                return result::kSuccess;
            default:
                return connection.getAttribute(id, value);
        }
    });
}

Result PcscService::setAttribute(pcscd::Card card, std::uint32_t id,
                                 std::span<const std::uint8_t> value) {
    return with(card,
                [&](CardConnection& connection) { return connection.setAttribute(id, value); });
}

Result PcscService::transmitCount(pcscd::Card card, std::uint32_t& count) const {
    return with(card, [&](CardConnection& connection) {
        count = connection.transmits();
        return result::kSuccess;
    });
}

Result PcscService::getStatusChange(pcscd::Context context, std::uint32_t timeout,
                                    std::span<pcscd::ReaderState> states) {
    std::unique_lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return result::kInvalidHandle;
    }
    const std::shared_ptr<pcscd::WaitEnds> ends = found->second;
    const Observed observed(*this);
    if (states.empty() || refresh(states, observed)) {
        return result::kSuccess;
    }
    return awaitChange(lock, changed_, *ends, timeout, states, observed);
}

Result PcscService::cancel(pcscd::Context context) {
    const std::scoped_lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return result::kInvalidHandle;
    }
    ++found->second->cancels;
    changed_.notify_all();
    return result::kSuccess;
}

}  // namespace tez::agent
