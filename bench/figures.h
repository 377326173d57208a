#pragma once

#include <cstddef>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace tez::bench {

/// What was measured, in nanoseconds for each call, one number for each block: of the library, and
/// of the limit that it is held against, if it has one.
struct Figure {
    std::vector<double> limit;
    std::vector<double> library;
};

/// All figures of a run, in the order in which they were begun. Not thread-safe.
class Figures {
  public:
    Figure& operator[](const std::string& name);
    bool empty() const { return order_.empty(); }

    /// A table for people: medians, their quartiles and the ratio.
    void print(std::ostream& out) const;
    /// The same with all blocks as JSON, and beside it, as .dat, the ratios' quartiles for a plot.
    void write(const std::filesystem::path& path) const;

  private:
    std::vector<std::string> order_;
    std::map<std::string, Figure> figures_;
};

/// Of this run.
Figures& figures();

}  // namespace tez::bench
