#pragma once

#include <atomic>

#include "system_library/host_service.h"

namespace tez::bench {

using namespace tez::pcscd;

/// The host's side of a benchmark: a service whose frequent calls cost next to nothing, so that
/// what is measured is the library.
class Host final : public test::HostService {
  public:
    LONG SCardIsValidContext(SCARDCONTEXT /*context*/) override { return SCARD_S_SUCCESS; }

    /// Any reader with "Host" in front has a card.
    LONG SCardConnectA(SCARDCONTEXT context, LPCSTR reader, DWORD shareMode,
                       DWORD preferredProtocols, LPSCARDHANDLE card,
                       LPDWORD activeProtocol) override;
    LONG SCardDisconnect(SCARDHANDLE /*card*/, DWORD /*disposition*/) override {
        return SCARD_S_SUCCESS;
    }
    /// Every command is answered with 90 00.
    LONG SCardTransmit(SCARDHANDLE card, LPCSCARD_IO_REQUEST sendPci, LPCBYTE send,
                       DWORD sendLength, LPSCARD_IO_REQUEST receivePci, LPBYTE receive,
                       LPDWORD receiveLength) override;
    /// With time-out 0 nothing has changed.
    LONG SCardGetStatusChangeA(SCARDCONTEXT context, DWORD timeout, LPSCARD_READERSTATEA states,
                               DWORD count) override;

  private:
    std::atomic<SCARDHANDLE> lastCard_ = 0x7B000000;
};

}  // namespace tez::bench
