#include "local/local_calls.h"

#include <cstring>

#include "common/copy_out.h"
#include "common/heap.h"
#include "local/winscard_table.h"

namespace tez {

namespace {

/// One output of a system call. When the caller asked for auto-allocation, the system library is
/// given a pointer and a length of ours instead of the caller's; otherwise it sees the caller's own
/// (fixed buffers, size queries and null pointers are its business).
template <class Unit>
class Output {
  public:
    Output(SCARDCONTEXT context, Unit* destination, LPDWORD length)
        : context_(context),
          destination_(destination),
          length_(length),
          isAllocated_(destination != nullptr && length != nullptr &&
                       *length == SCARD_AUTOALLOCATE) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    /// Gives the system's buffer back, unless the call that stored it has failed.
    ~Output() {
        if (systemBuffer_ != nullptr) {
            winscardTable().SCardFreeMemory(context_, systemBuffer_);
        }
    }

    Unit* buffer() { return isAllocated_ ? reinterpret_cast<Unit*>(&systemBuffer_) : destination_; }
    LPDWORD length() { return isAllocated_ ? &systemLength_ : length_; }

    /// After a failed system call: a pointer that it has stored is no buffer to give back.
    void forget() { systemBuffer_ = nullptr; }

    /// After a successful system call: moves its buffer to this library's heap. The failure is
    /// reported as an internal error, not as exhausted memory, as callers of local calls know it.
    LONG rehome() {
        if (!isAllocated_) {
            return SCARD_S_SUCCESS;
        }
        *length_ = systemLength_;
        void* const block = heapAllocate(systemLength_);
        *reinterpret_cast<void**>(destination_) = block;
        if (block == nullptr) {
            return SCARD_F_INTERNAL_ERROR;
        }
        if (systemLength_ != 0) {
            std::memcpy(block, systemBuffer_, systemLength_);
        }
        return SCARD_S_SUCCESS;
    }

    /// Takes a moved result away from the caller again.
    void withdraw() {
        if (isAllocated_) {
            takeBack(destination_);
        }
    }

  private:
    SCARDCONTEXT context_;
    Unit* destination_;
    LPDWORD length_;
    bool isAllocated_;
    Unit* systemBuffer_ = nullptr;
    DWORD systemLength_ = SCARD_AUTOALLOCATE;
};

/// A system call with one output: call(buffer, length) makes it.
template <class Unit, class Call>
LONG callWithOutput(SCARDCONTEXT context, Unit* destination, LPDWORD length, Call call) {
    if (!InitializeWinscardFunctions()) {
        return SCARD_F_INTERNAL_ERROR;
    }
    Output<Unit> output(context, destination, length);
    const LONG rv = call(output.buffer(), output.length());
    if (rv != SCARD_S_SUCCESS) {
        output.forget();
        return rv;
    }
    return output.rehome();
}

}  // namespace

LONG LocalSCardListReadersA(SCARDCONTEXT context, LPCSTR groups, LPSTR readers, LPDWORD length) {
    return callWithOutput(context, readers, length, [=](LPSTR out, LPDWORD outLength) {
        return winscardTable().SCardListReadersA(context, groups, out, outLength);
    });
}

LONG LocalSCardListReaderGroupsA(SCARDCONTEXT context, LPSTR groups, LPDWORD length) {
    return callWithOutput(context, groups, length, [=](LPSTR out, LPDWORD outLength) {
        return winscardTable().SCardListReaderGroupsA(context, out, outLength);
    });
}

LONG LocalSCardListCardsA(SCARDCONTEXT context, LPCBYTE atr, LPCGUID interfaces,
                          DWORD interfaceCount, LPSTR cards, LPDWORD length) {
    return callWithOutput(context, cards, length, [=](LPSTR out, LPDWORD outLength) {
        return winscardTable().SCardListCardsA(context, atr, interfaces, interfaceCount, out,
                                               outLength);
    });
}

LONG LocalSCardGetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR cardName, DWORD providerId,
                                        LPSTR provider, LPDWORD length) {
    return callWithOutput(context, provider, length, [=](LPSTR out, LPDWORD outLength) {
        return winscardTable().SCardGetCardTypeProviderNameA(context, cardName, providerId, out,
                                                             outLength);
    });
}

LONG LocalSCardReadCacheA(SCARDCONTEXT context, UUID* cardIdentifier, DWORD freshness,
                          LPSTR lookupName, PBYTE data, LPDWORD length) {
    return callWithOutput(context, data, length, [=](PBYTE out, LPDWORD outLength) {
        return winscardTable().SCardReadCacheA(context, cardIdentifier, freshness, lookupName, out,
                                               outLength);
    });
}

LONG LocalSCardGetReaderIconA(SCARDCONTEXT context, LPCSTR readerName, LPBYTE icon,
                              LPDWORD length) {
    return callWithOutput(context, icon, length, [=](LPBYTE out, LPDWORD outLength) {
        return winscardTable().SCardGetReaderIconA(context, readerName, out, outLength);
    });
}

LONG LocalSCardGetAttrib(SCARDCONTEXT context, SCARDHANDLE card, DWORD attributeId, LPBYTE value,
                         LPDWORD length) {
    return callWithOutput(context, value, length, [=](LPBYTE out, LPDWORD outLength) {
        return winscardTable().SCardGetAttrib(card, attributeId, out, outLength);
    });
}

LONG LocalSCardStatusA(SCARDCONTEXT context, SCARDHANDLE card, LPSTR names, LPDWORD namesLength,
                       LPDWORD state, LPDWORD protocol, LPBYTE atr, LPDWORD atrLength) {
    if (!InitializeWinscardFunctions()) {
        return SCARD_F_INTERNAL_ERROR;
    }
    Output<char> nameOutput(context, names, namesLength);
    Output<BYTE> atrOutput(context, atr, atrLength);
    LONG rv = winscardTable().SCardStatusA(card, nameOutput.buffer(), nameOutput.length(), state,
                                           protocol, atrOutput.buffer(), atrOutput.length());
    if (rv != SCARD_S_SUCCESS) {
        nameOutput.forget();
        atrOutput.forget();
        return rv;
    }
    rv = nameOutput.rehome();
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    rv = atrOutput.rehome();
    if (rv != SCARD_S_SUCCESS) {
        nameOutput.withdraw();
    }
    return rv;
}

LONG LocalSCardEstablishContext(DWORD scope, LPCVOID reserved1, LPCVOID reserved2,
                                LPSCARDCONTEXT context) {
    return callSystem(&WinscardTable::SCardEstablishContext, scope, reserved1, reserved2, context);
}

LONG LocalSCardSetCardTypeProviderNameA(SCARDCONTEXT context, LPCSTR cardName, DWORD providerId,
                                        LPCSTR provider) {
    return callSystem(&WinscardTable::SCardSetCardTypeProviderNameA, context, cardName, providerId,
                      provider);
}

LONG LocalSCardCancel(SCARDCONTEXT context) {
    return callSystem(&WinscardTable::SCardCancel, context);
}

}  // namespace tez
