#include "card_use.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

#include "system_library/host_service.h"
#include "tagged_card.h"

namespace tez::soak {
namespace {

/// A connection to a card, which is closed with the object.
class CardSession {
  public:
    CardSession(Caller& caller, SCARDCONTEXT context, std::string reader, DWORD shareMode)
        : caller_(caller), reader_(std::move(reader)) {
        rv_ = caller_(Call::kConnect, [&] {
            return SCardConnectA(context, reader_.c_str(), shareMode, SCARD_PROTOCOL_Tx, &card_,
                                 &protocol_);
        });
    }
    CardSession(const CardSession&) = delete;
    CardSession& operator=(const CardSession&) = delete;
    ~CardSession() {
        if (rv_ == SCARD_S_SUCCESS) {
            const DWORD disposition =
                caller_.random().below(8) == 0 ? SCARD_RESET_CARD : SCARD_LEAVE_CARD;
            caller_(Call::kDisconnect, [&] { return SCardDisconnect(card_, disposition); });
        }
    }

    bool isOpen() const { return rv_ == SCARD_S_SUCCESS; }

    /// Takes the card over as it is now, another one or one that was reset.
    bool reconnect(DWORD shareMode) {
        return caller_(Call::kReconnect, [&] {
                   return SCardReconnect(card_, shareMode, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD,
                                         &protocol_);
               }) == SCARD_S_SUCCESS;
    }

    /// Reads a part of the card chosen at random. False when the card could not be asked.
    bool readTag() {
        Random& random = caller_.random();
        const std::size_t length = random.between(4, random.below(16) == 0 ? 1024 : 256);
        const std::size_t offset = random.below(static_cast<unsigned>(kTaggedFileSize - length));
        std::array<BYTE, 1100> buffer = {};
        std::span<const std::uint8_t> answer;
        if (!transmit(readTaggedFile(offset, length), buffer, answer)) {
            return false;
        }
        if (answer.size() == 2 && answer[0] == 0x69 && answer[1] == 0x86) {
            // The card is fresh, or was reset: the file is not selected.
            std::span<const std::uint8_t> status;
            return transmit(selectTaggedApplication(), buffer, status) &&
                   transmit(selectTaggedFile(), buffer, status);
        }
        judge(isAnswerOf(reader_, offset, length, answer), "transmit");
        return true;
    }

    /// Lets the reader send bytes back.
    bool echo() {
        std::array<BYTE, 16> tag = {};
        std::ranges::generate(tag,
                              [&] { return static_cast<BYTE>(caller_.random().below(0x100)); });
        std::array<BYTE, 32> buffer = {};
        DWORD length = 0;
        if (caller_(Call::kControl, [&] {
                return SCardControl(card_, SCARD_CTL_CODE(kControlEcho), tag.data(), tag.size(),
                                    buffer.data(), buffer.size(), &length);
            }) != SCARD_S_SUCCESS) {
            return false;
        }
        judge(std::ranges::equal(tag, std::span(buffer).first(length)), "control");
        return true;
    }

    /// Asks for the reader's own name.
    bool status() {
        std::array<char, 256> names = {};
        DWORD length = names.size();
        if (caller_(Call::kStatus, [&] {
                return SCardStatusA(card_, names.data(), &length, nullptr, nullptr, nullptr,
                                    nullptr);
            }) != SCARD_S_SUCCESS) {
            return false;
        }
        judge(names.data() == reader_, "status");
        return true;
    }

    bool use() {
        switch (caller_.random().below(8)) {
            case 0:
                return echo();
            case 1:
                return status();
            default:
                return readTag();
        }
    }

    /// Uses the card with nobody in between.
    bool useInTransaction() {
        if (caller_(Call::kBeginTransaction, [&] { return SCardBeginTransaction(card_); }) !=
            SCARD_S_SUCCESS) {
            return false;
        }
        const bool isGood = use() && use();
        caller_(Call::kEndTransaction,
                [&] { return SCardEndTransaction(card_, SCARD_LEAVE_CARD); });
        return isGood;
    }

  private:
    bool transmit(const Bytes& command, std::span<BYTE> buffer,
                  std::span<const std::uint8_t>& answer) {
        const SCARD_IO_REQUEST pci = {protocol_, sizeof pci};
        auto length = static_cast<DWORD>(buffer.size());
        if (caller_(Call::kTransmit, [&] {
                return SCardTransmit(card_, &pci, command.data(),
                                     static_cast<DWORD>(command.size()), nullptr, buffer.data(),
                                     &length);
            }) != SCARD_S_SUCCESS) {
            return false;
        }
        answer = buffer.first(length);
        return true;
    }

