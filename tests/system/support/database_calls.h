// The calls on the card database, the cache and the reader icon, narrow and wide, each with
// arguments that nobody objects to: for what they all have in common.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "system_test.h"

namespace tez::test {

/// A call that the daemon answers.
struct DatabaseQuery {
    std::string name;  ///< without "SCard"
    Command command;
    std::size_t recordSize;
    std::size_t resultOffset;
    std::size_t lengthOffset;  ///< where the answer announces its data; 0: it has none
    Bytes data;                ///< what the daemon answers with
    std::size_t unit;          ///< bytes of one element of the caller's buffer
    /// Destination and length go unused where there is no data.
    std::function<LONG(SCARDCONTEXT context, void* destination, DWORD* length)> make;

    bool hasData() const noexcept { return lengthOffset != 0; }
};

/// Queries, SCardWriteCache among them, which asks to be remembered. SCardListCards and
/// SCardGetCardTypeProviderName reach the daemon only after redirectDatabaseCalls.
const std::vector<DatabaseQuery>& databaseQueries();

/// The updates, made with the null context, which alone takes them to the daemon. They use no other
/// argument of `make`.
const std::vector<DatabaseQuery>& redirectedUpdates();

/// The queries that hand data out.
std::vector<DatabaseQuery> queriesWithData();

/// Lets a daemon answer the queries and the updates, and the host none of the queries but
/// SCardListCards.
void serveQueries(DaemonSimulator& daemon, MockSystemCalls& host);

void PrintTo(const DatabaseQuery& query, std::ostream* stream);

/// A call that changes something, or reports an event.
struct DatabaseUpdate {
    std::string name;
    Command command;
    std::size_t recordSize;  ///< of the daemon's answer, whose last field is its result
    std::function<LONG(SCARDCONTEXT context)> make;
};

/// Updates that the host takes, one after the other.
const std::vector<DatabaseUpdate>& databaseUpdates();

/// Sends the calls on the card database to the daemon too. Before the first of them.
void redirectDatabaseCalls();

/// As GoogleTest calls parameterised tests after such a call.
template <class Call>
std::string nameOfCall(const testing::TestParamInfo<Call>& given) {
    return given.param.name;
}

}  // namespace tez::test
