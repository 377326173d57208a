// One exported call after the other, and whatever bytes for the daemon's answer: the call must keep
// to the caller's buffers, tell the truth about them, and leave the connection fit for the next
// one.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/scard_api.h"
#include "context/card_handle_registry.h"
#include "context/context_registry.h"
#include "context/remote_context.h"
#include "readers/remote_half.h"
#include "state/reader_names.h"
#include "support/holds.h"
#include "support/scripted_daemon.h"
#include "wire/context_records.h"

using namespace tez;
using fuzz::holds;
using fuzz::ScriptedDaemon;

namespace {

/// How a caller asks for a result.
enum class Asks { ForLengthOnly, IntoBuffer, ToAllocate };

struct Caller {
    SCARDCONTEXT context;
    SCARDHANDLE card;
    Asks asks;
    DWORD room;
    std::uint8_t choice;  ///< of what else a call can be given
};

/// What a caller gives for a result: a buffer with nothing behind it and its length.
template <class Unit>
class Place {
  public:
    explicit Place(const Caller& caller)
        : asks_(caller.asks),
          length_(asks_ == Asks::ToAllocate ? SCARD_AUTOALLOCATE : caller.room),
          room_(length_),
          buffer_(asks_ == Asks::IntoBuffer ? std::max<DWORD>(room_, 1) : 0) {}
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() { SCardFreeMemory(0, allocated_); }

    Unit* buffer() {
        switch (asks_) {
            case Asks::IntoBuffer:
                return buffer_.data();
            case Asks::ToAllocate:
                return reinterpret_cast<Unit*>(&allocated_);
            default:
                return nullptr;
        }
    }
    DWORD* length() { return &length_; }

    /// What was handed out, with what has to be true of it.
    std::basic_string<Unit> result(LONG rv) const {
        if (rv != SCARD_S_SUCCESS) {
            holds(allocated_ == nullptr);  // the caller would not free it
            return {};
        }
        if (asks_ == Asks::IntoBuffer) {
            holds(length_ <= room_);
            return {buffer_.data(), length_};
        }
        if (asks_ == Asks::ToAllocate && length_ != SCARD_AUTOALLOCATE) {
            holds(allocated_ != nullptr);
            return {allocated_, length_};
        }
        holds(allocated_ == nullptr);
        return {};
    }

    /// As result, for a list of names.
    void checkNames(LONG rv) const {
        const std::basic_string<Unit> names = result(rv);
        if (!names.empty()) {
            holds(names.back() == 0);
            holds(names.size() == 1 || names[names.size() - 2] == 0);
        }
    }

