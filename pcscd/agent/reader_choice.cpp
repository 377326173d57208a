#include "agent/reader_choice.h"

#include <algorithm>
#include <fnmatch.h>
#include <utility>

#include "wire/card_records.h"

namespace tez::agent {
namespace {

bool matchesAny(const std::vector<std::string>& patterns, const std::string& reader) {
    return std::ranges::any_of(patterns, [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), reader.c_str(), 0) == 0;
    });
}

}  // namespace

bool ReaderChoice::isChosen(const std::string& reader) const {
    return (wanted.empty() || matchesAny(wanted, reader)) && !matchesAny(denied, reader);
}

std::optional<std::string> ReaderChoice::servedName(const std::string& reader) const {
    std::string name = prefix + reader;
    return name.size() < kWireReaderNameSize ? std::optional(std::move(name)) : std::nullopt;
}

}  // namespace tez::agent
