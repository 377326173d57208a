#include "log/call_filter.h"

#include <algorithm>
#include <cctype>

namespace tez::client {
namespace {

char lower(char character) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

bool containsInAnyCase(const std::string& text, const std::string& part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

}  // namespace

bool CallFilter::accepts(const Call& call) const {
    const CallOutcome outcome = call.outcome();
    const bool isFailure = outcome == CallOutcome::kFailed || outcome == CallOutcome::kUnfinished;
    constexpr double kMicroseconds = 1000;
    return (!failures || isFailure) &&
           (!slow || static_cast<double>(call.duration()) >= *slow * kMicroseconds) &&
           (!thread || call.thread == *thread) && containsInAnyCase(call.function, name);
}

}  // namespace tez::client
