#include "simulator_process.h"

#include <algorithm>
#include <stdexcept>

#include "patience.h"

namespace tez::test {

SimulatorProcess::SimulatorProcess(const std::string& arguments)
    : process_("pcscd-sim.exe", arguments), reader_([this] { readLines(); }) {
    try {
        waitFor("serving");
    } catch (const std::runtime_error&) {
        process_.kill();
        reader_.join();
        throw;
    }
}

SimulatorProcess::~SimulatorProcess() {
    process_.kill();
    reader_.join();
}

void SimulatorProcess::readLines() {
    while (const std::optional<std::string> line = process_.readLine()) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(*line);
        changed_.notify_all();
    }
}

std::size_t SimulatorProcess::countLocked(const std::string& text) const {
    return static_cast<std::size_t>(std::ranges::count_if(
        lines_, [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

std::size_t SimulatorProcess::count(const std::string& text) const {
    const std::lock_guard lock(mutex_);
    return countLocked(text);
}

void SimulatorProcess::waitFor(const std::string& text, std::size_t count) const {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [&] { return countLocked(text) >= count; })) {
        throw std::runtime_error("the simulator does not say: " + text);
    }
}

std::optional<DWORD> SimulatorProcess::quit() {
    process_.writeLine("quit");
    return process_.waitForEnd(kPatience);
}

}  // namespace tez::test
