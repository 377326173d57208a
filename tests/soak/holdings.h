#pragma once

#include <windows.h>

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace tez::soak {

/// What a process holds of the system's.
struct Holdings {
    double memory = 0;  ///< MB that are its own
    double handles = 0;
    double threads = 0;
};

/// Of each of the processes by their ids; zeros where there is no such process.
std::vector<Holdings> holdingsOf(std::span<const DWORD> processes);

/// Whether a series of measurements, taken at even distances, grows steadily, by more than
/// `tolerance` in all. Its first fifth is left out, in which caches fill and threads are made that
/// stay; the rest is cut into four parts, and each part's median must be greater than the one
/// before. What goes up and down with the load is no growth; a leak of whatever size is, once it
/// has added up to the tolerance.
bool growsSteadily(std::span<const double> series, double tolerance);

}  // namespace tez::soak
