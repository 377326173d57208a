#include "card_calls.h"

#include "remote_card_test.h"

namespace tez::test {
namespace {

LONG reconnect(SCARDHANDLE card) {
    DWORD protocol = 0;
    return SCardReconnect(card, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, SCARD_LEAVE_CARD, &protocol);
}

LONG endTransaction(SCARDHANDLE card) {
    return SCardEndTransaction(card, SCARD_LEAVE_CARD);
}

LONG status(SCARDHANDLE card) {
    DWORD state = 0;
    return SCardStatusA(card, nullptr, nullptr, &state, nullptr, nullptr, nullptr);
}

LONG transmit(SCARDHANDLE card) {
    Bytes response(258);
    auto length = static_cast<DWORD>(response.size());
    return SCardTransmit(card, SCARD_PCI_T1, getChallenge().data(),
                         static_cast<DWORD>(getChallenge().size()), nullptr, response.data(),
                         &length);
}

LONG control(SCARDHANDLE card) {
    DWORD returned = 0;
    return SCardControl(card, SCARD_CTL_CODE(3400), nullptr, 0, nullptr, 0, &returned);
}

LONG getAttribute(SCARDHANDLE card) {
    DWORD length = 0;
    return SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, nullptr, &length);
}

LONG setAttribute(SCARDHANDLE card) {
    return SCardSetAttrib(card, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, getChallenge().data(),
                          static_cast<DWORD>(getChallenge().size()));
}

LONG transmitCount(SCARDHANDLE card) {
    DWORD count = 0;
    return SCardGetTransmitCount(card, &count);
}

LONG disconnect(SCARDHANDLE card) {
    return SCardDisconnect(card, SCARD_LEAVE_CARD);
}

}  // namespace

const std::vector<CardCall>& callsOnConnectedCards() {
    static const std::vector<CardCall> calls = {
        {"SCardReconnect", "RECONNECT", Command::kReconnect, 28, 24, reconnect},
        {"SCardBeginTransaction", "BEGIN_TRANSACTION", Command::kBeginTransaction, 12, 8,
         SCardBeginTransaction},
        {"SCardEndTransaction", "END_TRANSACTION", Command::kEndTransaction, 16, 12,
         endTransaction},
        {"SCardStatusA", "STATUS", Command::kStatus, 288, 284, status},
        {"SCardTransmit", "TRANSMIT", Command::kTransmit, 28, 24, transmit},
        {"SCardControl", "CONTROL", Command::kControl, 28, 24, control},
        {"SCardGetAttrib", "GET_ATTRIB", Command::kGetAttribute, 284, 280, getAttribute},
        {"SCardSetAttrib", "SET_ATTRIB", Command::kSetAttribute, 284, 280, setAttribute},
        {"SCardGetTransmitCount", "GET_TRANSMIT_COUNT", Command::kGetTransmitCount, 16, 12,
         transmitCount},
    };
    return calls;
}

const CardCall& disconnectCall() {
    static const CardCall call = {"SCardDisconnect", "DISCONNECT", Command::kDisconnect, 16, 12,
                                  disconnect};
    return call;
}

std::vector<CardCall> allCardCalls() {
    std::vector<CardCall> calls = callsOnConnectedCards();
    calls.push_back(disconnectCall());
    return calls;
}

}  // namespace tez::test