    void judge(bool isRight, const char* what) {
        ++caller_.self().answers;
        if (!isRight) {
            ++caller_.self().crossed;
            std::fprintf(stderr, "CROSSED: the answer to a %s on %s is another one's\n", what,
                         reader_.c_str());
        }
    }

    Caller& caller_;
    const std::string reader_;
    SCARDHANDLE card_ = 0;
    DWORD protocol_ = 0;
    LONG rv_;
};

/// A context of a thread's own, a fresh one now and then.
class OwnContext {
  public:
    explicit OwnContext(Caller& caller) : caller_(caller), context_(caller.establish()) {}
    OwnContext(const OwnContext&) = delete;
    OwnContext& operator=(const OwnContext&) = delete;
    ~OwnContext() { caller_.release(context_); }

    SCARDCONTEXT get() {
        if (caller_.random().below(100) == 0) {
            caller_.release(context_);
            context_ = caller_.establish();
        }
        return context_;
    }

  private:
    Caller& caller_;
    SCARDCONTEXT context_;
};

}  // namespace

void useRemoteCards(Caller& caller) {
    OwnContext context(caller);
    Random& random = caller.random();
    while (!caller.isOver()) {
        const char* const reader = random.below(8) == 0 ? kRemoteReader : kRemoteCardReader;
        CardSession card(caller, context.get(), reader, SCARD_SHARE_SHARED);
        for (unsigned uses = random.below(20);
             card.isOpen() && uses > 0 && !caller.isOver() && card.use(); --uses) {
            random.pause(0, 4);
        }
        random.pause(0, 20);
    }
}

void useHostCard(Caller& caller) {
    // Handles of the host's cards stay known to the library for good: one has to do.
    const SCARDCONTEXT context = caller.establish();
    {
        CardSession card(caller, context, kHostCardReader, SCARD_SHARE_SHARED);
        Random& random = caller.random();
        while (!caller.isOver()) {
            const bool isAlone = random.below(4) == 0;
            card.reconnect(isAlone ? SCARD_SHARE_EXCLUSIVE : SCARD_SHARE_SHARED);
            for (unsigned uses = random.below(20); uses > 0; --uses) {
                random.below(4) == 0 ? card.useInTransaction() : card.use();
            }
            random.pause(1, 20);
        }
    }
    caller.release(context);
}

void useRemoteCardAlone(Caller& caller) {
    Random& random = caller.random();
    while (!caller.isOver()) {
        {
            // Transmits of others wait for the end of a transaction. When a connection to the
            // daemon was lost in the call that ends it, the transaction ends with that of the
            // card's connection, or of the context.
            const Caller::Use whole(caller);
            OwnContext context(caller);
            const bool isExclusive = random.below(2) == 0;
            CardSession card(caller, context.get(), kRemoteCardReader,
                             isExclusive ? SCARD_SHARE_EXCLUSIVE : SCARD_SHARE_SHARED);
            if (card.isOpen()) {
                isExclusive ? card.use() : card.useInTransaction();
            }
        }
        random.pause(1, 30);
    }
}

void look(Caller& caller) {
    OwnContext context(caller);
    Random& random = caller.random();
    while (!caller.isOver()) {
        std::array<char, 1024> names = {};
        DWORD length = names.size();
        caller(Call::kListReaders,
               [&] { return SCardListReadersA(context.get(), nullptr, names.data(), &length); });
        SCARD_READERSTATEA entries[2] = {};
        entries[0].szReader = test::kHostReader;
        entries[1].szReader = kRemoteReader;
        const DWORD timeout = random.below(2) * 50;
        // On a context that others wait on for longer.
        const SCARDCONTEXT shared = caller.self().contexts[kBusyWaiter];
        caller(Call::kGetStatusChange,
               [&] { return SCardGetStatusChangeA(shared, timeout, entries, 2); });
        if (random.below(4) == 0) {
            caller(Call::kStartedEvent, [] {
                SCardAccessStartedEvent();
                SCardReleaseStartedEvent();
                return SCARD_S_SUCCESS;
            });
        }
        random.pause(1, 30);
    }
}

}  // namespace tez::soak
