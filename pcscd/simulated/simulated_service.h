#pragma once

#include <windows.h>
#include <winscard.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "core/card_store.h"
#include "simulated/virtual_card.h"

namespace tez::test {

/// The pseudo-reader of getStatusChange that stands for the arrival and removal of readers.
inline constexpr const char* kPnpReader = R"(\\?PnP?\Notification)";

/// Function numbers (bits 2 to 13 of a platform control code) that SimulatedService::control
/// serves.
inline constexpr std::uint32_t kControlEcho = 2048;        ///< answers with its input
inline constexpr std::uint32_t kControlReaderName = 2049;  ///< answers with the reader's name
inline constexpr std::uint32_t kControlFeatures = 3400;    ///< answers with nothing: no features

/// One entry of a status-change wait; the members mean what they do in SCARD_READERSTATE.
struct ReaderState {
    std::string reader;
    DWORD currentState = SCARD_STATE_UNAWARE;
    DWORD eventState = 0;
    Bytes atr = {};
};

/// What is known of a card connection. How states are numbered is the caller's business.
struct CardStatus {
    std::string reader;
    bool present = false;
    bool powered = false;
    bool negotiable = false;  ///< powered, but no protocol has been chosen yet
    DWORD protocol = SCARD_PROTOCOL_UNDEFINED;
    Bytes atr;
};

/// An in-process PC/SC resource manager over named readers that may hold a VirtualCard each.
///
/// Results are the platform's codes; protocols are its masks (T=0 1, T=1 2, raw 0x10000). Handles
/// are numbers counted up from the bases given to the constructor and never used twice. Every
/// operation may be called from any thread; those that block (getStatusChange; beginTransaction,
/// reconnect, transmit and control while another connection holds a transaction; transmit while
/// commands are held) let all others through, and all of them end when their context is released.
class SimulatedService {
  public:
    using Context = std::uint64_t;
    using Card = std::uint64_t;

    /// First handles issued. The defaults lie above 32 bits, so that a truncated handle is unknown.
    struct HandleBases {
        Context context = 0x5'0000'0001;
        Card card = 0x6'0000'0001;
    };

    SimulatedService();
    explicit SimulatedService(HandleBases bases);
    ~SimulatedService();
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

    /// The database of card types and the cache of card data. Its users check contexts themselves.
    CardStore& cardStore() noexcept { return cardStore_; }

    std::size_t contextCount() const;
    std::size_t cardCount() const;

    LONG establishContext(DWORD scope, Context& context);
    /// Also ends the context's waits (SCARD_E_CANCELLED) and closes its cards, leaving them as is.
    LONG releaseContext(Context context);
    LONG isValidContext(Context context) const;
    /// Releases every context; readers and cards stay.
    void releaseAll();

    /// The names in the order in which the readers were added; none is a success too. Context 0
    /// asks without a context.
    LONG listReaders(Context context, std::vector<std::string>& names) const;
    /// "SCard$DefaultReaders" alone. Context 0 asks without a context.
    LONG listReaderGroups(Context context, std::vector<std::string>& groups) const;

    /// Every reader is a USB one and has the icon of readerIcon(). SCARD_E_UNKNOWN_READER when
    /// there is no such reader. Context 0 asks without a context.
    LONG getDeviceTypeId(Context context, const std::string& reader, DWORD& type) const;
    LONG getReaderIcon(Context context, const std::string& reader, Bytes& icon) const;
    /// SCARD_E_INVALID_PARAMETER for anything but the platform's two events. Context 0 audits
    /// without a context.
    LONG audit(Context context, DWORD event) const;

    /// Shared and exclusive connections need a card and a protocol that it offers (or raw, or the
    /// one that is in use already); a direct one needs neither and, like an exclusive one, keeps
    /// all others out.
    LONG connect(Context context, const std::string& name, DWORD shareMode,
                 DWORD preferredProtocols, Card& card, DWORD& activeProtocol);
    /// Also the way on after SCARD_W_RESET_CARD, and after SCARD_W_REMOVED_CARD once a card is
    /// back.
    LONG reconnect(Card card, DWORD shareMode, DWORD preferredProtocols, DWORD initialization,
                   DWORD& activeProtocol);
    LONG disconnect(Card card, DWORD disposition);
    LONG beginTransaction(Card card);
    LONG endTransaction(Card card, DWORD disposition);
    LONG status(Card card, CardStatus& status) const;

