#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tez::agent {

/// Which of the service's readers are served, and under what names.
struct ReaderChoice {
    std::vector<std::string> wanted;  ///< patterns as a shell has them; without any: all readers
    std::vector<std::string> denied;
    std::string prefix;  ///< of the served names

    bool isChosen(const std::string& reader) const;
    /// The name under which a reader is served, if it is chosen; nullopt when the protocol has no
    /// room for it.
    std::optional<std::string> servedName(const std::string& reader) const;
};

}  // namespace tez::agent
