#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "core/card_service.h"
#include "core/handle_numbers.h"
#include "core/status_change.h"
#include "simulated/virtual_card.h"

namespace tez::pcscd {

/// Function numbers (bits 2 to 13 of a platform control code) that SimulatedService::control
/// serves.
inline constexpr std::uint32_t kControlEcho = 2048;        ///< answers with its input
inline constexpr std::uint32_t kControlReaderName = 2049;  ///< answers with the reader's name
inline constexpr std::uint32_t kControlFeatures = 3400;    ///< answers with nothing: no features

/// A PC/SC resource manager over named readers that may hold a VirtualCard each, in this process.
/// Beside those of CardService it has operations on the hardware, for those who play the user, and
/// tells which calls are blocked.
class SimulatedService final : public CardService {
  public:
    /// First handles issued; those after them count up.
    struct HandleBases {
        Context context;
        Card card;
    };

    /// With handles that no other run issues.
    SimulatedService();
    explicit SimulatedService(HandleBases bases);
    ~SimulatedService() override;
    SimulatedService(const SimulatedService&) = delete;
    SimulatedService& operator=(const SimulatedService&) = delete;

    // The hardware. Those returning bool return false when there is no such reader (addReader: when
    // there is one already; insertCard: also when it holds a card; removeCard: also when it has
    // none), and then change nothing. Names are compared exactly.
    bool addReader(const std::string& name);
    bool removeReader(const std::string& name);
    bool insertCard(const std::string& name, VirtualCard card);
    bool removeCard(const std::string& name);
    std::vector<std::string> readers() const;
    bool hasCard(const std::string& name) const;

    /// From now on the card in the reader keeps its commands to itself: transmit blocks until
    /// releaseCommands, the removal of the card or reader, or the end of the connection.
    bool holdCommands(const std::string& name);
    bool releaseCommands(const std::string& name);

    /// Waits until this many transmits are blocked by holdCommands. False when the time is over.
    bool waitForHeldCommands(std::size_t count, std::chrono::milliseconds timeout) const;

    /// Waits until this many getStatusChange calls block. False when the time is over.
    bool waitForStatusWaits(std::size_t count, std::chrono::milliseconds timeout) const;

    /// Waits until this many calls wait for another connection's transaction to end.
    bool waitForTransactionWaits(std::size_t count, std::chrono::milliseconds timeout) const;

    std::size_t contextCount() const;
    std::size_t cardCount() const;

    /// "SCard$DefaultReaders" alone. Context 0 asks without a context.
    Result listReaderGroups(Context context, std::vector<std::string>& groups) const;

    Result establishContext(std::uint32_t scope, Context& context) override;
    Result closeContexts(const Contexts& contexts, std::uint32_t disposition) override;
    Result isValidContext(Context context) const override;
    void releaseAll() override;
    /// The names in the order in which the readers were added.
    Result listReaders(Context context, std::vector<std::string>& names) const override;

    /// Shared and exclusive connections need a card and a protocol that it offers (or raw, or the
    /// one that is in use already); a direct one needs neither and, like an exclusive one, keeps
    /// all others out.
    Result connect(Context context, const std::string& name, std::uint32_t shareMode,
                   std::uint32_t preferredProtocols, Card& card,
                   std::uint32_t& activeProtocol) override;
    Result reconnect(Card card, std::uint32_t shareMode, std::uint32_t preferredProtocols,
                     std::uint32_t initialization, std::uint32_t& activeProtocol) override;
    Result disconnect(Card card, std::uint32_t disposition) override;
    Result beginTransaction(Card card) override;
    Result endTransaction(Card card, std::uint32_t disposition) override;
    Result status(Card card, CardStatus& status) override;

    /// `protocol` must be the active one. A card pulled meanwhile gives result::kRemovedCard.
    Result transmit(Card card, std::uint32_t protocol, std::span<const std::uint8_t> command,
                    std::size_t capacity, Bytes& response) override;
    /// See the kControl... function numbers; all others are result::kUnsupportedFeature.
    Result control(Card card, std::uint32_t function, std::span<const std::uint8_t> input,
                   std::size_t capacity, Bytes& output) override;

    /// Serves the ATR, vendor's and reader's names, unit, presence of a card and protocol, and
    /// whatever setAttribute stored; all others are result::kUnsupportedFeature.
    Result getAttribute(Card card, std::uint32_t id, Bytes& value) override;
    /// Stores any attribute that the reader does not compute itself, of any length.
    Result setAttribute(Card card, std::uint32_t id, std::span<const std::uint8_t> value) override;
    Result transmitCount(Card card, std::uint32_t& count) const override;

    Result getStatusChange(Context context, std::uint32_t timeout,
                           std::span<ReaderState> states) override;
    Result cancel(Context context) override;

  private:
    struct Reader;
    struct Connection;
    class Blocked;
    class Observed;

    using Lock = std::unique_lock<std::mutex>;
    using ReaderPointer = std::shared_ptr<Reader>;
    using ConnectionPointer = std::shared_ptr<Connection>;

    // All of these are called with mutex_ held.
    bool knows(Context context) const;
    ReaderPointer findReader(const std::string& name) const;
    ConnectionPointer findConnection(Card card) const;
    static Result readerResult(const Connection& connection);
    static Result cardResult(const Connection& connection);
    Result waitForTurn(Lock& lock, Card card, const Connection& connection);
    Result checkSharing(const Reader& reader, const Connection* self,
                        std::uint32_t shareMode) const;
    Result chooseProtocol(const Reader& reader, const Connection* self, std::uint32_t shareMode,
                          std::uint32_t preferred, std::uint32_t& protocol) const;
    static void takeOut(Reader& reader);
    static void dispose(Connection& connection, std::uint32_t disposition);
    void closeConnection(Card card);
    void dropContext(Context context, std::uint32_t disposition);
    bool waitForCount(const std::size_t& counter, std::size_t count,
                      std::chrono::milliseconds timeout) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<ReaderPointer> readers_;
    std::map<Context, std::shared_ptr<WaitEnds>> contexts_;
    std::map<Card, ConnectionPointer> connections_;
    HandleNumbers contextNumbers_;
    HandleNumbers cardNumbers_;
    std::uint32_t nextUnit_ = 0;
    std::size_t statusWaits_ = 0;
    std::size_t heldCommands_ = 0;
    std::size_t transactionWaits_ = 0;
};

}  // namespace tez::pcscd
