#include "log/line_parser.h"

#include <algorithm>
#include <utility>

namespace tez::client {
namespace {

constexpr LogTime kYear = LogTime{366} * 24 * 60 * 60 * 1'000'000;

}  // namespace

std::vector<LogLine> LineParser::take(std::string_view text) {
    std::vector<LogLine> lines;
    rest_ += text;
    std::size_t begin = 0;
    for (std::size_t end = rest_.find('\n'); end != std::string::npos;
         end = rest_.find('\n', begin)) {
        takeLine(std::string_view(rest_).substr(begin, end - begin), lines);
        begin = end + 1;
    }
    rest_.erase(0, begin);
    return lines;
}

std::vector<LogLine> LineParser::finish() {
    std::vector<LogLine> lines;
    takeLine(std::exchange(rest_, ""), lines);
    return lines;
}

void LineParser::takeLine(std::string_view line, std::vector<LogLine>& lines) {
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    std::size_t position = 0;
    bool isBehindPrefix = false;
    while (position < line.size()) {
        const std::optional<FoundPrefix> found = findPrefix(line, position);
        const std::size_t end = found ? found->position : line.size();
        if (end > position) {
            takeMessage(line.substr(position, end - position), isBehindPrefix, lines);
        }
        if (!found) {
            return;
        }
        prefixes_.push_back(found->prefix);
        keepYear(prefixes_.back());
        isBehindPrefix = true;
        position = found->position + found->length;
    }
}

void LineParser::takeMessage(std::string_view message, bool isBehindPrefix,
                             std::vector<LogLine>& lines) {
    if (prefixes_.empty()) {
        lines.push_back({LogPrefix{}, std::string(message), true, false});
        return;
    }
    // The messages of two lines may stand side by side.
    if (const std::size_t split = splitPosition(message); split > 0) {
        takeMessage(message.substr(0, split), isBehindPrefix, lines);
        takeMessage(message.substr(split), false, lines);
        return;
    }
    push(bestPrefix(message, isBehindPrefix), message, lines);
}

/// A message that names an operation belongs to a prefix of the function that it is the operation
/// of.
std::size_t LineParser::bestPrefix(std::string_view message, bool prefersLast) const {
    const std::optional<FrameMessage> frame = parseFrame(message);
    std::size_t best = 0;
    int bestFit = -1;
    for (std::size_t index = 0; index < prefixes_.size(); ++index) {
        const auto known = operations_.find(prefixes_[index].function);
        const bool isUnclear = !frame || known == operations_.end();
        const int fit = isUnclear ? 1 : (known->second == frame->operation ? 2 : 0);
        if (fit > bestFit || (fit == bestFit && prefersLast)) {
            best = index;
            bestFit = fit;
        }
    }
    return best;
}

/// Where the message of another prefix begins inside of the text; 0 when none does.
std::size_t LineParser::splitPosition(std::string_view message) const {
    for (const LogPrefix& prefix : prefixes_) {
        const auto known = operations_.find(prefix.function);
        if (prefixes_.size() < 2 || known == operations_.end()) {
            continue;
        }
        for (const char* const part : {" IN-PARAMS: ", " OUT-PARAMS: ", " RV: "}) {
            const std::size_t position = message.find(known->second + part);
            if (position != std::string_view::npos && position > 0) {
                return position;
            }
        }
    }
    return 0;
}

void LineParser::push(std::size_t prefix, std::string_view message, std::vector<LogLine>& lines) {
    const bool isGuess = prefixes_.size() > 1;
    LogLine line = {std::move(prefixes_[prefix]), std::string(message), false, isGuess};
    prefixes_.erase(prefixes_.begin() + static_cast<std::ptrdiff_t>(prefix));
    if (const std::optional<FrameMessage> frame = parseFrame(message); frame && !isGuess) {
        operations_.emplace(line.prefix.function, frame->operation);
    }
    lines.push_back(std::move(line));
}

/// The dates begin anew with each year.
void LineParser::keepYear(LogPrefix& prefix) {
    prefix.time += year_;
    if (prefix.time + kYear / 2 < last_) {
        year_ += kYear;
        prefix.time += kYear;
    }
    last_ = std::max(last_, prefix.time);
}

}  // namespace tez::client
