#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tez::client {

enum class ReaderSide : std::uint8_t { kUnknown, kRemote, kHost, kBoth };

/// "remote", "host", "both" for a name that both sides have (the library asks the host first), or
/// "unknown" for one that neither tells of any more.
const char* sideName(ReaderSide side);

/// Which reader is on which side. PC/SC has no call that tells; so the host's own library and the
/// daemon are each asked for their readers, past the library that merges them.
class ReaderSides {
  public:
    /// Asks both, the daemon for at most 3 seconds. To be called when there is a context: the
    /// host's library is loaded with the first.
    static ReaderSides ask();

    ReaderSides(std::vector<std::string> host, std::vector<std::string> remote)
        : host_(std::move(host)), remote_(std::move(remote)) {}

    ReaderSide of(const std::string& reader) const;

  private:
    std::vector<std::string> host_;
    std::vector<std::string> remote_;
};

}  // namespace tez::client
