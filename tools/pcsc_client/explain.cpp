#include "explain.h"

#include <windows.h>
#include <winscard.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "atr_words.h"
#include "card_words.h"
#include "control_words.h"
#include "hex.h"
#include "result_names.h"
#include "status_words.h"

namespace tez::client {
namespace {

/// Whether a kind that the value fits was also meant by it, when nobody says.
enum class Fit : std::uint8_t { kNone, kPossible, kLikely };

struct Reading {
    Fit fit = Fit::kNone;
    Explanation explanation;
};

/// "0x1F", or decimal, with a sign for what a program shows as a signed number.
std::optional<std::uint32_t> parseNumber(std::string_view text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = isHex ? text.substr(2) : text;
    std::int64_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number, isHex ? 16 : 10);
    if (error != std::errc() || stop != end || number > std::int64_t{UINT32_MAX} ||
        number < std::int64_t{INT32_MIN} || (isHex && number < 0)) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number);
}

/// A number that may also stand without 0x in front.
std::optional<std::uint32_t> parseBareHex(const std::string& text) {
    return parseNumber(text.starts_with("0x") || text.starts_with("0X") ? text : "0x" + text);
}

Reading readResult(const std::string& value) {
    if (const auto named = parseResultName(value)) {
        return {Fit::kLikely, {"result", describeResult(*named), {}}};
    }
    auto number = parseNumber(value);
    if (!number && value.size() == 8) {
        number = parseBareHex(value);
    }
    if (!number) {
        return {};
    }
    const auto result = static_cast<LONG>(*number);
    return {hasResultName(result) ? Fit::kLikely : Fit::kPossible,
            {"result", describeResult(result), {}}};
}

Reading readStatusWord(const std::string& value) {
    const std::string digits = value.starts_with("0x") ? value.substr(2) : value;
    const auto bytes = parseHex(digits);
    if (!bytes || bytes->size() != 2) {
        return {};
    }
    const auto word = static_cast<StatusWord>((*bytes)[0] << 8U | (*bytes)[1]);
    const bool isUsual = word >> 12U == 6 || word == kSuccess;
    return {isUsual ? Fit::kLikely : Fit::kPossible, {"status-word", describeStatusWord(word), {}}};
}

Reading readAtr(const std::string& value) {
    const auto bytes = parseHex(value);
    if (!bytes || bytes->size() < 2 || value.starts_with("0x")) {
        return {};
    }
    const bool isUsual = bytes->front() == 0x3B || bytes->front() == 0x3F;
    return {isUsual ? Fit::kLikely : Fit::kPossible,
            {"atr", summarizeAtr(*bytes), describeAtr(*bytes)}};
}

Reading readState(const std::string& value) {
    const auto number = parseNumber(value);
    if (!number) {
        return {};
    }
    // The upper half counts what has happened in the reader, or the readers.
    constexpr std::uint32_t kKnownBits = 0x7FF;
    std::string text = describeReaderState(*number);
    if ((*number & SCARD_STATE_CHANGED) != 0) {
        text += ", changed";
    }
    if (*number >> 16U != 0) {
        text += ", counter " + std::to_string(*number >> 16U);
    }
    const bool isUsual = *number != 0 && (*number & 0xFFFFU & ~kKnownBits) == 0 &&
                         (*number & 0xFFFFU) != 0 && *number >> 16U < 0x1000;
    return {isUsual ? Fit::kLikely : Fit::kPossible, {"state", text, {}}};
}

Reading readControl(const std::string& value) {
    const auto number = parseNumber(value);
    if (!number) {
        return {};
    }
    return {isReaderControlCode(*number) ? Fit::kLikely : Fit::kPossible,
            {"control", describeControlCode(*number), {}}};
}

constexpr struct {
    const char* kind;
    Reading (*read)(const std::string& value);
} kKinds[] = {{"result", readResult},
              {"status-word", readStatusWord},
              {"atr", readAtr},
              {"control", readControl},
              {"state", readState}};

}  // namespace

std::vector<std::string> explainableKinds() {
    std::vector<std::string> names;
    for (const auto& each : kKinds) {
        names.emplace_back(each.kind);
    }
    return names;
}

std::vector<Explanation> explain(const std::string& value) {
    std::vector<Reading> readings;
    Fit best = Fit::kPossible;
    for (const auto& each : kKinds) {
        Reading reading = each.read(value);
        best = std::max(best, reading.fit);
        readings.push_back(std::move(reading));
    }
    std::vector<Explanation> explanations;
    for (Reading& reading : readings) {
        if (reading.fit == best) {
            explanations.push_back(std::move(reading.explanation));
        }
    }
    return explanations;
}

std::vector<Explanation> explainAs(const std::string& value, std::string_view kind) {
    for (const auto& each : kKinds) {
        if (each.kind == kind) {
            Reading reading = each.read(value);
            return reading.fit == Fit::kNone ? std::vector<Explanation>()
                                             : std::vector{std::move(reading.explanation)};
        }
    }
    return {};
}

}  // namespace tez::client
