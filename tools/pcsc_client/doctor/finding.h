#pragma once

#include <optional>
#include <string>
#include <vector>

#include "json.h"

namespace tez::client {

/// What the doctor found out about one thing.
struct Finding {
    std::string check;  ///< what was looked at, in one word: "daemon"
    bool isRight = true;
    std::string text;  ///< what there is
    std::string next;  ///< what to do about it; empty when it is right
};

using Findings = std::vector<Finding>;

inline Finding right(std::string check, std::string text) {
    return {std::move(check), true, std::move(text), ""};
}

inline Finding wrong(std::string check, std::string text, std::string next) {
    return {std::move(check), false, std::move(text), std::move(next)};
}

Json toJson(const Finding& finding);
/// nullopt for an object that is none.
std::optional<Finding> parseFinding(const Json& object);

}  // namespace tez::client
