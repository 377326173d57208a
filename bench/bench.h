#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

#include "figures.h"

#define CATCH_CONFIG_ENABLE_BENCHMARKING
#include <catch2/catch.hpp>

namespace tez::bench {

/// How much is measured: enough for a figure, or only so much that it is seen to work.
struct Effort {
    std::size_t blocks = 20;
    std::size_t manyHandles = 100'000;
    std::size_t events = 200;
    DWORD idleSeconds = 60;
};
const Effort& effort();

/// What the last BENCHMARK took, in nanoseconds: the median of its samples.
double lastBenchmark();

/// Nanoseconds that an operation takes. The framework chooses, by its clock, how often it runs for
/// one sample.
template <class Operation>
double block(Operation& operation) {
    BENCHMARK("block") {
        return operation();
    };
    return lastBenchmark();
}

/// Measures an operation of the library beside its limit, in blocks that take turns.
/// @param calls  how many calls one operation makes.
template <class Limit, class Library>
void compare(const std::string& name, Limit limit, Library library, double calls = 1) {
    for (std::size_t i = 0; i < effort().blocks; ++i) {
        figures()[name].limit.push_back(block(limit) / calls);
        figures()[name].library.push_back(block(library) / calls);
    }
}

/// Measures an operation that no limit stands beside.
template <class Library>
void measure(const std::string& name, Library library, double calls = 1) {
    for (std::size_t i = 0; i < effort().blocks; ++i) {
        figures()[name].library.push_back(block(library) / calls);
    }
}

}  // namespace tez::bench
