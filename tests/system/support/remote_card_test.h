#pragma once

#include <algorithm>
#include <cstdint>
#include <string>

#include "daemon_records.h"
#include "request_matchers.h"
#include "system_test.h"

namespace tez::test {

/// What the two sides issue first; none of it may ever reach the application.
inline constexpr std::uint64_t kDaemonContext = kFirstDaemonContext;
inline constexpr std::uint64_t kDaemonCard = kFirstDaemonCard;
inline constexpr SCARDCONTEXT kHostContext = 0x7A000001;
inline constexpr SCARDHANDLE kHostCard = 0x7B000001;

/// The platform's ERROR_NOT_SUPPORTED.
inline constexpr LONG kNotSupported = 50;
/// What an old daemon takes of a command or an answer.
inline constexpr std::size_t kOldDaemonsLimit = 65548;

/// A command that both cards answer with eight bytes and a status word.
inline const Bytes& getChallenge() {
    static const Bytes command = {0x00, 0x84, 0x00, 0x00, 0x08};
    return command;
}

// How daemons read and write attributes.
inline constexpr ProtocolVersion kFixedForm{1, 1};  ///< in a field of the record
inline constexpr ProtocolVersion kNewerForm{1, 2};  ///< behind the record

/// A system test with connections to the cards of both sides.
class RemoteCardTest : public SystemTest {
  protected:
    /// Establishes `context` with a daemon of the version.
    void establishContext(ProtocolVersion version = {}) {
        daemon.setVersion({version.major, version.minor});
        context = establishWithDaemon();
    }

    /// As establishContext, and connects `card` to the remote user's; the daemon's records begin
    /// anew behind that.
    void connectCard(ProtocolVersion version = {}) {
        establishContext(version);
        card = connect(context, kRemoteReader);
        daemon.clearRecords();
    }

    /// The request of a disconnect, for calls that must find the connection in order.
    static RecordBytes disconnectRecord(std::uint64_t target, DWORD disposition) {
        return RecordBytes(DispositionLayout::kSize)
            .u64(DispositionLayout::kCard, target)
            .u32(DispositionLayout::kDisposition, static_cast<std::uint32_t>(disposition));
    }

    /// Whether the library hangs up on the connection that carried a command last.
    bool hangsUpAfter(Command command) {
        const std::uint64_t connection = daemon.requests(command).back().connection;
        return daemon.waitUntil(
            [&] {
                const auto open = daemon.openConnections();
                return std::find(open.begin(), open.end(), connection) == open.end();
            },
            kPatience);
    }

    SCARDCONTEXT context = 0;
    ConnectedCard card;
};

}  // namespace tez::test