  private:
    Asks asks_;
    DWORD length_;
    DWORD room_;
    std::vector<Unit> buffer_;  // not empty: without a place nothing is asked for but the length
    Unit* allocated_ = nullptr;
};

constexpr DWORD kUntouched = 0xA5A5A5A5;
constexpr std::array<BYTE, 20> kAtr = {0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00,
                                       0x03, 0x06, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x6A};
constexpr GUID kGuid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

void listReaders(const Caller& caller) {
    Place<char> names(caller);
    names.checkNames(SCardListReadersA(caller.context, nullptr, names.buffer(), names.length()));
}
void listReadersWide(const Caller& caller) {
    Place<wchar_t> names(caller);
    names.checkNames(SCardListReadersW(caller.context, nullptr, names.buffer(), names.length()));
}

void establish(const Caller& caller) {
    std::uint64_t made = NO_REMOTE_CONTEXT;
    const LONG rv = establishRemoteContext(SCARD_SCOPE_SYSTEM, made, caller.choice % 2 == 0);
    if (rv == SCARD_S_SUCCESS) {
        static_cast<void>(releaseRemoteContext(made, caller.choice % 2 == 0));
    } else {
        holds(made == NO_REMOTE_CONTEXT);
    }
}
void connect(const Caller& caller) {
    SCARDHANDLE card = 0;
    DWORD protocol = kUntouched;
    const LONG rv = SCardConnectA(caller.context, "Reader A", SCARD_SHARE_SHARED,
                                  SCARD_PROTOCOL_Tx | SCARD_PROTOCOL_RAW, &card, &protocol);
    holds((rv == SCARD_S_SUCCESS) == (card != 0));
    holds(rv == SCARD_S_SUCCESS || protocol == kUntouched || protocol == 0);
    unregisterCardHandle(card);
}
void reconnect(const Caller& caller) {
    DWORD protocol = kUntouched;
    const LONG rv = SCardReconnect(caller.card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                   SCARD_LEAVE_CARD, &protocol);
    holds(rv == SCARD_S_SUCCESS || protocol == kUntouched || protocol == 0);
}
void disconnect(const Caller& caller) {
    const LONG rv = SCardDisconnect(caller.card, SCARD_LEAVE_CARD);
    holds((findCardHandle(caller.card) == nullptr) == (rv == SCARD_S_SUCCESS));
}
void useTransaction(const Caller& caller) {
    if (SCardBeginTransaction(caller.card) == SCARD_S_SUCCESS) {
        static_cast<void>(SCardEndTransaction(caller.card, SCARD_LEAVE_CARD));
    }
}

void transmit(const Caller& caller) {
    const std::vector<BYTE> command(caller.choice + 1U);
    SCARD_IO_REQUEST receivePci = {SCARD_PROTOCOL_T0, sizeof(SCARD_IO_REQUEST)};
    Place<BYTE> answer(caller);
    const LONG rv =
        SCardTransmit(caller.card, SCARD_PCI_T0, command.data(), static_cast<DWORD>(command.size()),
                      &receivePci, answer.buffer(), answer.length());
    holds(caller.asks == Asks::IntoBuffer || rv != SCARD_S_SUCCESS);
    answer.result(rv);
    holds(receivePci.cbPciLength == sizeof(SCARD_IO_REQUEST));
}
void control(const Caller& caller) {
    const std::vector<BYTE> input(caller.choice);
    const auto output = std::make_unique<BYTE[]>(caller.room);
    DWORD returned = kUntouched;
    const LONG rv =
        SCardControl(caller.card, SCARD_CTL_CODE(2048), input.data(),
                     static_cast<DWORD>(input.size()), output.get(), caller.room, &returned);
    holds(rv != SCARD_S_SUCCESS || returned <= caller.room);
}

template <class Unit, class Status>
void status(const Caller& caller, Status call) {
    Place<Unit> names(caller);
    Place<BYTE> atr(caller);
    DWORD state = kUntouched;
    DWORD protocol = kUntouched;
    const LONG rv = call(caller.card, names.buffer(), names.length(), &state, &protocol,
                         atr.buffer(), atr.length());
    names.checkNames(rv);
    holds(atr.result(rv).size() <= 264);
    holds(rv != SCARD_S_SUCCESS || state <= SCARD_SPECIFIC);
}
void statusNarrow(const Caller& caller) {
    status<char>(caller, SCardStatusA);
}
void statusWide(const Caller& caller) {
    status<wchar_t>(caller, SCardStatusW);
}

void getAttribute(const Caller& caller) {
    Place<BYTE> value(caller);
    const DWORD id =
        caller.choice % 2 == 0 ? SCARD_ATTR_ATR_STRING : SCARD_ATTR_DEVICE_FRIENDLY_NAME_W;
    value.result(SCardGetAttrib(caller.card, id, value.buffer(), value.length()));
}
void setAttribute(const Caller& caller) {
    const std::vector<BYTE> value(caller.room);
    static_cast<void>(SCardSetAttrib(caller.card, 1, value.data(), caller.room));
}
void getTransmitCount(const Caller& caller) {
    DWORD count = kUntouched;
    const LONG rv = SCardGetTransmitCount(caller.card, &count);
    holds(rv == SCARD_S_SUCCESS || count == kUntouched);
}

void listCards(const Caller& caller) {
    Place<char> names(caller);
    names.result(SCardListCardsA(caller.context, caller.choice % 2 == 0 ? nullptr : kAtr.data(),
                                 &kGuid, caller.choice % 2, names.buffer(), names.length()));
}
void listCardsWide(const Caller& caller) {
    Place<wchar_t> names(caller);
    names.result(
        SCardListCardsW(caller.context, kAtr.data(), nullptr, 0, names.buffer(), names.length()));
}
void getDeviceTypeId(const Caller& caller) {
    DWORD id = kUntouched;
    static_cast<void>(SCardGetDeviceTypeIdA(caller.context, "Reader A", &id));
}
void getProviderName(const Caller& caller) {
    Place<char> name(caller);
    name.result(SCardGetCardTypeProviderNameA(caller.context, "Card A", SCARD_PROVIDER_CSP,
                                              name.buffer(), name.length()));
}
void getProviderNameWide(const Caller& caller) {
    Place<wchar_t> name(caller);
    name.result(SCardGetCardTypeProviderNameW(caller.context, L"Card A", SCARD_PROVIDER_CSP,
                                              name.buffer(), name.length()));
}
/// Updates go to the daemon without a context only.
void updateCardTypes(const Caller& /*caller*/) {
    static_cast<void>(SCardIntroduceCardTypeA(0, "Card A", &kGuid, &kGuid, 1, kAtr.data(),
                                              kAtr.data(), kAtr.size()));
    static_cast<void>(SCardSetCardTypeProviderNameA(0, "Card A", SCARD_PROVIDER_CSP, "Provider"));
    static_cast<void>(SCardForgetCardTypeA(0, "Card A"));
}
void audit(const Caller& caller) {
    static_cast<void>(SCardAudit(0, caller.choice));
}

void readCache(const Caller& caller) {
    Place<BYTE> data(caller);
    UUID card = kGuid;
    char name[] = "Cached_File";
    data.result(SCardReadCacheA(caller.context, &card, 1, name, data.buffer(), data.length()));
}
void writeCache(const Caller& caller) {
    std::vector<BYTE> data(caller.room);
    UUID card = kGuid;
    char name[] = "Cached_File";
    static_cast<void>(SCardWriteCacheA(caller.context, &card, 1, name, data.data(), caller.room));
}
void getReaderIcon(const Caller& caller) {
    Place<BYTE> icon(caller);
    icon.result(SCardGetReaderIconA(caller.context, "Reader A", icon.buffer(), icon.length()));
}

/// The daemon's half of a wait, which goes about the exchange in its own way.
void waitForReaders(const Caller& caller) {
    static constexpr FunctionLog log("SCardGetStatusChangeA");
    std::vector<SCARD_READERSTATEA> states(1 + caller.choice % 3U);
    std::vector<DWORD> indexes;
    for (SCARD_READERSTATEA& state : states) {
        state.szReader = indexes.empty() ? kPnpReader : "Reader A";
        indexes.push_back(static_cast<DWORD>(indexes.size()));
    }
    const SideEntries entries = {states.data(), indexes, 0};
    RemoteHalf half(log, getServiceState(), entries);
    holds(half.prepare() == SCARD_S_SUCCESS);
    if (!half.connect() || half.send(0x10, 0) != SCARD_S_SUCCESS) {
        return;
    }
    const LONG rv = half.finish();
    holds(half.hasAnswered() || rv != SCARD_S_SUCCESS);
    for (const SCARD_READERSTATEA& state : states) {
        holds(state.cbAtr <= sizeof state.rgbAtr);
    }
}

constexpr void (*kCalls[])(const Caller&) = {
    listReaders,      listReadersWide,     connect,         reconnect,
    disconnect,       useTransaction,      transmit,        control,
    statusNarrow,     statusWide,          getAttribute,    setAttribute,
    getTransmitCount, listCards,           listCardsWide,   getDeviceTypeId,
    getProviderName,  getProviderNameWide, updateCardTypes, readCache,
    writeCache,       getReaderIcon,       audit,           waitForReaders,
    establish};

/// A context that the daemon knows, and a card of it.
class Session {
  public:
    explicit Session(ServiceState state) : context_(registerContext(0, SCARD_SCOPE_SYSTEM)) {
        const EstablishRecord established = {SCARD_SCOPE_SYSTEM, 0x10, 0};
        std::array<std::uint8_t, 2 * sizeof established> answers = {};
        std::memcpy(answers.data(), &established, sizeof established);
        std::memcpy(answers.data() + sizeof established, &established, sizeof established);
        const ScriptedDaemon daemon({state, 4}, answers);
        std::uint64_t bound = 0;
        for (const bool flag : {true, false}) {
            holds(getRemoteContextVolatile(context_, bound, flag) == SCARD_S_SUCCESS);
        }
        card_ = registerCardHandle(0x20, context_, "Reader A", false);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        unregisterCardHandle(card_);
        unregisterContext(context_);
        setRemoteReaderNames({});
    }

