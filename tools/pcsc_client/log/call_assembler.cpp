#include "log/call_assembler.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace tez::client {
namespace {

constexpr std::int32_t kNotImplemented = static_cast<std::int32_t>(0x80100001);

/// Calls that the library answers itself, or that go to neither side.
constexpr std::array<std::string_view, 5> kOwnOperations = {
    "ESTABLISH_CONTEXT", "RELEASE_CONTEXT", "IS_VALID_CONTEXT", "FREE_MEMORY", "CANCEL"};

/// Calls whose first parameter is a card handle.
constexpr std::array<std::string_view, 10> kCardOperations = {
    "RECONNECT", "DISCONNECT", "BEGIN_TRANSACTION", "END_TRANSACTION", "STATUS",
    "TRANSMIT",  "CONTROL",    "GET_ATTRIB",        "SET_ATTRIB",      "GET_TRANSMIT_COUNT"};

template <std::size_t size>
bool contains(const std::array<std::string_view, size>& list, std::string_view word) {
    return std::find(list.begin(), list.end(), word) != list.end();
}

/// Refused before any side was asked.
bool isRefusal(std::int32_t result) {
    constexpr std::uint32_t kInvalidHandle = 0x80100003;
    constexpr std::uint32_t kInvalidParameter = 0x80100004;
    constexpr std::uint32_t kInvalidValue = 0x80100011;
    const auto code = static_cast<std::uint32_t>(result);
    return code == kInvalidHandle || code == kInvalidParameter || code == kInvalidValue;
}

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' ')) {
        text.remove_prefix(1);
    }
    while (text.ends_with(' ')) {
        text.remove_suffix(1);
    }
    return text;
}

/// "0x8010000C", or decimal as the updates of the card database have it.
std::optional<std::int32_t> parseResult(std::string_view text) {
    const bool isHex = text.starts_with("0x");
    text.remove_prefix(isHex ? 2 : 0);
    std::int64_t value = 0;
    const auto [stop, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
    return error == std::errc() ? std::optional(static_cast<std::int32_t>(value)) : std::nullopt;
}

/// The part between two commas; a reader's name may have some itself, so it is what `behind` commas
/// at the end leave.
std::string_view middleParameter(std::string_view parameters, unsigned behind) {
    const std::size_t begin = parameters.find(", ");
    std::size_t end = std::string_view::npos;
    for (unsigned comma = 0; comma < behind; ++comma) {
        end = parameters.rfind(", ", end == std::string_view::npos ? end : end - 1);
        if (end == std::string_view::npos || end == 0) {
            return {};
        }
    }
    if (begin == std::string_view::npos || end == std::string_view::npos || begin + 2 > end) {
        return {};
    }
    return parameters.substr(begin + 2, end - begin - 2);
}

/// "hCard:1 mszReaderName:..." or "1, 2, ...".
std::string_view cardHandle(std::string_view parameters) {
    constexpr std::string_view kLabel = "hCard:";
    if (parameters.starts_with(kLabel)) {
        parameters.remove_prefix(kLabel.size());
    }
    return parameters.substr(0, parameters.find_first_of(", "));
}

/// "REMOTE READER STATE 0: Name, curr:..." names its reader.
std::string_view readerOfState(std::string_view message) {
    constexpr std::string_view kMark = " READER STATE ";
    const std::size_t mark = message.find(kMark);
    const std::size_t colon = message.find(": ", mark == std::string_view::npos ? 0 : mark);
    const std::size_t end = message.find(", curr:");
    if (mark == std::string_view::npos || colon == std::string_view::npos ||
        end == std::string_view::npos || colon + 2 > end) {
        return {};
    }
    return message.substr(colon + 2, end - colon - 2);
}

void addSide(Call& call, AnsweringSide side) {
    call.side =
        call.side == AnsweringSide::kNone || call.side == side ? side : AnsweringSide::kBoth;
}

/// The side of a call that has ended, where no line has told it.
void settleSide(Call& call) {
    if (call.side != AnsweringSide::kNone || contains(kOwnOperations, call.operation) ||
        contains(kCardOperations, call.operation) || !call.result || isRefusal(*call.result) ||
        call.operation.empty()) {
        return;
    }
    call.side = call.operation == "LIST_READERS" ? AnsweringSide::kBoth : AnsweringSide::kHost;
}

}  // namespace

void CallAssembler::take(const LogLine& line) {
    if (line.isContinuation) {
        if (lastPlace_ != nullptr) {
            lastPlace_->back().message += "\n" + line.message;
        }
        return;
    }
    const std::optional<FrameMessage> frame = parseFrame(line.message);
    if (frame && line.prefix.function.starts_with("SCard")) {
        takeFrame(line, *frame);
    } else {
        takeOther(line);
    }
}

void CallAssembler::finish() {
    for (auto& [thread, calls] : open_) {
        while (!calls.empty()) {
            end(calls, false);
        }
    }
    open_.clear();
    lastPlace_ = nullptr;
}

void CallAssembler::takeFrame(const LogLine& line, const FrameMessage& frame) {
    switch (frame.part) {
        case FrameMessage::Part::kIn:
            noteInput(begin(line, frame.operation), frame.text);
            break;
        case FrameMessage::Part::kOut:
            add(line);
            if (const Call* const call = innermost(line)) {
                noteOutput(*call, frame.text);
            }
            break;
        case FrameMessage::Part::kResult:
            takeResult(line, frame);
            break;
    }
}

