#include "agent/log.h"

#include <atomic>
#include <iostream>
#include <mutex>

namespace tez::agent {
namespace {

std::atomic<bool> verboseWanted = false;

}  // namespace

void setVerbose(bool verbose) {
    verboseWanted = verbose;
}

void logLine(const std::string& line) {
    static std::mutex mutex;
    const std::scoped_lock lock(mutex);
    std::cerr << line << std::endl;
}

void logDetail(const std::string& line) {
    if (verboseWanted) {
        logLine(line);
    }
}

}  // namespace tez::agent
