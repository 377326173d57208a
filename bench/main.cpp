// Measures what the library costs beside its limits: the host's bare library, and a bare pipe that
// carries the same pieces. Catch2 chooses the cases and times them, as the benchmark framework that
// is one header and so builds for Windows; Debian's others are libraries for Linux alone.
#define CATCH_CONFIG_RUNNER
#include <algorithm>
#include <iostream>
#include <vector>

#include "bench.h"
#include "library.h"

namespace tez::bench {
namespace {

Effort chosenEffort;
double lastMedian = 0;

class Listener final : public Catch::TestEventListenerBase {
  public:
    using TestEventListenerBase::TestEventListenerBase;

    void benchmarkEnded(const Catch::BenchmarkStats<>& stats) override {
        std::vector<double> samples;
        for (const auto& sample : stats.samples) {
            samples.push_back(std::chrono::duration<double, std::nano>(sample).count());
        }
        const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
        std::nth_element(samples.begin(), middle, samples.end());
        lastMedian = *middle;
    }
};

CATCH_REGISTER_LISTENER(Listener)

int run(int argc, char** argv) {
    Catch::Session session;
    // The table that is wanted is made of all blocks; the framework's own reports are left out.
    session.configData().reporterName = "compact";
    session.configData().benchmarkNoAnalysis = true;
    session.configData().benchmarkSamples = 20;
    session.configData().benchmarkWarmupTime = 1;
    session.configData().warnings = Catch::WarnAbout::NoTests;  // of a misspelt name
    bool isQuick = false;
    bool isFirstCall = false;
    std::string json;
    using Catch::clara::Opt;
    session.cli(session.cli() | Opt(isQuick)["--quick"]("see only that everything works") |
                Opt(isFirstCall)["--first-call"]("print how long a first call takes, in ns") |
                Opt(json, "file")["--json"]("write the figures to a file, too"));
    if (const int failed = session.applyCommandLine(argc, argv); failed != 0) {
        return failed;
    }
    if (isFirstCall) {
        std::cout << firstCall() << std::endl;
        return 0;
    }
    if (isQuick) {
        chosenEffort = {.blocks = 3, .manyHandles = 1000, .events = 10, .idleSeconds = 1};
        session.configData().benchmarkSamples = 3;
    }
    const int failed = session.run();
    figures().print(std::cout);
    if (!json.empty() && !figures().empty()) {
        figures().write(json);
    }
    std::cout.flush();
    return failed;
}

}  // namespace

const Effort& effort() {
    return chosenEffort;
}

double lastBenchmark() {
    return lastMedian;
}

}  // namespace tez::bench

int main(int argc, char** argv) {
    // The host's library may call into this program for as long as the process lasts.
    std::_Exit(tez::bench::run(argc, argv));
}