void CallAssembler::takeResult(const LogLine& line, const FrameMessage& frame) {
    std::vector<Call>& open = open_[{line.prefix.process, line.prefix.thread}];
    const auto found = std::find_if(open.rbegin(), open.rend(), [&](const Call& call) {
        return call.operation == frame.operation;
    });
    if (found == open.rend()) {
        // Refused before its parameters could be told.
        begin(line, frame.operation);
    } else {
        while (open.back().operation != frame.operation) {
            end(open, false);
        }
        add(line);
    }
    open.back().result = parseResult(frame.text);
    end(open, true);
}

void CallAssembler::takeOther(const LogLine& line) {
    const bool isStarted = line.message == "ACCESS_STARTED_EVENT CALLED" ||
                           line.message == "RELEASE_STARTED_EVENT CALLED";
    if (isStarted) {
        takeInstant(line, std::nullopt);
    } else if (line.message == line.prefix.function + " not implemented") {
        takeInstant(line, kNotImplemented);
    } else {
        add(line);
    }
}

void CallAssembler::takeInstant(const LogLine& line, std::optional<std::int32_t> result) {
    begin(line, "").result = result;
    end(open_[{line.prefix.process, line.prefix.thread}], true);
}

Call& CallAssembler::begin(const LogLine& line, std::string_view operation) {
    std::vector<Call>& open = open_[{line.prefix.process, line.prefix.thread}];
    Call call;
    call.function = line.prefix.function;
    call.operation = operation;
    call.process = line.prefix.process;
    call.thread = line.prefix.thread;
    call.begin = line.prefix.time;
    call.end = line.prefix.time;
    call.depth = static_cast<unsigned>(open.size());
    open.push_back(std::move(call));
    add(line);
    return open.back();
}

void CallAssembler::add(const LogLine& line) {
    Call* call = innermost(line);
    if (call == nullptr && line.prefix.function == "LocalSCardGetStatusChange") {
        // The host's half of a wait runs on a thread of its own.
        call = onlyOpenWait(line.prefix.process);
    }
    if (call == nullptr) {
        ++otherLineCount_;
        lastPlace_ = nullptr;
        return;
    }
    call->end = std::max(call->end, line.prefix.time);
    noteLine(*call, line);
    call->lines.push_back(line);
    lastPlace_ = &call->lines;
}

Call* CallAssembler::innermost(const LogLine& line) {
    const auto found = open_.find({line.prefix.process, line.prefix.thread});
    return found == open_.end() || found->second.empty() ? nullptr : &found->second.back();
}

/// Null when there are several that the line could belong to.
Call* CallAssembler::onlyOpenWait(std::uint32_t process) {
    Call* wait = nullptr;
    for (auto& [thread, calls] : open_) {
        if (thread.first == process && !calls.empty() && calls.back().isWait()) {
            if (wait != nullptr) {
                return nullptr;
            }
            wait = &calls.back();
        }
    }
    return wait;
}

void CallAssembler::end(std::vector<Call>& open, bool isFinished) {
    Call call = std::move(open.back());
    open.pop_back();
    lastPlace_ = nullptr;
    call.isFinished = isFinished;
    settleSide(call);
    ended_(std::move(call));
}

void CallAssembler::noteInput(Call& call, std::string_view parameters) {
    constexpr unsigned kConnectParametersBehind = 4;
    constexpr unsigned kProviderParametersBehind = 4;
    if (call.operation == "SCARD_CONNECT") {
        call.subject = middleParameter(parameters, kConnectParametersBehind);
    } else if (call.operation == "GET_CARD_TYPE_PROVIDER_NAME") {
        call.subject = middleParameter(parameters, kProviderParametersBehind);
    } else if (contains(kCardOperations, call.operation)) {
        const auto known = cards_.find({call.process, std::string(cardHandle(parameters))});
        if (known != cards_.end()) {
            call.subject = known->second.reader;
            call.side = known->second.side;
        }
    }
}

void CallAssembler::noteOutput(const Call& call, std::string_view parameters) {
    if (call.operation == "SCARD_CONNECT") {
        // The host is asked first; a line has told when the daemon was asked after it.
        cards_[{call.process, std::string(cardHandle(parameters))}] = {
            call.subject, call.side == AnsweringSide::kNone ? AnsweringSide::kHost : call.side};
    }
}

void CallAssembler::noteLine(Call& call, const LogLine& line) {
    constexpr std::string_view kFallback = "falling back to remote call";
    constexpr std::string_view kLookupName = "lookupName is ";
    const std::string_view message = trimmed(line.message);
    if (message.ends_with(kFallback)) {
        call.side = AnsweringSide::kRemote;
    } else if (message.starts_with(kLookupName)) {
        call.subject = message.substr(kLookupName.size());
    } else if (call.isWait()) {
        const std::string_view reader = readerOfState(message);
        const bool isRemote = message.find("REMOTE READER STATE") != std::string_view::npos;
        const bool isLocal = message.find("LOCAL READER STATE") != std::string_view::npos;
        if (isRemote || isLocal) {
            addSide(call, isRemote ? AnsweringSide::kRemote : AnsweringSide::kHost);
        } else if (message.starts_with("localRv: ")) {
            addSide(call, AnsweringSide::kHost);
        }
        const bool isPseudoReader = reader.starts_with(R"(\\?PnP?\)");
        if (!reader.empty() && !isPseudoReader && call.subject.find(reader) == std::string::npos) {
            call.subject.append(call.subject.empty() ? "" : ", ").append(reader);
        }
    }
}

}  // namespace tez::client
