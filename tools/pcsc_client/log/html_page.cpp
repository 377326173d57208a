#include "log/html_page.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

#include "json.h"
#include "log/call_table.h"
#include "log/page_parts.h"

namespace tez::client {
namespace {

/// Gives each text a number, so that the page has it once.
class TextList {
  public:
    std::size_t numberOf(const std::string& text) {
        const auto [place, isNew] = numbers_.try_emplace(text, numbers_.size());
        if (isNew) {
            texts_.push_back(text);
        }
        return place->second;
    }

    const std::vector<std::string>& texts() const { return texts_; }

  private:
    std::map<std::string, std::size_t> numbers_;
    std::vector<std::string> texts_;
};

/// For a script element, which "</script" in the text would end.
std::string toScriptText(const Json& json) {
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string safe;
    safe.reserve(text.size());
    for (const char character : text) {
        if (character == '<') {
            safe += "\\u003c";
        } else {
            safe += character;
        }
    }
    return safe;
}

/// The calls, column by column: a quarter of the size of an object for each.
Json callColumns(const std::vector<Call>& calls) {
    TextList threads;
    TextList functions;
    TextList subjects;
    TextList results;
    const LogTime start = calls.empty() ? 0 : calls.front().begin;
    Json begins = Json::array();
    Json durations = Json::array();
    Json places = Json::array();
    for (const Call& call : calls) {
        begins.push_back(call.begin - start);
        durations.push_back(call.duration());
        places.push_back(
            threads.numberOf(std::to_string(call.process) + ":" + std::to_string(call.thread)));
        places.push_back(call.depth);
        places.push_back(functions.numberOf(call.function));
        places.push_back(subjects.numberOf(call.subject));
        places.push_back(results.numberOf(resultText(call)));
        places.push_back(static_cast<unsigned>(call.side));
        places.push_back(static_cast<unsigned>(call.outcome()));
        places.push_back(call.isWait() ? 1 : 0);
    }
    const LogTime dayStart = start - start % (LogTime{24} * 60 * 60 * 1'000'000);
    return {{"day", formatLogTime(start).substr(0, 6)},
            {"startOfDay", start - dayStart},
            {"threads", threads.texts()},
            {"functions", functions.texts()},
            {"subjects", subjects.texts()},
            {"results", results.texts()},
            {"begins", std::move(begins)},
            {"durations", std::move(durations)},
            {"places", std::move(places)}};
}

/// The lines of each call as one text: the time within the call, the level, the function when it is
/// not the call's own, the message.
Json callLines(const std::vector<Call>& calls) {
    Json list = Json::array();
    for (const Call& call : calls) {
        std::string text;
        for (const LogLine& line : call.lines) {
            const bool isOwn = line.prefix.function == call.function;
            text.append("+")
                .append(std::to_string(line.prefix.time - call.begin))
                .append(line.isGuess ? " ? " : " ")
                .append(1, line.prefix.level)
                .append(isOwn ? " " : " (" + line.prefix.function + ") ")
                .append(line.message)
                .append("\n");
        }
        list.push_back(std::move(text));
    }
    return list;
}

void replaceMark(std::string& page, std::string_view mark, std::string_view text) {
    page.replace(page.find(mark), mark.size(), text);
}

}  // namespace

std::string makeHtmlPage(const std::vector<Call>& calls) {
    std::string page(kPageFrame);
    replaceMark(page, "/*STYLE*/", kPageStyle);
    replaceMark(page, "/*SCRIPT*/", kPageScript);
    // Behind each other in the page: what has been put in is not looked at for the next mark.
    replaceMark(page, "\"LINES\"", toScriptText(callLines(calls)));
    replaceMark(page, "\"CALLS\"", toScriptText(callColumns(calls)));
    return page;
}

}  // namespace tez::client
