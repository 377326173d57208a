#pragma once

#include "call_catalogue.h"
#include "remote_card_test.h"

namespace tez::test {

/// A test of the calls of the catalogue.
class AllCallsTest : public RemoteCardTest {
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

    /// What a call is to be made on, with all that it needs done. A call that ends its handle gets
    /// one of its own.
    Target targetOf(const ExportedCall& called, Side side) const {
        const Target on = handleFor(called, side);
        if (called.prepare) {
            called.prepare(on);
        }
        return on;
    }

  private:
    Target handleFor(const ExportedCall& called, Side side) const {
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

/// A test of one of them.
class CatalogueTest : public AllCallsTest, public testing::WithParamInterface<ExportedCall> {
  protected:
    Target target(Side side = Side::kDaemon) const { return targetOf(GetParam(), side); }

    LONG call(Side side = Side::kDaemon) const { return GetParam().make(target(side)); }

    const Answer& answer() const { return *GetParam().answer; }
};

}  // namespace tez::test
