#include "library.h"

#include <chrono>
#include <stdexcept>

#include "program_directory.h"
#include "system_library/stand_in_library.h"

namespace tez::bench {
namespace {

void require(LONG rv, const char* call) {
    if (rv != SCARD_S_SUCCESS) {
        throw std::runtime_error(std::string(call) + " gives " +
                                 std::to_string(static_cast<DWORD>(rv)));
    }
}

/// Waits until the library lists the daemon's reader, or does not.
void awaitRemoteReader(bool isThere) {
    const SCARDCONTEXT context = establish();
    while ((listReaders(context).find(kRemoteReader) != std::string::npos) != isThere) {
        Sleep(10);
    }
    // The daemon's coming and going is over when its last step is.
    Sleep(300);
    SCardReleaseContext(context);
}

}  // namespace

HMODULE libraryModule() {
    static const HMODULE module =
        GetModuleHandleA((test::programDirectory() + "\\winscard.dll").c_str());
    return module;
}

HMODULE hostModule() {
    static const test::StandInLibrary library;
    return library.module();
}

Sides& Sides::instance() {
    static auto* const sides = new Sides;
    return *sides;
}

Sides::Sides() : daemon_(remote_, {.major = 1, .minor = 4}, {}) {
    remote_.addReader(kRemoteReader);
    remote_.insertCard(kRemoteReader, makeDemoCard("Somebody"));
    test::StandInLibrary().setCalls(&host_);
}

void Sides::startDaemon() {
    if (!daemon_.serving()) {
        daemon_.start();
        awaitRemoteReader(true);
    }
}

void Sides::stopDaemon() {
    if (daemon_.serving()) {
        daemon_.stop();
        awaitRemoteReader(false);
    }
}

double firstCall() {
    static Host host;
    test::StandInLibrary().setCalls(&host);
    SCARDCONTEXT context = 0;
    const auto begin = std::chrono::steady_clock::now();
    require(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context),
            "SCardEstablishContext");
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin)
        .count();
}

SCARDCONTEXT establish() {
    SCARDCONTEXT context = 0;
    require(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context),
            "SCardEstablishContext");
    listReaders(context);
    return context;
}

std::string listReaders(SCARDCONTEXT context) {
    char names[1024];
    DWORD length = sizeof names;
    require(SCardListReadersA(context, nullptr, names, &length), "SCardListReaders");
    return {names, length};
}

SCARDHANDLE connect(SCARDCONTEXT context, const char* reader) {
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    require(SCardConnectA(context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card, &protocol),
            "SCardConnect");
    return card;
}

SCARD_READERSTATEA stateOf(const char* reader, DWORD state) {
    SCARD_READERSTATEA entry = {};
    entry.szReader = reader;
    entry.dwCurrentState = state;
    return entry;
}

}  // namespace tez::bench
