#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

#include "board.h"
#include "holdings.h"

namespace tez::soak {

struct Sample {
    double seconds;  ///< since the beginning
    std::array<Holdings, kClients> clients;
};

/// What a run has come to, beside what stands on the board.
struct Results {
    double seconds = 0;
    std::uint64_t daemonsKilled = 0;
    std::uint64_t daemonsRestarted = 0;  ///< those that stopped in order
    std::uint64_t daemonsHung = 0;
    std::uint64_t connectionsLost = 0;
    std::uint64_t clientsKilled = 0;
    std::uint64_t clientsExited = 0;    ///< by themselves, in the middle
    std::uint64_t lost = 0;             ///< events and cancels that were not told
    std::vector<std::string> failures;  ///< in words; empty: all is well
    std::vector<Sample> samples;
};

/// One line about the run so far.
std::string progressLine(const BoardContent& board, const Results& results);

/// A table for people.
void print(std::ostream& out, const BoardContent& board, const Results& results);

/// The same as JSON with all samples, and beside it, as .dat, the samples for a plot.
void write(const std::filesystem::path& path, const BoardContent& board, const Results& results);

}  // namespace tez::soak
