#pragma once

#include <string>

#include "remote_card_test.h"

namespace tez::test {

/// What the daemon's card database knows from the start.
inline constexpr const char* kRemoteCardType = "Remote Card";
inline constexpr const char* kRemoteProvider = "Remote Provider";

inline constexpr const char* kRedirectionSwitch = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";

/// The longest card name that the daemon's records hold, and the shortest that they do not.
inline const std::string kLongestCardName(1023, 'C');
inline const std::string kTooLongCardName(1024, 'C');

/// "... is not compatible with ..."
inline std::string gateLine(const std::string& function) {
    return function + " is not compatible with the current negotiated protocol";
}

/// A system test of the card database, which both sides have: the daemon's knows the demo card as
/// kRemoteCardType, with kRemoteProvider, the host's as kHostCardType.
class CardDatabaseTest : public RemoteCardTest {
  protected:
    CardDatabaseTest() {
        const CardType type = cardTypeOf(makeDemoCard(kRemoteCardHolder).atr());
        remote.cardStore().introduce(kRemoteCardType, type);
        remote.cardStore().setProvider(kRemoteCardType, SCARD_PROVIDER_CSP, kRemoteProvider);
    }

    /// Lets calls of the card database go to the daemon, when there is one. Before the first call.
    static void redirectAllCalls() { setEnvironment(kRedirectionSwitch, "1"); }

    /// As establishContext, with calls of the card database that go to the daemon.
    void establishRedirected(ProtocolVersion version = {}) {
        redirectAllCalls();
        establishContext(version);
    }

    /// As establishRedirected, with a context that has no counterpart on the host.
    void establishRemoteContextOnly() {
        redirectAllCalls();
        // The monitor tries again to give it one.
        ON_CALL(host, SCardEstablishContext)
            .WillByDefault([](DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT made) {
                *made = 0;
                return SCARD_S_SUCCESS;
            });
        establishContext();
    }

    static Bytes cardsAtr() { return makeDemoCard(kRemoteCardHolder).atr(); }

    CardStore& hostCards() { return host.pcsc().cardStore(); }
};

}  // namespace tez::test
