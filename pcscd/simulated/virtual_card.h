#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"
#include "core/platform.h"

namespace tez::pcscd {

struct CommandApdu;

/// A transparent elementary file: a two-byte file identifier and the bytes READ BINARY returns.
struct ElementaryFile {
    std::uint16_t id = 0;
    Bytes content;
    bool pinProtected = false;  ///< READ BINARY needs a successful VERIFY in this application first
};

/// An application (dedicated file) that SELECT finds by its AID. An empty PIN means that the
/// application has none, so VERIFY finds no reference data in it.
struct CardApplication {
    Bytes aid;
    std::vector<ElementaryFile> files;
    std::string pin;
    std::uint8_t pinReference = 1;
};

/// Builds a valid ATR that offers T=0, T=1 or both (T=0 first), with at most 15 historical bytes;
/// TCK is appended exactly where ISO 7816-3 wants it (when anything but T=0 is offered).
Bytes makeAtr(std::uint32_t protocols, std::string_view historicalBytes);

/// The protocols that an ATR offers, in its order and in the platform's mask values; T=0 when the
/// ATR names none. Protocols other than T=0 and T=1 are left out.
std::vector<std::uint32_t> offeredProtocols(std::span<const std::uint8_t> atr);

/// A small ISO 7816-4 card: SELECT (by AID or by file identifier), READ BINARY, VERIFY and GET
/// CHALLENGE, with short and extended lengths. It answers whole APDUs whatever the protocol is;
/// there is no GET RESPONSE. Not thread-safe: one caller at a time (SimulatedService sees to that).
class VirtualCard {
  public:
    VirtualCard(Bytes atr, std::vector<CardApplication> applications);

    const Bytes& atr() const { return atr_; }

    /// Answers one command APDU with the response data, if any, and the two status bytes. Never
    /// fails: what is no APDU at all is answered with 6700.
    Bytes transmit(std::span<const std::uint8_t> command);

    /// What a reset does to a card: nothing is selected or verified any more. The PINs' retry
    /// counters stay as they are.
    void reset();

  private:
    struct Application {
        CardApplication description;
        int retriesLeft = 0;
        bool verified = false;
    };

    Bytes select(const CommandApdu& apdu);
    Bytes selectApplication(const CommandApdu& apdu);
    Bytes selectFile(const CommandApdu& apdu);
    Bytes readBinary(const CommandApdu& apdu) const;
    Bytes verify(const CommandApdu& apdu);
    Bytes getChallenge(const CommandApdu& apdu);
    Application* currentApplication();
    const Application* currentApplication() const;

    Bytes atr_;
    std::vector<Application> applications_;
    std::optional<std::size_t> selectedApplication_;  // index into applications_
    std::optional<std::size_t> selectedFile_;         // index into the application's files
    std::mt19937 random_{std::random_device{}()};
};

/// What makeDemoCard puts on a card. The AID lies in the unregistered proprietary range.
inline constexpr std::uint8_t kDemoAid[] = {0xF0, 'T', 'E', 'Z', 'D', 'E', 'M', 'O'};
inline constexpr std::uint16_t kDemoHolderFile = 0x0101;   ///< "Card holder: NAME\n"
inline constexpr std::uint16_t kDemoTextFile = 0x0102;     ///< readable text of more than 256 bytes
inline constexpr std::uint16_t kDemoPrivateFile = 0x0103;  ///< readable after VERIFY of kDemoPin
inline constexpr std::string_view kDemoPin = "1234";       ///< reference 1, three tries

/// A card ready for use, offering `protocols` (platform mask), with one application kDemoAid.
VirtualCard makeDemoCard(std::string_view holder, std::uint32_t protocols = protocol::kT1);

}  // namespace tez::pcscd
