// What a debug log costs beside the bare writes of its lines: three to a line, each of which
// reaches the file at once. Not among the others, as a process's log is what it was for its first
// line.
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench.h"
#include "library.h"

namespace tez::bench {
namespace {

std::string logPath() {
    char folder[MAX_PATH];
    const DWORD length = GetEnvironmentVariableA("TEZ_PCSC_LOG_DIR", folder, sizeof folder);
    if (length == 0 || length >= sizeof folder) {
        throw std::runtime_error("needs TEZ_PCSC_LOG_LEVEL=debug and TEZ_PCSC_LOG_DIR");
    }
    return std::string(folder) + "\\tez-pcsc.bench.exe." + std::to_string(GetCurrentProcessId()) +
           ".log";
}

std::vector<std::string> readLines() {
    std::ifstream file(logPath());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

void compareWithWrites(const std::string& name, const std::function<void()>& call) {
    call();
    const std::size_t before = readLines().size();
    call();
    std::vector<std::string> lines = readLines();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    std::FILE* const file = std::fopen((logPath() + ".bare").c_str(), "a");
    std::setvbuf(file, nullptr, _IONBF, 0);
    compare(
        name + ", " + std::to_string(lines.size()) + " lines in a debug log",
        [&] {
            for (const std::string& line : lines) {
                const std::size_t prefix = line.find("): ") + 3;
                std::fwrite(line.data(), 1, prefix, file);
                std::fwrite(line.data() + prefix, 1, line.size() - prefix, file);
                std::fwrite("\n", 1, 1, file);
            }
        },
        call);
    std::fclose(file);
}

TEST_CASE("log", "[.]") {
    Sides::instance();
    const SCARDCONTEXT context = establish();
    const SCARDHANDLE card = connect(context, test::kHostReader);
    compareWithWrites("local transmit", [card] {
        constexpr BYTE kCommand[] = {0x00, 0x84, 0x00, 0x00, 0x08};
        BYTE answer[16];
        DWORD length = sizeof answer;
        SCardTransmit(card, SCARD_PCI_T1, kCommand, sizeof kCommand, nullptr, answer, &length);
    });
    compareWithWrites("SCardIsValidContext", [context] { SCardIsValidContext(context); });
    SCardReleaseContext(context);
}

}  // namespace
}  // namespace tez::bench
