#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tez::client {

/// One of the things that a value may be.
struct Explanation {
    const char* kind;  ///< one of explainableKinds()
    std::string text;
    std::vector<std::pair<std::string, std::string>> details;  ///< labels and their texts
};

/// "result", "status-word", "atr", "state" and "control".
std::vector<std::string> explainableKinds();

/// All that a value can be taken for, the likeliest first; empty for a value that says nothing.
std::vector<Explanation> explain(const std::string& value);

/// The value as one kind of thing; empty when it is none of that kind.
std::vector<Explanation> explainAs(const std::string& value, std::string_view kind);

}  // namespace tez::client
