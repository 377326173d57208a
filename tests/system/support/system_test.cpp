#include "system_test.h"

#include <array>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace tez::test {
namespace {

std::string inHex(LONG code) {
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << static_cast<DWORD>(code);
    return text.str();
}

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

void requireSuccess(LONG code, const std::string& call) {
    require(code == SCARD_S_SUCCESS, call + " gives " + inHex(code));
}

class GivesMatcher {
  public:
    using is_gtest_matcher = void;

    explicit GivesMatcher(LONG code) : code_(code) {}

    bool MatchAndExplain(LONG code, testing::MatchResultListener* listener) const {
        *listener << "which is " << inHex(code);
        return code == code_;
    }
    void DescribeTo(std::ostream* stream) const { *stream << "is " << inHex(code_); }
    void DescribeNegationTo(std::ostream* stream) const { *stream << "isn't " << inHex(code_); }

  private:
    LONG code_;
};

}  // namespace

HMODULE libraryModule() {
    // By its full path: the host's library has the same name.
    const std::string path = programDirectory() + "\\winscard.dll";
    const HMODULE module = GetModuleHandleA(path.c_str());
    require(module != nullptr, "not loaded: " + path);
    return module;
}

std::string textInName(const std::string& text) {
    constexpr std::size_t kMost = 20;
    return text.size() > kMost ? std::to_string(text.size()) + " characters" : "'" + text + "'";
}

std::vector<std::string> splitMultiString(const char* multiString) {
    std::vector<std::string> elements;
    for (; *multiString != '\0'; multiString += elements.back().size() + 1) {
        elements.emplace_back(multiString);
    }
    return elements;
}

testing::Matcher<LONG> Gives(LONG code) {
    return GivesMatcher(code);
}

const SCARD_IO_REQUEST* ConnectedCard::pci() const {
    return protocol == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
}

SystemTest::SystemTest() : transport_(libraryModule()) {
    wholeLines_.emplace(libraryModule());
    remote.addReader(kRemoteReader);
    remote.insertCard(kRemoteReader, makeDemoCard(kRemoteCardHolder));
    standIn_.setCalls(&host);
}

SystemTest::~SystemTest() {
    if (HasFailure()) {
        std::cout << "The library's log:\n" << log_.text();  // what fails once tells what it was
    }
    // The library's threads go on: they must not be inside the mock when it is destroyed.
    host.pcsc().releaseAll();
    standIn_.setCalls(nullptr);
    daemon.stop();
}

void SystemTest::startDaemon() {
    watchesBefore_ = transport_.watches();
    daemon.start();
}

void SystemTest::waitForWatch() {
    require(transport_.waitForWatches(watchesBefore_ + 1), "the monitor does not watch the daemon");
}

void SystemTest::stopDaemon() {
    const std::size_t opens = transport_.monitorOpens();
    require(opens > 0, "the monitor was not watching the daemon");
    daemon.stop();
    require(transport_.waitForMonitorOpens(opens + 1), "the monitor does not look for the daemon");
}

SCARDCONTEXT SystemTest::establishWithDaemon() {
    startDaemon();
    const SCARDCONTEXT context = establish();
    waitForWatch();
    return context;
}

SCARDCONTEXT SystemTest::establish(DWORD scope) {
    SCARDCONTEXT context = 0;
    requireSuccess(SCardEstablishContext(scope, nullptr, nullptr, &context),
                   "SCardEstablishContext");
    return context;
}

ConnectedCard SystemTest::connect(SCARDCONTEXT context, const std::string& reader, DWORD shareMode,
                                  DWORD protocols) {
    ConnectedCard card;
    requireSuccess(
        SCardConnectA(context, reader.c_str(), shareMode, protocols, &card.handle, &card.protocol),
        "SCardConnectA to " + reader);
    return card;
}

Bytes SystemTest::transmit(const ConnectedCard& card, const Bytes& command) {
    Bytes response(258);
    auto length = static_cast<DWORD>(response.size());
    requireSuccess(
        SCardTransmit(card.handle, card.pci(), command.data(), static_cast<DWORD>(command.size()),
                      nullptr, response.data(), &length),
        "SCardTransmit");
    response.resize(length);
    return response;
}

std::vector<std::string> SystemTest::listReaders(SCARDCONTEXT context) {
    std::array<char, 4096> readers{};
    auto length = static_cast<DWORD>(readers.size());
    requireSuccess(SCardListReadersA(context, nullptr, readers.data(), &length),
                   "SCardListReadersA");
    return splitMultiString(readers.data());
}

}  // namespace tez::test
