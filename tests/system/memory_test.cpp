// Exhausted memory: each call is made with its first allocation refused, then its second, and so on
// until it has no more. Every time it must end with a result, lose nothing, and work again.
#include <functional>

#include "card_database_test.h"
#include "failing_allocation.h"

namespace tez::test {
namespace {

using testing::UnorderedElementsAre;

struct Cards {
    SCARDCONTEXT context;
    SCARDHANDLE onHost;
    SCARDHANDLE atDaemon;
};

/// A call that undoes what it did, so that it can be made again and again.
struct SweptCall {
    const char* name;
    std::function<LONG(const Cards&)> make;
};

/// Frees what a call that allocates gave, and hands its result on.
template <class Call>
LONG freeing(const Cards& cards, Call call) {
    void* block = nullptr;
    DWORD length = SCARD_AUTOALLOCATE;
    const LONG rv = call(static_cast<void*>(&block), &length);
    if (rv == SCARD_S_SUCCESS) {
        SCardFreeMemory(cards.context, block);
    } else {
        EXPECT_EQ(block, nullptr) << "a failure must leave nothing allocated";
    }
    return rv;
}

template <class Unit>
Unit* as(void* destination) {
    return static_cast<Unit*>(destination);
}

LONG connectAndDisconnect(const Cards& cards, const char* reader) {
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    const LONG rv = SCardConnectA(cards.context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                                  &card, &protocol);
    if (rv == SCARD_S_SUCCESS) {
        SCardDisconnect(card, SCARD_LEAVE_CARD);
    }
    return rv;
}

LONG statusOf(const Cards& cards, SCARDHANDLE card) {
    return freeing(cards, [&](void* name, DWORD* nameLength) {
        return freeing(cards, [&](void* atr, DWORD* atrLength) {
            return SCardStatusA(card, as<char>(name), nameLength, nullptr, nullptr, as<BYTE>(atr),
                                atrLength);
        });
    });
}

LONG attributeOf(const Cards& cards, SCARDHANDLE card) {
    return freeing(cards, [&](void* value, DWORD* length) {
        return SCardGetAttrib(card, SCARD_ATTR_ATR_STRING, as<BYTE>(value), length);
    });
}

LONG challenge(SCARDHANDLE card) {
    const Bytes command = {0x00, 0x84, 0x00, 0x00, 0x08};
    Bytes response(258);
    DWORD length = 258;
    return SCardTransmit(card, SCARD_PCI_T1, command.data(), static_cast<DWORD>(command.size()),
                         nullptr, response.data(), &length);
}

LONG echo(SCARDHANDLE card) {
    Bytes bytes(100);
    DWORD returned = 0;
    return SCardControl(card, SCARD_CTL_CODE(kControlEcho), bytes.data(), 100, bytes.data(), 100,
                        &returned);
}

LONG readCacheItem(const Cards& cards) {
    return freeing(cards, [&](void* data, DWORD* length) {
        UUID card = {};
        wchar_t item[] = L"item";
        return SCardReadCacheW(cards.context, &card, 1, item, as<BYTE>(data), length);
    });
}

LONG writeCacheItem(const Cards& cards) {
    UUID card = {};
    wchar_t item[] = L"item";
    Bytes data(100);
    return SCardWriteCacheW(cards.context, &card, 1, item, data.data(), 100);
}

LONG changesOfRemoteReaderWide(const Cards& cards) {
    SCARD_READERSTATEW state = {};
    state.szReader = L"Remote Reader 0";
    return SCardGetStatusChangeW(cards.context, 0, &state, 1);
}

LONG changesOf(const Cards& cards) {
    SCARD_READERSTATEA states[2] = {};
    states[0].szReader = kHostReader;
    states[1].szReader = kRemoteReader;
    return SCardGetStatusChangeA(cards.context, 0, states, 2);
}

const SweptCall kSweptCalls[] = {
    {"Establish",
     [](const Cards&) {
         SCARDCONTEXT context = 0;
         const LONG rv = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
         if (rv == SCARD_S_SUCCESS) {
             SCardReleaseContext(context);
         }
         return rv;
     }},
    {"FirstRemoteUse",
     [](const Cards&) {
         SCARDCONTEXT context = 0;
         LONG rv = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
         if (rv == SCARD_S_SUCCESS) {
             rv = connectAndDisconnect({context, 0, 0}, kRemoteReader);
             SCardReleaseContext(context);
         }
         return rv;
     }},
    {"IsValidContext", [](const Cards& cards) { return SCardIsValidContext(cards.context); }},
    {"ListReaders",
     [](const Cards& cards) {
         return freeing(cards, [&](void* readers, DWORD* length) {
             return SCardListReadersA(cards.context, nullptr, as<char>(readers), length);
         });
     }},
    {"ListReaderGroups",
     [](const Cards& cards) {
         return freeing(cards, [&](void* groups, DWORD* length) {
             return SCardListReaderGroupsA(cards.context, as<char>(groups), length);
         });
     }},
    {"GetStatusChange", changesOf},
    {"Cancel", [](const Cards& cards) { return SCardCancel(cards.context); }},
    {"ConnectToTheHost",
     [](const Cards& cards) { return connectAndDisconnect(cards, kHostReader); }},
    {"ConnectToTheDaemon",
     [](const Cards& cards) { return connectAndDisconnect(cards, kRemoteReader); }},
    {"StatusOnTheHost", [](const Cards& cards) { return statusOf(cards, cards.onHost); }},
    {"StatusAtTheDaemon", [](const Cards& cards) { return statusOf(cards, cards.atDaemon); }},
    {"GetAttribOnTheHost", [](const Cards& cards) { return attributeOf(cards, cards.onHost); }},
    {"GetAttribAtTheDaemon", [](const Cards& cards) { return attributeOf(cards, cards.atDaemon); }},
    {"SetAttrib",
     [](const Cards& cards) {
         const BYTE value[] = {1, 2, 3};
         return SCardSetAttrib(cards.atDaemon, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, value, 3);
     }},
    {"TransmitOnTheHost", [](const Cards& cards) { return challenge(cards.onHost); }},
    {"TransmitAtTheDaemon", [](const Cards& cards) { return challenge(cards.atDaemon); }},
    {"ControlOnTheHost", [](const Cards& cards) { return echo(cards.onHost); }},
    {"ControlAtTheDaemon", [](const Cards& cards) { return echo(cards.atDaemon); }},
    {"BeginTransaction",
     [](const Cards& cards) {
         const LONG rv = SCardBeginTransaction(cards.atDaemon);
         if (rv == SCARD_S_SUCCESS) {
             SCardEndTransaction(cards.atDaemon, SCARD_LEAVE_CARD);
         }
         return rv;
     }},
    {"Reconnect",
     [](const Cards& cards) {
         DWORD protocol = 0;
         return SCardReconnect(cards.atDaemon, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx,
                               SCARD_LEAVE_CARD, &protocol);
     }},
    {"GetTransmitCount",
     [](const Cards& cards) {
         DWORD count = 0;
         return SCardGetTransmitCount(cards.atDaemon, &count);
     }},
    {"ReadCacheAtTheDaemon", readCacheItem},
    {"WriteCacheAtTheDaemon", writeCacheItem},
    {"GetReaderIconAtTheDaemon",
     [](const Cards& cards) {
         return freeing(cards, [&](void* icon, DWORD* length) {
             return SCardGetReaderIconW(cards.context, L"Remote Reader 0", as<BYTE>(icon), length);
         });
     }},
    {"ListReadersWide",
     [](const Cards& cards) {
         return freeing(cards, [&](void* readers, DWORD* length) {
             return SCardListReadersW(cards.context, L"SCard$AllReaders\0", as<wchar_t>(readers),
                                      length);
         });
     }},
    {"ListCardsWide",
     [](const Cards& cards) {
         return freeing(cards, [&](void* names, DWORD* length) {
             return SCardListCardsW(cards.context, nullptr, nullptr, 0, as<wchar_t>(names), length);
         });
     }},
    {"StatusWide",
     [](const Cards& cards) {
         return freeing(cards, [&](void* name, DWORD* nameLength) {
             return freeing(cards, [&](void* atr, DWORD* atrLength) {
                 return SCardStatusW(cards.atDaemon, as<wchar_t>(name), nameLength, nullptr,
                                     nullptr, as<BYTE>(atr), atrLength);
             });
         });
     }},
    {"GetStatusChangeWide", changesOfRemoteReaderWide},
    {"ListCards",
     [](const Cards& cards) {
         return freeing(cards, [&](void* names, DWORD* length) {
             return SCardListCardsA(cards.context, nullptr, nullptr, 0, as<char>(names), length);
         });
     }},
    {"GetCardTypeProviderName",
     [](const Cards& cards) {
         return freeing(cards, [&](void* name, DWORD* length) {
             return SCardGetCardTypeProviderNameA(cards.context, kHostCardType, SCARD_PROVIDER_CSP,
                                                  as<char>(name), length);
         });
     }},
    {"SetCardTypeProviderName",
     [](const Cards&) {
         return SCardSetCardTypeProviderNameA(0, kHostCardType, SCARD_PROVIDER_CSP, "Provider");
     }},
    {"GetDeviceTypeId",
     [](const Cards& cards) {
         DWORD type = 0;
         return SCardGetDeviceTypeIdA(cards.context, kRemoteReader, &type);
     }},
    {"StartedEvent",
     [](const Cards&) -> LONG {
         if (SCardAccessStartedEvent() == nullptr) {
             return SCARD_E_NO_MEMORY;
         }
         SCardReleaseStartedEvent();
         return SCARD_S_SUCCESS;
     }},
};

void PrintTo(const SweptCall& call, std::ostream* stream) {
    *stream << call.name;
}

class MemoryTest : public CardDatabaseTest, public testing::WithParamInterface<SweptCall> {
  protected:
    void SetUp() override {
        redirectAllCalls();
        establishContext({1, 4});
        // Either side can answer for the other.
        for (CardStore* const store : {&remote.cardStore(), &hostCards()}) {
            store->introduce(kHostCardType, {});
            store->setProvider(kHostCardType, SCARD_PROVIDER_CSP, "Provider");
        }
        ON_CALL(host, SCardSetCardTypeProviderNameA)
            .WillByDefault(testing::Return(SCARD_S_SUCCESS));  // without a context too
        cards_ = {context, connect(context, kHostReader).handle,
                  connect(context, kRemoteReader).handle};
        listReaders(context);
        ON_CALL(host, SCardWriteCacheA).WillByDefault(testing::Return(SCARD_W_CACHE_ITEM_TOO_BIG));
        daemon.on(Command::kReadCache, answering(36, {{28, 100}}, sampleBytes(100)));
        daemon.on(Command::kWriteCache, answering(36, {}));
        daemon.on(Command::kGetReaderIcon, answering(16, {{8, 100}}, sampleBytes(100)));
    }

