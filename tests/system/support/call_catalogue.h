// Every exported call, once, with arguments that nobody objects to: what holds for all calls, or
// for all of a kind, is tested from here.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "daemon_records.h"
#include "system_test.h"

namespace tez::test {

/// The side that a call is to end up on. It chooses the reader, the card type and the cache item
/// that are asked for; a card's handle decides by itself.
enum class Side : std::uint8_t { kDaemon, kHost };

inline const char* readerOf(Side side) {
    return side == Side::kHost ? kHostReader : kRemoteReader;
}

/// What a call is made on.
struct Target {
    std::uint64_t handle;
    Side side = Side::kDaemon;
};

/// The handle that a call takes.
enum class Takes : std::uint8_t {
    kNothing,
    kContext,
    kAnyContext,     ///< or none: the null context is in order
    kUpdateContext,  ///< one of the host's; the null context alone takes the call to the daemon
    kCard,
};

/// What the daemon answers: a record that ends in a result, and the field before that one may
/// announce what follows.
struct Answer {
    Command command;
    std::size_t recordSize;
    /// Bytes of one of those that the announcing field counts behind the record; 0: the field, if
    /// `mostAnnounced` has a value, tells a length inside of the record.
    std::size_t unit = 0;
    Bytes data = {};                       ///< what follows, at first
    std::vector<AnswerField> fields = {};  ///< of the record, at first, besides the result
    std::optional<std::uint32_t> mostAnnounced = std::nullopt;
    LONG beyondMost = SCARD_S_SUCCESS;  ///< what the call gives when more is announced

    std::size_t resultOffset() const noexcept { return recordSize - 4; }
    std::size_t announcingOffset() const noexcept { return recordSize - 8; }

    /// A daemon that gives the answer.
    DaemonSimulator::Handler handler() const;
    /// The answer to a request, byte for byte.
    Bytes bytesFor(const Request& request) const;
};

/// A result that a call hands out in a buffer of the caller.
struct Output {
    std::string name = {};  ///< which of several; empty when it is the only one
    std::size_t unit = 1;   ///< bytes of one element
    /// Whether a null destination asks for the length, and SCARD_AUTOALLOCATE for a block.
    bool isAllocatable = true;
    std::function<LONG(const Target& on, void* destination, DWORD* length)> make = {};
};

struct ExportedCall {
    std::string name;
    Takes takes = Takes::kNothing;
    std::optional<Answer> answer = std::nullopt;  ///< without one the daemon is never asked
    std::vector<Output> outputs = {};
    /// The call on its own. It undoes what it did: what it opened is closed again.
    std::function<LONG(const Target& on)> make = {};
    /// What has to be done before, for the call to have something to do.
    std::function<void(const Target& on)> prepare = {};
    bool endsHandle = false;  ///< its handle is none any more afterwards
    /// What is told instead when the daemon's part fails; without it, the failure.
    std::optional<LONG> withoutDaemon = std::nullopt;
    /// What a handle gives that is none, if the daemon is to be asked at first.
    LONG unknownHandle = SCARD_E_INVALID_HANDLE;
    bool asksNobody = false;     ///< the library serves it by itself
    bool needsNoDaemon = false;  ///< with the daemon away there is nothing to do for it
    /// What the call gives whatever it is called with; of those that nobody serves.
    std::optional<LONG> refusal = std::nullopt;

    bool isCardCall() const noexcept { return takes == Takes::kCard; }
    /// What the daemon's failure makes of the call.
    LONG failure(LONG ofDaemon) const {
        return needsNoDaemon && ofDaemon == SCARD_E_NO_SERVICE ? SCARD_S_SUCCESS
                                                               : withoutDaemon.value_or(ofDaemon);
    }
};

/// All of them. Those on the card database go to the daemon only after redirectDatabaseCalls.
const std::vector<ExportedCall>& callCatalogue();

/// The parts of the catalogue, by what the calls are on.
std::vector<ExportedCall> contextCalls();
std::vector<ExportedCall> readerCalls();
std::vector<ExportedCall> cardCalls();  ///< SCardDisconnect, which ends what it is called on, last
std::vector<ExportedCall> databaseCalls();
std::vector<ExportedCall> refusedCalls();

/// Those of the catalogue that have a property.
template <class Property>
std::vector<ExportedCall> callsWith(Property property) {
    std::vector<ExportedCall> calls;
    std::ranges::copy_if(callCatalogue(), std::back_inserter(calls), property);
    return calls;
}

inline bool takesHandle(const ExportedCall& call) {
    return call.takes != Takes::kNothing && !call.refusal;
}
inline bool reachesDaemon(const ExportedCall& call) {
    return call.answer.has_value();
}

/// Lets the daemon give these calls their answers.
void serveAnswers(DaemonSimulator& daemon, const std::vector<ExportedCall>& calls);

/// Lets the host know what the calls ask of it.
void teachHost(MockSystemCalls& host);

/// Lets the host take no item into its cache, so that the daemon is asked to.
void closeHostsCache(MockSystemCalls& host);

/// Sends the calls on the card database to the daemon too. Before the first of them.
void redirectDatabaseCalls();

void PrintTo(const ExportedCall& call, std::ostream* stream);

/// As GoogleTest calls parameterised tests after such a call: without "SCard".
std::string nameOfCall(const testing::TestParamInfo<ExportedCall>& given);

}  // namespace tez::test
