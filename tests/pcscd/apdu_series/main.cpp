// Sends a series of random command APDUs to a card and prints each answer, so that two ways to the
// same card can be held against each other: the series depends on the seed alone. Compiled for both
// sides. Tells on standard error what a transmit took.
#ifdef _WIN32
#include <windows.h>
#endif
#include <winscard.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::uint8_t kGetChallenge = 0x84;  // its answer is another one each time
constexpr DWORD kLongestAnswer = 65538;
constexpr std::size_t kExtendedHeader = 7;
constexpr std::size_t kLongestCommand = 65535;  // what the virtual reader carries

void check(const char* call, LONG result) {
    if (result != SCARD_S_SUCCESS) {
        char text[64] = {};
        std::snprintf(text, sizeof text, "%s: 0x%08lX", call,
                      static_cast<unsigned long>(result) & 0xFFFFFFFFUL);
        throw std::runtime_error(text);
    }
}

class Series {
  public:
    explicit Series(std::uint32_t seed) : random_(seed) {}

    Bytes next() {
        switch (below(4)) {
            case 0:  // READ BINARY
                return {0x00, 0xB0, offset(), byte(), byte()};
            case 1:  // the same with a length of two bytes
                return {0x00, 0xB0, offset(), byte(), 0x00, byte(), byte()};
            case 2:
                return withData(1 + below(255), false);
            default:  // of every order of size
                return withData(1 + below((kLongestCommand - kExtendedHeader) >> below(10)), true);
        }
    }

  private:
    // The standard library's distributions differ between the two sides.
    std::size_t below(std::size_t limit) { return random_() % limit; }
    /// The upper half of a place in a file.
    std::uint8_t offset() { return static_cast<std::uint8_t>(below(0x80)); }
    std::uint8_t byte() { return static_cast<std::uint8_t>(below(256)); }

    Bytes withData(std::size_t length, bool extended) {
        Bytes command = {0x00, 0, 0, 0};
        do {
            command[1] = byte();
        } while (command[1] == kGetChallenge);
        command[2] = byte();
        command[3] = byte();
        if (extended) {
            command.push_back(0);
            command.push_back(static_cast<std::uint8_t>(length >> 8U));
        }
        command.push_back(static_cast<std::uint8_t>(length));
        for (std::size_t i = 0; i < length; ++i) {
            command.push_back(byte());
        }
        return command;
    }

    std::mt19937 random_;
};

void print(const Bytes& command, const Bytes& answer) {
    std::printf("%zu bytes, INS %02X:", command.size(), command[1]);
    for (const std::uint8_t byte : answer) {
        std::printf(" %02X", byte);
    }
    std::printf("\n");
}

void run(const std::string& reader, int count, std::uint32_t seed) {
    SCARDCONTEXT context = 0;
    check("SCardEstablishContext",
          SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context));
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    check("SCardConnect", SCardConnect(context, reader.c_str(), SCARD_SHARE_EXCLUSIVE,
                                       SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card, &protocol));
    const SCARD_IO_REQUEST* const pci = protocol == SCARD_PROTOCOL_T1 ? SCARD_PCI_T1 : SCARD_PCI_T0;
    Series series(seed);
    std::vector<double> durations;
    // The demo card's application and its file, for commands that have something to read.
    std::vector<Bytes> commands = {
        {0x00, 0xA4, 0x04, 0x00, 0x08, 0xF0, 0x54, 0x45, 0x5A, 0x44, 0x45, 0x4D, 0x4F},
        {0x00, 0xA4, 0x02, 0x0C, 0x02, 0x01, 0x01}};
    while (commands.size() < static_cast<std::size_t>(count)) {
        commands.push_back(series.next());
    }
    for (const Bytes& command : commands) {
        Bytes answer(kLongestAnswer);
        DWORD length = kLongestAnswer;
        const auto begin = std::chrono::steady_clock::now();
        check("SCardTransmit",
              SCardTransmit(card, pci, command.data(), static_cast<std::uint32_t>(command.size()),
                            nullptr, answer.data(), &length));
        durations.push_back(Microseconds(std::chrono::steady_clock::now() - begin).count());
        answer.resize(length);
        print(command, answer);
    }
    check("SCardDisconnect", SCardDisconnect(card, SCARD_RESET_CARD));
    check("SCardReleaseContext", SCardReleaseContext(context));
    std::sort(durations.begin(), durations.end());
    std::fprintf(
        stderr, "%zu APDUs; a transmit took %.0f us in the median, %.0f us at most of 95 %%\n",
        durations.size(), durations[durations.size() / 2], durations[durations.size() * 95 / 100]);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Sends random command APDUs to a card and prints its answers.");
        app.name("apdu-series");
        std::string reader;
        int count = 1000;
        std::uint32_t seed = 1;
        app.add_option("reader", reader, "The reader's name")->required();
        app.add_option("--count", count, "How many")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        app.add_option("--seed", seed, "Another seed, another series")->capture_default_str();
        CLI11_PARSE(app, argc, argv);
        run(reader, count, seed);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "error: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
