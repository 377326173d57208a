// What concerns a process as a whole: its first call, and what it takes when nothing happens.
#include <windows.h>

#include <string>

#include "bench.h"
#include "child_process.h"
#include "library.h"

namespace tez::bench {
namespace {

void measureFirstCalls(const std::string& name) {
    for (std::size_t i = 0; i < effort().blocks; ++i) {
        test::ChildProcess child("bench.exe", "--first-call");
        figures()[name].library.push_back(std::stod(child.readLine().value()));
    }
}

double processorNanoseconds() {
    FILETIME created;
    FILETIME ended;
    FILETIME kernel;
    FILETIME user;
    GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user);
    const auto count = [](const FILETIME& time) {
        return static_cast<double>(std::uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
    };
    return 100 * (count(kernel) + count(user));
}

TEST_CASE("first call") {
    Sides& sides = Sides::instance();
    sides.stopDaemon();
    measureFirstCalls("first call of a process, daemon away");
    sides.startDaemon();
    measureFirstCalls("first call of a process, daemon there");
}

TEST_CASE("idle") {
    Sides::instance().stopDaemon();
    const SCARDCONTEXT context = establish();
    const double before = processorNanoseconds();
    Sleep(effort().idleSeconds * 1000);
    figures()["processor time of an idle second, daemon away"].library.push_back(
        (processorNanoseconds() - before) / effort().idleSeconds);
    SCardReleaseContext(context);
}

}  // namespace
}  // namespace tez::bench
