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

    /// The name under which a reader is served; nullopt when it is not: it is not chosen, or the
    /// protocol has no room for its name.
    std::optional<std::string> servedName(const std::string& reader) const;
};

}  // namespace tez::agent
