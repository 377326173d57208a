// Calls that the host serves, beside the same calls of the host's own library.
#include <random>
#include <vector>

#include "bench.h"
#include "library.h"
#include "team.h"

namespace tez::bench {
namespace {

constexpr BYTE kCommand[] = {0x00, 0x84, 0x00, 0x00, 0x08};

LONG transmitWith(decltype(SCardTransmit)* function, SCARDHANDLE card) {
    BYTE answer[16];
    DWORD length = sizeof answer;
    return function(card, SCARD_PCI_T1, kCommand, sizeof kCommand, nullptr, answer, &length);
}

TEST_CASE("local transmit") {
    Sides::instance();
    const SCARDCONTEXT context = establish();
    const SCARDHANDLE card = connect(context, test::kHostReader);
    auto* const bare = hostFunction<decltype(SCardTransmit)>("SCardTransmit");
    compare(
        "local transmit", [=] { return transmitWith(bare, card); },
        [=] { return transmitWith(&SCardTransmit, card); });
    SCardReleaseContext(context);
}

TEST_CASE("local validity") {
    Sides::instance();
    const SCARDCONTEXT context = establish();
    auto* const bare = hostFunction<decltype(SCardIsValidContext)>("SCardIsValidContext");
    compare(
        "SCardIsValidContext", [=] { return bare(context); },
        [=] { return SCardIsValidContext(context); });
    SCardReleaseContext(context);
}

TEST_CASE("local threads") {
    Sides::instance();
    const SCARDCONTEXT context = establish();
    const SCARDHANDLE card = connect(context, test::kHostReader);
    constexpr std::size_t kCalls = 2000;
    for (const std::size_t threads : {1U, 2U, 4U, 8U}) {
        Team team(threads, [=](std::size_t) {
            for (std::size_t i = 0; i < kCalls; ++i) {
                static_cast<void>(transmitWith(&SCardTransmit, card));
            }
        });
        measure(
            "local transmit, time for a call of one of " + std::to_string(threads) + " threads",
            [&] { team.run(); }, static_cast<double>(kCalls * threads));
    }
    SCardReleaseContext(context);
}

TEST_CASE("local connections") {
    Sides::instance();
    const SCARDCONTEXT context = establish();
    const auto connectOnce = [=] {
        return SCardDisconnect(connect(context, test::kHostReader), SCARD_LEAVE_CARD);
    };
    measure("local connect and disconnect, few handles", connectOnce);
    // The host's handles stay known when they have been disconnected.
    for (std::size_t i = 0; i < effort().manyHandles; ++i) {
        connectOnce();
    }
    measure("local connect and disconnect, " + std::to_string(effort().manyHandles) + " handles",
            connectOnce);
    SCardReleaseContext(context);
}

TEST_CASE("many contexts") {
    Sides::instance();
    std::vector<SCARDCONTEXT> contexts(effort().manyHandles);
    for (SCARDCONTEXT& context : contexts) {
        if (SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context) !=
            SCARD_S_SUCCESS) {
            throw std::runtime_error("SCardEstablishContext fails");
        }
    }
    std::minstd_rand random(1);
    measure("SCardIsValidContext, any of " + std::to_string(contexts.size()) + " contexts",
            [&] { return SCardIsValidContext(contexts[random() % contexts.size()]); });
    for (const SCARDCONTEXT context : contexts) {
        SCardReleaseContext(context);
    }
}

}  // namespace
}  // namespace tez::bench