    LONG call() { return GetParam().make(cards_); }

    void expectNothingLost() {
        EXPECT_EQ(host.heap().outstanding(), 0U);
        EXPECT_EQ(host.heap().foreignFrees(), 0U);
        EXPECT_EQ(host.pcsc().contextCount(), 1U);
        EXPECT_EQ(host.pcsc().cardCount(), 1U);
        // Without the memory to read the answer an exchange is broken off; what it made at the
        // daemon is then known to nobody here, and goes with the pipe there.
        EXPECT_LE(remote.contextCount(), 1U + brokenOff_);
        EXPECT_LE(remote.cardCount(), 1U + brokenOff_);
    }

    void noteResult(LONG rv) { brokenOff_ += rv == SCARD_E_NO_SERVICE ? 1U : 0U; }

  private:
    Cards cards_{};
    std::size_t brokenOff_ = 0;
};

TEST_P(MemoryTest, AnAllocationThatFailsEndsTheCallAndLosesNothing) {
    ASSERT_THAT(call(), Gives(SCARD_S_SUCCESS));
    for (std::size_t n = 1;; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        {
            const FailingAllocation allocation(n);
            const LONG rv = call();
            noteResult(rv);
            if (!allocation.happened()) {
                EXPECT_THAT(rv, Gives(SCARD_S_SUCCESS));
                break;
            }
            // A log line may do without its allocation, then the call succeeds.
            EXPECT_THAT(rv,
                        testing::AnyOf(Gives(SCARD_S_SUCCESS), Gives(SCARD_E_NO_MEMORY),
                                       Gives(SCARD_F_INTERNAL_ERROR), Gives(SCARD_E_NO_SERVICE)));
        }
        EXPECT_THAT(call(), Gives(SCARD_S_SUCCESS)) << "afterwards";
        expectNothingLost();
        if (HasFailure()) {
            break;
        }
    }
    EXPECT_THAT(listReaders(context), UnorderedElementsAre(kHostReader, kRemoteReader));
}

INSTANTIATE_TEST_SUITE_P(EveryCall, MemoryTest, testing::ValuesIn(kSweptCalls),
                         [](const auto& given) { return std::string(given.param.name); });

}  // namespace
}  // namespace tez::test
