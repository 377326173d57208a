#include "reader_sides.h"

#include <algorithm>
#include <chrono>

#include "daemon_probe.h"
#include "host_library.h"

namespace tez::client {
namespace {

constexpr std::chrono::seconds kPatience{3};

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

const char* sideName(ReaderSide side) {
    switch (side) {
        case ReaderSide::kRemote:
            return "remote";
        case ReaderSide::kHost:
            return "host";
        case ReaderSide::kBoth:
            return "both";
        default:
            return "unknown";
    }
}

ReaderSides ReaderSides::ask() {
    std::optional<HostReaders> host = listHostReaders();
    // The system's own library has no other side.
    const bool hasDaemon = servesRemoteReaders(usedLibrary());
    return {host ? std::move(host->names) : std::vector<std::string>(),
            hasDaemon ? probeDaemon(kPatience).readers : std::vector<std::string>()};
}

ReaderSide ReaderSides::of(const std::string& reader) const {
    const bool isHost = contains(host_, reader);
    if (contains(remote_, reader)) {
        return isHost ? ReaderSide::kBoth : ReaderSide::kRemote;
    }
    return isHost ? ReaderSide::kHost : ReaderSide::kUnknown;
}

}  // namespace tez::client
