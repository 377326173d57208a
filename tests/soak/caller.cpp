#include "caller.h"

namespace tez::soak {

SCARDCONTEXT Caller::establish() {
    SCARDCONTEXT context = 0;
    (*this)(Call::kEstablishContext,
            [&] { return SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context); });
    return context;
}

void Caller::release(SCARDCONTEXT context) {
    (*this)(Call::kReleaseContext, [&] { return SCardReleaseContext(context); });
}

void Caller::enter() {
    if (uses_++ > 0) {
        return;
    }
    ++busy_;
    if (self_.mustExit) {
        --busy_;
        Sleep(INFINITE);
    }
}

void Caller::leave() {
    if (--uses_ == 0) {
        --busy_;
    }
}

}  // namespace tez::soak
