#include "host.h"

#include <cstring>

namespace tez::bench {

LONG Host::SCardConnectA(SCARDCONTEXT /*context*/, LPCSTR reader, DWORD /*shareMode*/,
                         DWORD /*preferredProtocols*/, LPSCARDHANDLE card, LPDWORD activeProtocol) {
    if (std::strncmp(reader, "Host", 4) != 0) {
        return SCARD_E_UNKNOWN_READER;
    }
    *card = ++lastCard_;
    *activeProtocol = SCARD_PROTOCOL_T1;
    return SCARD_S_SUCCESS;
}

LONG Host::SCardTransmit(SCARDHANDLE /*card*/, LPCSCARD_IO_REQUEST /*sendPci*/, LPCBYTE /*send*/,
                         DWORD /*sendLength*/, LPSCARD_IO_REQUEST /*receivePci*/, LPBYTE receive,
                         LPDWORD receiveLength) {
    receive[0] = 0x90;
    receive[1] = 0x00;
    *receiveLength = 2;
    return SCARD_S_SUCCESS;
}

LONG Host::SCardGetStatusChangeA(SCARDCONTEXT context, DWORD timeout, LPSCARD_READERSTATEA states,
                                 DWORD count) {
    if (timeout == 0) {
        for (DWORD i = 0; i < count; ++i) {
            states[i].dwEventState = states[i].dwCurrentState;
        }
        return SCARD_E_TIMEOUT;
    }
    return HostService::SCardGetStatusChangeA(context, timeout, states, count);
}

}  // namespace tez::bench
