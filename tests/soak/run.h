#pragma once

#include <string>

namespace tez::soak {

struct Options {
    double minutes = 5;
    unsigned seed = 0;
    int patience = 10;           ///< seconds until what was not told counts as lost
    std::string json;            ///< a file to write the figures to; empty: none
    bool showsProgress = false;  ///< on one line
};

/// A whole run, with a daemon and clients in processes of their own. Prints what it came to.
/// @return whether all was well.
bool run(const Options& options);

}  // namespace tez::soak