    SCARDCONTEXT context() const { return context_; }
    SCARDHANDLE card() const { return card_; }

  private:
    SCARDCONTEXT context_;
    SCARDHANDLE card_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // The calls of the card database go to the daemon, too, while it serves behind the host.
    setenv("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1", 1);
    return 0;
}

/// Six bytes say what is called and how, the others are what the daemon answers.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kHead = 6;
    if (size < kHead) {
        return 0;
    }
    const unsigned how = data[1];
    ScriptedDaemon::Behaviour behaviour;
    behaviour.state = (how & 0x01U) != 0 ? ServiceState::LocalFirst : ServiceState::RemoteOnly;
    behaviour.isStale = (how & 0x02U) != 0;
    behaviour.opensAgain = (how & 0x04U) == 0;
    behaviour.minor = how >> 3U & 0x07U;
    behaviour.staleMinor = data[2] & 0x07U;
    const Asks asks = (how & 0x40U) != 0   ? Asks::ToAllocate
                      : (how & 0x80U) != 0 ? Asks::ForLengthOnly
                                           : Asks::IntoBuffer;
    const auto room = static_cast<DWORD>(data[3] | (data[4] & 0x0FU) << 8U);

    const Session session(behaviour.state);
    const ScriptedDaemon daemon(behaviour, std::span(data, size).subspan(kHead));
    kCalls[data[0] % std::size(kCalls)]({session.context(), session.card(), asks, room, data[5]});
    return 0;
}
