#include "doctor/finding.h"

namespace tez::client {

Json toJson(const Finding& finding) {
    Json json = {{"check", finding.check}, {"right", finding.isRight}, {"text", finding.text}};
    if (!finding.next.empty()) {
        json["next"] = finding.next;
    }
    return json;
}

std::optional<Finding> parseFinding(const Json& object) {
    try {
        return Finding{object.at("check"), object.at("right"), object.at("text"),
                       object.value("next", "")};
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

}  // namespace tez::client
