#pragma once

#include "call_catalogue.h"
#include "remote_card_test.h"

namespace tez::test {

/// A test of one call of the catalogue.
class CatalogueTest : public RemoteCardTest, public testing::WithParamInterface<ExportedCall> {
  protected:
    /// Both sides, with all calls redirected and a daemon that gives every call its answer.
    void connectBothSides() {
        redirectDatabaseCalls();
        connectCard();
        serveAnswers(daemon, callsWith(reachesDaemon));
        closeHostsCache(host);
    }

    /// The host alone.
    void connectHostAlone() {
        teachHost(host);
        context = establish();
        card = connect(context, kHostReader);
    }

    /// What the call is to be made on, with all that it needs done. A call that ends its handle
    /// gets one of its own.
    Target target(Side side = Side::kDaemon) const {
        const Target on = handleFor(side);
        if (GetParam().prepare) {
            GetParam().prepare(on);
        }
        return on;
    }

    LONG call(Side side = Side::kDaemon) const { return GetParam().make(target(side)); }

    const Answer& answer() const { return *GetParam().answer; }

  private:
    Target handleFor(Side side) const {
        const ExportedCall& called = GetParam();
        if (called.takes == Takes::kUpdateContext) {
            return {side == Side::kDaemon ? 0 : context, side};
        }
        if (called.isCardCall()) {
            return {called.endsHandle ? connect(context, readerOf(side)).handle : card.handle,
                    side};
        }
        return {called.endsHandle ? contextInUse() : context, side};
    }

    /// A context that has a counterpart at the daemon, if there is one.
    static SCARDCONTEXT contextInUse() {
        const SCARDCONTEXT made = establish();
        listReaders(made);
        return made;
    }
};

}  // namespace tez::test
