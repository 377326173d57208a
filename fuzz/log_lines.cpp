// A log as it may have come out of anywhere, read as pcsc-client reads it: its lines, and the calls
// that they tell of.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "log/call_assembler.h"
#include "log/line_parser.h"
#include "support/holds.h"

using namespace tez::client;
using tez::fuzz::holds;

namespace {

std::vector<LogLine> linesOf(std::string_view first, std::string_view second) {
    LineParser parser;
    std::vector<LogLine> lines = parser.take(first);
    for (std::vector<LogLine> more : {parser.take(second), parser.finish()}) {
        lines.insert(lines.end(), more.begin(), more.end());
    }
    return lines;
}

bool isSame(const LogLine& one, const LogLine& other) {
    const auto& [level, time, process, thread, function] = one.prefix;
    return level == other.prefix.level && time == other.prefix.time &&
           process == other.prefix.process && thread == other.prefix.thread &&
           function == other.prefix.function && one.message == other.message &&
           one.isContinuation == other.isContinuation && one.isGuess == other.isGuess;
}

void checkLine(const LogLine& line) {
    holds(!line.message.empty());
    holds(std::string_view("EWID").find(line.prefix.level) != std::string_view::npos);
    holds(line.prefix.time >= 0);
    holds(formatLogTime(line.prefix.time).size() ==
          std::string_view("Nov 15 23:13:00.123456").size());
    if (const auto frame = parseFrame(line.message)) {
        holds(line.message.starts_with(frame->operation) && line.message.ends_with(frame->text));
    }
}

/// Every line that begins a message comes back once: with a call, or with those of no call.
void checkCalls(const std::vector<LogLine>& lines) {
    std::size_t found = 0;
    CallAssembler assembler([&](const Call& call) {
        holds(call.duration() >= 0);
        holds(call.isFinished || call.outcome() == CallOutcome::kUnfinished);
        found += call.lines.size();
    });
    std::size_t expected = 0;
    for (const LogLine& line : lines) {
        assembler.take(line);
        expected += line.isContinuation ? 0 : 1;
    }
    assembler.finish();
    holds(found + assembler.otherLineCount() == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    const std::vector<LogLine> lines = linesOf(text, "");
    // However the text comes in pieces.
    const std::size_t cut = size == 0 ? 0 : data[0] % size;
    const std::vector<LogLine> again = linesOf(text.substr(0, cut), text.substr(cut));
    holds(again.size() == lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        holds(isSame(lines[i], again[i]));
        checkLine(lines[i]);
    }
    checkCalls(lines);
    return 0;
}
