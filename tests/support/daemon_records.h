// Answers of a daemon in records that are laid out by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "daemon_simulator.h"
#include "record_codec.h"
#include "record_layout.h"

namespace tez::test {

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

/// A daemon that always answers with this data, which the record announces.
template <class Layout>
DaemonSimulator::Handler answering(const Bytes& data) {
    return answering(Layout::kSize, {{Layout::kLength, static_cast<std::uint32_t>(data.size())}},
                     data);
}

/// A daemon that always answers with this result.
template <class Layout>
DaemonSimulator::Handler refusing(LONG result) {
    return answering(Layout::kSize, {{Layout::kResult, static_cast<std::uint32_t>(result)}});
}

/// A daemon that closes the pipe after such an answer.
DaemonSimulator::Handler answeringAndClosing(std::size_t recordSize,
                                             std::vector<AnswerField> fields, Bytes data = {});

/// A daemon that closes the pipe without an answer.
DaemonSimulator::Handler closing();

/// Bytes that differ from their neighbours, so that shifted or cut data is seen.
Bytes sampleBytes(std::size_t size);

}  // namespace tez::test
