#include "agent/reader_choice.h"

#include <algorithm>
#include <fnmatch.h>

#include "wire/card_records.h"

namespace tez::agent {
namespace {

bool matchesAny(const std::vector<std::string>& patterns, const std::string& reader) {
    return std::ranges::any_of(patterns, [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), reader.c_str(), 0) == 0;
    });
}

}  // namespace

std::optional<std::string> ReaderChoice::servedName(const std::string& reader) const {
    const bool chosen =
        (wanted.empty() || matchesAny(wanted, reader)) && !matchesAny(denied, reader);
    std::string name = prefix + reader;
    if (!chosen || name.size() >= kWireReaderNameSize) {
        return std::nullopt;
    }
    return name;
}

}  // namespace tez::agent
