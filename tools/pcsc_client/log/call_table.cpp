#include "log/call_table.h"

#include <array>
#include <cstdio>

#include "result_names.h"

namespace tez::client {
namespace {

struct Columns {
    std::string time, thread, duration, function, side, subject, result;
};

/// Each column as wide as most of what it holds; longer texts move what is behind them.
std::string format(const Columns& columns) {
    std::string line = columns.time;
    const auto add = [&line](const std::string& text, std::size_t end) {
        line += text;
        line.resize(std::max(end, line.size() + 2), ' ');
    };
    line.resize(24, ' ');
    add(columns.thread, 36);
    std::string duration = columns.duration;
    if (duration.size() < 12) {
        duration.insert(0, 12 - duration.size(), ' ');
    }
    add(duration, 50);
    add(columns.function, 81);
    add(columns.side, 89);
    add(columns.subject, 111);
    return line + columns.result;
}

std::string milliseconds(LogTime duration) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(duration) / 1000);
    return text.data();
}

}  // namespace

std::string callTableHead() {
    return format({"time (UTC)", "thread", "ms", "call", "side", "reader, card", "result"});
}

std::string formatCall(const Call& call) {
    return format({formatLogTime(call.begin),
                   std::to_string(call.process) + ":" + std::to_string(call.thread),
                   milliseconds(call.duration()),
                   std::string(std::size_t{call.depth} * 2, ' ') + call.function,
                   answeringSideName(call.side), call.subject, resultText(call)});
}

std::string resultText(const Call& call) {
    if (!call.isFinished) {
        return "not finished";
    }
    if (!call.result) {
        return "";
    }
    return *call.result == 0 ? "success" : describeResult(*call.result);
}

Json callToJson(const Call& call) {
    Json json = {{"time", formatLogTime(call.begin)},
                 {"process", call.process},
                 {"thread", call.thread},
                 {"milliseconds", static_cast<double>(call.duration()) / 1000},
                 {"call", call.function},
                 {"side", answeringSideName(call.side)},
                 {"subject", call.subject},
                 {"depth", call.depth},
                 {"finished", call.isFinished}};
    if (call.result) {
        json["result"] = resultToJson(*call.result);
    }
    return json;
}

}  // namespace tez::client