    /// `protocol` must be the active one. A response of more than `capacity` bytes is lost and the
    /// result SCARD_E_INSUFFICIENT_BUFFER; a card pulled meanwhile gives SCARD_W_REMOVED_CARD.
    LONG transmit(Card card, DWORD protocol, std::span<const std::uint8_t> command,
                  std::size_t capacity, Bytes& response);
    /// See the kControl... function numbers; all others are SCARD_E_UNSUPPORTED_FEATURE.
    LONG control(Card card, std::uint32_t function, std::span<const std::uint8_t> input,
                 std::size_t capacity, Bytes& output);

    /// Serves SCARD_ATTR_ATR_STRING, _VENDOR_NAME, _VENDOR_IFD_TYPE, _DEVICE_FRIENDLY_NAME_A/_W,
    /// _DEVICE_SYSTEM_NAME_A/_W, _DEVICE_UNIT, _ICC_PRESENCE, _CURRENT_PROTOCOL_TYPE, and whatever
    /// setAttribute stored; all others are SCARD_E_UNSUPPORTED_FEATURE. Texts include their zero.
    LONG getAttribute(Card card, DWORD id, Bytes& value) const;
    /// Stores any attribute that the reader does not compute itself, of any length.
    LONG setAttribute(Card card, DWORD id, std::span<const std::uint8_t> value);
    /// Successful transmits of this connection.
    LONG transmitCount(Card card, DWORD& count) const;

    /// Waits until an entry differs from its currentState, at most `timeout` ms (0: no wait;
    /// INFINITE: for ever), and then sets every entry's eventState and atr (also on
    /// SCARD_E_TIMEOUT and SCARD_E_CANCELLED).
    ///
    /// An entry has changed when it is UNAWARE (0), or its state bits (EMPTY, PRESENT, INUSE,
    /// EXCLUSIVE, UNKNOWN) differ, or the counter of insertions and removals in the upper 16 bits
    /// does; a counter of 0 is not compared. IGNOREd entries never change. A reader that does not
    /// exist is UNKNOWN | IGNORE. kPnpReader has the number of readers in its upper 16 bits and has
    /// changed when that differs, also from a counter of 0.
    LONG getStatusChange(Context context, DWORD timeout, std::span<ReaderState> states);

    /// Ends the context's status-change waits that are in progress now, with SCARD_E_CANCELLED. A
    /// cancel that finds none is forgotten: the next wait does not see it.
    LONG cancel(Context context);

  private:
    struct Reader;
    struct ContextRecord;
    struct Connection;
    class Blocked;

    using Lock = std::unique_lock<std::mutex>;
    using ReaderPointer = std::shared_ptr<Reader>;
    using ConnectionPointer = std::shared_ptr<Connection>;

    // All of these are called with mutex_ held.
    bool knows(Context context) const;
    ReaderPointer findReader(const std::string& name) const;
    ConnectionPointer findConnection(Card card) const;
    LONG checkReader(Context context, const std::string& name) const;
    static LONG readerResult(const Connection& connection);
    static LONG cardResult(const Connection& connection);
    LONG waitForTurn(Lock& lock, Card card, const Connection& connection);
    LONG checkSharing(const Reader& reader, const Connection* self, DWORD shareMode) const;
    LONG chooseProtocol(const Reader& reader, const Connection* self, DWORD shareMode,
                        DWORD preferred, DWORD& protocol) const;
    static void takeOut(Reader& reader);
    static void dispose(Connection& connection, DWORD disposition);
    void closeConnection(Card card);
    void dropContext(Context context);
    bool refresh(ReaderState& state) const;
    bool refreshAll(std::span<ReaderState> states) const;
    bool waitForCount(const std::size_t& counter, std::size_t count,
                      std::chrono::milliseconds timeout) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<ReaderPointer> readers_;
    std::map<Context, std::shared_ptr<ContextRecord>> contexts_;
    std::map<Card, ConnectionPointer> connections_;
    Context nextContext_;
    Card nextCard_;
    DWORD nextUnit_ = 0;
    std::size_t statusWaits_ = 0;
    std::size_t heldCommands_ = 0;
    std::size_t transactionWaits_ = 0;
    CardStore cardStore_;  // has a lock of its own
};

}  // namespace tez::test
