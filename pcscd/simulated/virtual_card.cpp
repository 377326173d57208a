#include "simulated/virtual_card.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "simulated/command_apdu.h"

namespace tez::pcscd {
namespace {

constexpr int kPinTries = 3;
constexpr std::uint16_t kMasterFile = 0x3F00;

namespace sw {
constexpr std::uint16_t kOk = 0x9000;
constexpr std::uint16_t kEndOfFile = 0x6282;
constexpr std::uint16_t kRetriesLeft = 0x63C0;
constexpr std::uint16_t kWrongLength = 0x6700;
constexpr std::uint16_t kSecurityStatus = 0x6982;
constexpr std::uint16_t kBlocked = 0x6983;
constexpr std::uint16_t kNoCurrentFile = 0x6986;
constexpr std::uint16_t kNotFound = 0x6A82;
constexpr std::uint16_t kWrongP1P2 = 0x6A86;
constexpr std::uint16_t kNoReferenceData = 0x6A88;
constexpr std::uint16_t kOutsideFile = 0x6B00;
constexpr std::uint16_t kWrongLe = 0x6C00;
constexpr std::uint16_t kWrongInstruction = 0x6D00;
constexpr std::uint16_t kWrongClass = 0x6E00;
}  // namespace sw

constexpr std::uint8_t low(std::size_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

Bytes withStatus(Bytes data, std::uint16_t status) {
    data.push_back(low(status >> 8));
    data.push_back(low(status));
    return data;
}

Bytes status(std::uint16_t value) {
    return withStatus({}, value);
}

void appendTlv(Bytes& target, std::uint8_t tag, std::span<const std::uint8_t> value) {
    target.push_back(tag);
    target.push_back(low(value.size()));
    target.insert(target.end(), value.begin(), value.end());
}

/// Answers a SELECT: with file control information only where P2 asks for it.
Bytes selected(const CommandApdu& apdu, const Bytes& controlInformation) {
    if (apdu.p2 != 0) {
        return status(sw::kOk);
    }
    Bytes fci;
    appendTlv(fci, 0x6F, controlInformation);
    if (apdu.expected && *apdu.expected < fci.size()) {
        return status(sw::kWrongLe | low(fci.size()));
    }
    return withStatus(std::move(fci), sw::kOk);
}

Bytes text(std::string_view characters) {
    return {characters.begin(), characters.end()};
}

}  // namespace

Bytes makeAtr(std::uint32_t protocols, std::string_view historicalBytes) {
    if (historicalBytes.size() > 15 || (protocols & ~(protocol::kT0 | protocol::kT1)) != 0 ||
        protocols == 0) {
        throw std::invalid_argument("no such ATR");
    }
    const bool t1 = (protocols & protocol::kT1) != 0;
    const bool both = protocols == (protocol::kT0 | protocol::kT1);
    Bytes atr;
    atr.reserve(33);  // the longest that an ATR can be
    atr.push_back(0x3B);
    atr.push_back(low((t1 ? 0x80U : 0U) | historicalBytes.size()));
    if (both) {
        atr.push_back(0x80);  // TD1: T=0, and TD2 follows
    }
    if (t1) {
        atr.push_back(0x01);  // T=1, and no more interface bytes
    }
    for (const char character : historicalBytes) {
        atr.push_back(static_cast<std::uint8_t>(character));
    }
    if (t1) {
        std::uint8_t check = 0;
        std::for_each(atr.begin() + 1, atr.end(), [&](std::uint8_t byte) { check ^= byte; });
        atr.push_back(check);
    }
    return atr;
}

std::vector<std::uint32_t> offeredProtocols(std::span<const std::uint8_t> atr) {
    std::vector<std::uint32_t> offered;
    const auto offer = [&](std::uint32_t protocol) {
        if (std::find(offered.begin(), offered.end(), protocol) == offered.end()) {
            offered.push_back(protocol);
        }
    };
    bool named = false;
    // The upper half of T0 and of each TDi tells which of TA, TB, TC and TD follow.
    for (std::size_t position = 1; position < atr.size();) {
        const std::uint8_t follows = atr[position] >> 4;
        if ((follows & 8) == 0) {
            break;
        }
        position +=
            static_cast<std::size_t>((follows & 1) + (follows >> 1 & 1) + (follows >> 2 & 1)) + 1;
        if (position >= atr.size()) {
            break;
        }
        named = true;
        const unsigned protocol = atr[position] & 0x0FU;
        if (protocol <= 1) {
            offer(protocol == 0 ? protocol::kT0 : protocol::kT1);
        }
    }
    if (!named) {
        offer(protocol::kT0);
    }
    return offered;
}

VirtualCard::VirtualCard(Bytes atr, std::vector<CardApplication> applications)
    : atr_(std::move(atr)) {
    for (CardApplication& description : applications) {
        applications_.push_back({std::move(description), kPinTries, false});
    }
}

void VirtualCard::reset() {
    selectedApplication_.reset();
    selectedFile_.reset();
    for (Application& application : applications_) {
        application.verified = false;
    }
}

Bytes VirtualCard::transmit(std::span<const std::uint8_t> command) {
    const std::optional<CommandApdu> apdu = CommandApdu::parse(command);
    if (command.size() >= 4) {
        if (command[0] != 0) {
            return status(sw::kWrongClass);
        }
        constexpr std::uint8_t known[] = {0x20, 0x84, 0xA4, 0xB0};
        if (std::find(std::begin(known), std::end(known), command[1]) == std::end(known)) {
            return status(sw::kWrongInstruction);
        }
    }
    if (!apdu) {
        return status(sw::kWrongLength);
    }
    switch (apdu->ins) {
        case 0x20:
            return verify(*apdu);
        case 0x84:
            return getChallenge(*apdu);
        case 0xA4:
            return select(*apdu);
        default:
            return readBinary(*apdu);
    }
}

Bytes VirtualCard::select(const CommandApdu& apdu) {
    if (apdu.p2 != 0x00 && apdu.p2 != 0x0C) {
        return status(sw::kWrongP1P2);
    }
    switch (apdu.p1) {
        case 0x00:
        case 0x02:
            return selectFile(apdu);
        case 0x04:
            return selectApplication(apdu);
        default:
            return status(sw::kWrongP1P2);
    }
}

Bytes VirtualCard::selectApplication(const CommandApdu& apdu) {
    if (apdu.data.empty() || apdu.data.size() > 16) {
        return status(sw::kWrongLength);
    }
    // An AID may be given by its first bytes alone.
    const auto found = std::find_if(
        applications_.begin(), applications_.end(), [&](const Application& application) {
            const Bytes& aid = application.description.aid;
            return aid.size() >= apdu.data.size() &&
                   std::equal(apdu.data.begin(), apdu.data.end(), aid.begin());
        });
    if (found == applications_.end()) {
        return status(sw::kNotFound);
    }
    const auto index = static_cast<std::size_t>(found - applications_.begin());
    if (Application* left = currentApplication(); left != nullptr && left != &*found) {
        left->verified = false;
    }
    selectedApplication_ = index;
    selectedFile_.reset();
    Bytes information;
    appendTlv(information, 0x84, found->description.aid);
    return selected(apdu, information);
}

Bytes VirtualCard::selectFile(const CommandApdu& apdu) {
    if (apdu.data.size() != 2) {
        return status(sw::kWrongLength);
    }
    const auto id = static_cast<std::uint16_t>(apdu.data[0] << 8 | apdu.data[1]);
    Bytes information;
    if (apdu.p1 == 0x00 && id == kMasterFile) {
        if (Application* left = currentApplication()) {
            left->verified = false;
        }
        selectedApplication_.reset();
        selectedFile_.reset();
        appendTlv(information, 0x83, apdu.data);
        return selected(apdu, information);
    }
    const Application* application = currentApplication();
    if (application == nullptr) {
        return status(sw::kNotFound);
    }
    const std::vector<ElementaryFile>& files = application->description.files;
    const auto found = std::find_if(files.begin(), files.end(),
                                    [&](const ElementaryFile& file) { return file.id == id; });
    if (found == files.end()) {
        return status(sw::kNotFound);
    }
    selectedFile_ = static_cast<std::size_t>(found - files.begin());
    const std::size_t size = found->content.size();
    appendTlv(information, 0x80, Bytes{low(size >> 8), low(size)});
    appendTlv(information, 0x83, apdu.data);
    return selected(apdu, information);
}

Bytes VirtualCard::readBinary(const CommandApdu& apdu) const {
    if ((apdu.p1 & 0x80) != 0) {
        return status(sw::kWrongP1P2);  // short file identifiers are not served
    }
    if (!apdu.data.empty() || !apdu.expected) {
        return status(sw::kWrongLength);
    }
    const Application* application = currentApplication();
    if (application == nullptr || !selectedFile_) {
        return status(sw::kNoCurrentFile);
    }
    const ElementaryFile& file = application->description.files[*selectedFile_];
    if (file.pinProtected && !application->verified) {
        return status(sw::kSecurityStatus);
    }
    const std::size_t offset = static_cast<std::size_t>(apdu.p1) << 8 | apdu.p2;
    if (offset >= file.content.size()) {
        return status(sw::kOutsideFile);
    }
    const std::size_t length = std::min(*apdu.expected, file.content.size() - offset);
    const bool shortened = length < *apdu.expected && !apdu.expectsAll;
    const auto begin = file.content.begin() + static_cast<std::ptrdiff_t>(offset);
    return withStatus({begin, begin + static_cast<std::ptrdiff_t>(length)},
                      shortened ? sw::kEndOfFile : sw::kOk);
}

Bytes VirtualCard::verify(const CommandApdu& apdu) {
    if (apdu.p1 != 0) {
        return status(sw::kWrongP1P2);
    }
    Application* application = currentApplication();
    // Bit 8 of P2 says "specific to the application", which all of these PINs are.
    if (application == nullptr || application->description.pin.empty() ||
        (apdu.p2 & 0x7F) != application->description.pinReference) {
        return status(sw::kNoReferenceData);
    }
    if (apdu.expected) {
        return status(sw::kWrongLength);
    }
    if (apdu.data.empty() && application->verified) {
        return status(sw::kOk);
    }
    if (application->retriesLeft == 0) {
        return status(sw::kBlocked);
    }
    if (!apdu.data.empty()) {
        application->verified =
            std::equal(apdu.data.begin(), apdu.data.end(), application->description.pin.begin(),
                       application->description.pin.end());
        if (application->verified) {
            application->retriesLeft = kPinTries;
            return status(sw::kOk);
        }
        --application->retriesLeft;
    }
    return status(static_cast<std::uint16_t>(sw::kRetriesLeft | application->retriesLeft));
}

Bytes VirtualCard::getChallenge(const CommandApdu& apdu) {
    if (apdu.p1 != 0 || apdu.p2 != 0) {
        return status(sw::kWrongP1P2);
    }
    if (!apdu.data.empty() || !apdu.expected) {
        return status(sw::kWrongLength);
    }
    Bytes challenge(*apdu.expected);
    std::generate(challenge.begin(), challenge.end(), [this] { return low(random_()); });
    return withStatus(std::move(challenge), sw::kOk);
}

VirtualCard::Application* VirtualCard::currentApplication() {
    return selectedApplication_ ? &applications_[*selectedApplication_] : nullptr;
}

const VirtualCard::Application* VirtualCard::currentApplication() const {
    return selectedApplication_ ? &applications_[*selectedApplication_] : nullptr;
}

VirtualCard makeDemoCard(std::string_view holder, std::uint32_t protocols) {
    std::string verse;
    for (int line = 1; line <= 8; ++line) {
        verse +=
            "Line " + std::to_string(line) + " of a text that is longer than one short read.\n";
    }
    CardApplication application;
    application.aid.assign(std::begin(kDemoAid), std::end(kDemoAid));
    application.files = {
        {kDemoHolderFile, text("Card holder: " + std::string(holder) + "\n"), false},
        {kDemoTextFile, text(verse), false},
        {kDemoPrivateFile, text("Only for " + std::string(holder) + "'s eyes.\n"), true},
    };
    application.pin = kDemoPin;
    return {makeAtr(protocols, "DEMO CARD"), {std::move(application)}};
}

}  // namespace tez::pcscd
