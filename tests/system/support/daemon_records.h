// Records of the daemon's protocol, laid out by hand: the tests must not share a mistake with the
// library's own record types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "daemon_simulator.h"

namespace tez::test {

/// A request's body: little-endian fields at their offsets, zero where nothing was put.
class RecordBytes {
  public:
    explicit RecordBytes(std::size_t size) : bytes_(size) {}

    RecordBytes& u32(std::size_t offset, std::uint32_t value);
    RecordBytes& u64(std::size_t offset, std::uint64_t value);
    RecordBytes& text(std::size_t offset, const std::string& value);
    RecordBytes& raw(std::size_t offset, const Bytes& value);
    /// Puts a data phase behind the record.
    RecordBytes& append(const Bytes& data);

    const Bytes& bytes() const noexcept { return bytes_; }

  private:
    Bytes bytes_;
};

/// Matches a complete request byte for byte: a 12-byte header that announces the body's size and
/// the command, and the body.
testing::Matcher<const Request&> IsRequest(Command command, const RecordBytes& body);

/// A 32-bit field of an answer.
struct AnswerField {
    std::size_t offset;
    std::uint32_t value;
};

/// The answer to a request: the first `recordSize` bytes of its body, some fields changed, and data
/// behind them in one piece.
std::vector<Bytes> answerBlocks(const Request& request, std::size_t recordSize,
                                const std::vector<AnswerField>& fields, const Bytes& data = {});

/// A daemon that always gives such an answer to a request that arrived whole.
DaemonSimulator::Handler answering(std::size_t recordSize, std::vector<AnswerField> fields,
                                   Bytes data = {});

/// A daemon that closes the pipe after such an answer.
DaemonSimulator::Handler answeringAndClosing(std::size_t recordSize,
                                             std::vector<AnswerField> fields, Bytes data = {});

/// A daemon that closes the pipe without an answer.
DaemonSimulator::Handler closing();

/// Bytes that differ from their neighbours, so that shifted or cut data is seen.
Bytes sampleBytes(std::size_t size);

}  // namespace tez::test
