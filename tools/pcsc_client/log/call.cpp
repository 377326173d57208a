#include "log/call.h"

namespace tez::client {
namespace {

constexpr std::uint32_t kCancelled = 0x80100002;
constexpr std::uint32_t kTimeout = 0x8010000A;

}  // namespace

const char* answeringSideName(AnsweringSide side) {
    switch (side) {
        case AnsweringSide::kRemote:
            return "remote";
        case AnsweringSide::kHost:
            return "host";
        case AnsweringSide::kBoth:
            return "both";
        default:
            return "";
    }
}

CallOutcome Call::outcome() const {
    if (!isFinished) {
        return CallOutcome::kUnfinished;
    }
    const auto code = static_cast<std::uint32_t>(result.value_or(0));
    if (code == 0) {
        return CallOutcome::kDone;
    }
    return isWait() && (code == kTimeout || code == kCancelled) ? CallOutcome::kOver
                                                                : CallOutcome::kFailed;
}

}  // namespace tez::client
