#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/card_store.h"
#include "core/platform.h"

namespace tez::pcscd {

using Context = std::uint64_t;
using Contexts = std::set<Context>;
using Card = std::uint64_t;

/// One entry of a status-change wait; the members mean what they do in SCARD_READERSTATE.
struct ReaderState {
    std::string reader;
    std::uint32_t currentState = state::kUnaware;
    std::uint32_t eventState = 0;
    Bytes atr = {};
};

/// What is known of a card connection. How states are numbered is the caller's business.
struct CardStatus {
    std::string reader;
    bool present = false;
    bool swallowed = false;
    bool powered = false;
    bool negotiable = false;  ///< powered, but no protocol has been chosen yet
    std::uint32_t protocol = protocol::kUndefined;
    Bytes atr;
};

/// The readers and cards that a daemon serves, as a PC/SC resource manager has them.
///
/// Results, masks and states are those of the Windows interface (see core/platform.h), whatever
/// the service behind has. A handle is issued once and never again, not by the next run either.
/// Every operation may be called from any thread. Those that can block (getStatusChange;
/// beginTransaction, reconnect, transmit and control while another connection holds a transaction;
/// transmit while the card takes its time) let all others through, and end when their context is
/// released. Connect can block, too, and closing a card with something to be done to it; both let
/// all others through, but where the service behind waits for a program of its own machine nothing
/// ends them.
class CardService {
  public:
    CardService() = default;
    CardService(const CardService&) = delete;
    CardService& operator=(const CardService&) = delete;
    virtual ~CardService() = default;

    /// The database of card types and the cache of card data. Its users check contexts themselves.
    CardStore& cardStore() noexcept { return cardStore_; }

    virtual Result establishContext(std::uint32_t scope, Context& context) = 0;
    /// Also ends the context's waits (result::kCancelled) and closes its cards, which are left as
    /// they are.
    Result releaseContext(Context context) { return closeContexts({context}, disposition::kLeave); }
    /// As releaseContext for each, with something else to be done to the cards: to every card as
    /// soon as that can be, whatever others wait for. result::kInvalidHandle when a context is
    /// unknown; the others are released all the same.
    virtual Result closeContexts(const Contexts& contexts, std::uint32_t disposition) = 0;
    virtual Result isValidContext(Context context) const = 0;
    /// Releases every context; readers and cards stay.
    virtual void releaseAll() = 0;

    /// The names of the readers; none is a success too. Context 0 asks without a context. All are
    /// sent: of more than 2048 bytes the library takes none, or of 64 KiB with standard answers.
    virtual Result listReaders(Context context, std::vector<std::string>& names) const = 0;

    /// Every reader is a USB one and has the icon of readerIcon(). result::kUnknownReader when
    /// there is no such reader. Context 0 asks without a context.
    Result getDeviceTypeId(Context context, const std::string& reader, std::uint32_t& type) const;
    Result getReaderIcon(Context context, const std::string& reader, Bytes& icon) const;
    /// result::kInvalidParameter for anything but the platform's two events. Context 0 audits
    /// without a context.
    Result audit(Context context, std::uint32_t event) const;

    virtual Result connect(Context context, const std::string& reader, std::uint32_t shareMode,
                           std::uint32_t preferredProtocols, Card& card,
                           std::uint32_t& activeProtocol) = 0;
    /// Also the way on after result::kResetCard, and after result::kRemovedCard once a card is
    /// back.
    virtual Result reconnect(Card card, std::uint32_t shareMode, std::uint32_t preferredProtocols,
                             std::uint32_t initialization, std::uint32_t& activeProtocol) = 0;
    virtual Result disconnect(Card card, std::uint32_t disposition) = 0;
    virtual Result beginTransaction(Card card) = 0;
    virtual Result endTransaction(Card card, std::uint32_t disposition) = 0;
    virtual Result status(Card card, CardStatus& status) = 0;

    /// A response of more than `capacity` bytes is lost and the result
    /// result::kInsufficientBuffer.
    virtual Result transmit(Card card, std::uint32_t protocol,
                            std::span<const std::uint8_t> command, std::size_t capacity,
                            Bytes& response) = 0;
    /// `function`: bits 2 to 13 of a platform control code.
    virtual Result control(Card card, std::uint32_t function, std::span<const std::uint8_t> input,
                           std::size_t capacity, Bytes& output) = 0;
    /// Texts include their zero.
    virtual Result getAttribute(Card card, std::uint32_t id, Bytes& value) = 0;
    virtual Result setAttribute(Card card, std::uint32_t id,
                                std::span<const std::uint8_t> value) = 0;
    /// Successful transmits of this connection.
    virtual Result transmitCount(Card card, std::uint32_t& count) const = 0;

    /// Waits until an entry differs from its currentState, at most `timeout` ms (0: no wait;
    /// kInfinite: for ever), and then sets every entry's eventState and atr (also on
    /// result::kTimeout and result::kCancelled). See core/status_change.h for what counts as a
    /// change.
    virtual Result getStatusChange(Context context, std::uint32_t timeout,
                                   std::span<ReaderState> states) = 0;
    /// Ends the context's status-change waits that are in progress now, with result::kCancelled. A
    /// cancel that finds none is forgotten: the next wait does not see it.
    virtual Result cancel(Context context) = 0;

  private:
    CardStore cardStore_;  // has a lock of its own
};

}  // namespace tez::pcscd
