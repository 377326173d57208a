// Puts the project's virtual card into a reader of the virtual reader driver (vsmartcard-vpcd),
// which takes cards over TCP. The card is in the reader while this program runs.
#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <iostream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <span>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "simulated/virtual_card.h"

namespace {

using tez::pcscd::Bytes;
using tez::pcscd::VirtualCard;

// What the driver sends in place of a command APDU: one byte.
enum class Order : std::uint8_t { kPowerOff = 0, kPowerOn = 1, kReset = 2, kGetAtr = 4 };

constexpr std::size_t kLengthSize = 2;  // before every message, big-endian

/// A connection to the driver. Throws std::system_error when there is none.
class Driver {
  public:
    explicit Driver(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::system_error(errno, std::generic_category(),
                                    "no virtual reader at port " + std::to_string(port));
        }
    }
    ~Driver() { close(socket_); }
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    /// False when the driver has ended.
    bool receive(Bytes& message) const {
        // The driver writes length and message apart, and its system holds the second back until
        // the first is acknowledged, which this side would do some 40 ms later.
        const int on = 1;
        setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
        std::array<std::uint8_t, kLengthSize> length{};
        if (!readAll(length)) {
            return false;
        }
        message.resize(std::size_t{length[0]} << 8 | length[1]);
        return readAll(message);
    }

    void send(const Bytes& message) const {
        Bytes bytes{static_cast<std::uint8_t>(message.size() >> 8),
                    static_cast<std::uint8_t>(message.size() & 0xFF)};
        bytes.insert(bytes.end(), message.begin(), message.end());
        for (std::span<const std::uint8_t> rest = bytes; !rest.empty();) {
            const ssize_t count = ::send(socket_, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (count <= 0) {
                return;  // the next read finds out
            }
            rest = rest.subspan(static_cast<std::size_t>(count));
        }
    }

  private:
    bool readAll(std::span<std::uint8_t> buffer) const {
        while (!buffer.empty()) {
            const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
            if (count <= 0) {
                return false;
            }
            buffer = buffer.subspan(static_cast<std::size_t>(count));
        }
        return true;
    }

    int socket_;
};

/// The demo card's application with one file, for long answers.
VirtualCard makeCardWithFile(std::size_t size, std::uint32_t protocols) {
    namespace pcscd = tez::pcscd;
    Bytes content(size);
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<std::uint8_t>(i % 251);
    }
    pcscd::CardApplication application;
    application.aid.assign(std::begin(pcscd::kDemoAid), std::end(pcscd::kDemoAid));
    application.files = {{pcscd::kDemoHolderFile, std::move(content), false}};
    return {pcscd::makeAtr(protocols, "DEMO CARD"), {std::move(application)}};
}

void serve(const Driver& driver, VirtualCard card, std::chrono::milliseconds delay) {
    Bytes message;
    while (driver.receive(message)) {
        if (message.size() != 1) {
            std::this_thread::sleep_for(delay);
            driver.send(card.transmit(message));
            continue;
        }
        switch (static_cast<Order>(message[0])) {
            case Order::kGetAtr:
                driver.send(card.atr());
                break;
            case Order::kPowerOff:
            case Order::kPowerOn:
            case Order::kReset:
                card.reset();
                break;
            default:  // a command of one byte, which the driver does not tell from an order
                driver.send(card.transmit(message));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app(
            "Puts a virtual card into a reader of the virtual reader driver, until it ends.");
        app.name("vpcd-card");
        std::uint16_t port = 35963;
        std::string holder = "Remote User";
        bool t0 = false;
        int delay = 0;
        std::size_t fileSize = 0;
        app.add_option("--port", port,
                       "The driver's port: 35963 is its first reader, 35964 its second")
            ->capture_default_str();
        app.add_option("--holder", holder, "The card holder's name")->capture_default_str();
        app.add_flag("--t0", t0, "A card of T=0 instead of T=1");
        app.add_option("--delay", delay, "Milliseconds that the card takes for each command")
            ->capture_default_str();
        app.add_option("--file-size", fileSize,
                       "Bytes of a file that takes the place of the holder's name");
        CLI11_PARSE(app, argc, argv);
        namespace protocol = tez::pcscd::protocol;
        const Driver driver(port);
        std::cout << "card inserted" << std::endl;
        const std::uint32_t offered = t0 ? protocol::kT0 : protocol::kT1;
        serve(driver,
              fileSize == 0 ? tez::pcscd::makeDemoCard(holder, offered)
                            : makeCardWithFile(fileSize, offered),
              std::chrono::milliseconds(delay));
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
