#include "atr_words.h"

#include <algorithm>
#include <optional>
#include <set>

#include "hex.h"

namespace tez::client {
namespace {

/// Factors of the clock and of the bit rate that TA1 stands for; 0: reserved.
constexpr unsigned kClockFactors[] = {372, 372, 558, 744,  1116, 1488, 1860, 0,
                                      0,   512, 768, 1024, 1536, 2048, 0,    0};
constexpr unsigned kRateFactors[] = {0, 1, 2, 4, 8, 16, 32, 64, 12, 20, 0, 0, 0, 0, 0, 0};

/// The registered application provider of PC/SC, whose storage cards name
/// themselves in their historical bytes.
constexpr std::uint8_t kStorageCard[] = {0x4F, 0x0C, 0xA0, 0x00, 0x00, 0x03, 0x06};

class AtrReader {
  public:
    explicit AtrReader(ByteView atr) : atr_(atr) {}

    bool isAtEnd() const { return position_ == atr_.size(); }
    std::size_t left() const { return atr_.size() - position_; }

    std::optional<unsigned> next() {
        return isAtEnd() ? std::nullopt : std::optional<unsigned>(atr_[position_++]);
    }

    ByteView take(std::size_t count) {
        const ByteView bytes = atr_.subspan(position_, count);
        position_ += count;
        return bytes;
    }

  private:
    ByteView atr_;
    std::size_t position_ = 0;
};

struct Atr {
    bool isInverse = false;
    bool isConventionKnown = false;
    std::vector<unsigned> protocols;  ///< as the TD bytes name them
    std::optional<unsigned> rates;    ///< TA1
    std::optional<unsigned> guardTime;
    std::optional<unsigned> specific;  ///< TA2
    Bytes historical;
    bool isCut = false;
    bool hasCheck = false;
    bool isCheckRight = false;
    std::size_t surplus = 0;
};

/// The interface bytes TA, TB, TC of one round; what counts is kept.
void readRound(AtrReader& reader, unsigned round, unsigned which, Atr& atr) {
    for (unsigned letter = 0; letter < 3; ++letter) {
        if ((which & (1U << letter)) == 0) {
            continue;
        }
        const std::optional<unsigned> value = reader.next();
        atr.isCut = atr.isCut || !value;
        if (round == 1 && letter == 0) {
            atr.rates = value;
        } else if (round == 1 && letter == 2) {
            atr.guardTime = value;
        } else if (round == 2 && letter == 0) {
            atr.specific = value;
        }
    }
}

void readInterfaceBytes(AtrReader& reader, unsigned format, Atr& atr) {
    unsigned which = format >> 4U;
    for (unsigned round = 1; !atr.isCut; ++round) {
        readRound(reader, round, which, atr);
        if ((which & 8U) == 0) {
            return;
        }
        const std::optional<unsigned> next = reader.next();
        atr.isCut = atr.isCut || !next;
        if (next) {
            atr.protocols.push_back(*next & 0xFU);
            which = *next >> 4U;
        }
    }
}

Atr parse(ByteView bytes) {
    Atr atr;
    AtrReader reader(bytes);
    const std::optional<unsigned> initial = reader.next();
    const std::optional<unsigned> format = reader.next();
    atr.isInverse = initial == 0x3F;
    atr.isConventionKnown = atr.isInverse || initial == 0x3B;
    atr.isCut = !format;
    if (!format) {
        return atr;
    }
    readInterfaceBytes(reader, *format, atr);
    const std::size_t historicalCount = *format & 0xFU;
    atr.isCut = atr.isCut || reader.left() < historicalCount;
    const ByteView historical = reader.take(std::min(reader.left(), historicalCount));
    atr.historical.assign(historical.begin(), historical.end());
    // There is no check byte when T=0 is the only protocol.
    const bool wantsCheck = std::any_of(atr.protocols.begin(), atr.protocols.end(),
                                        [](unsigned protocol) { return protocol != 0; });
    if (wantsCheck && !atr.isCut) {
        atr.hasCheck = true;
        atr.isCut = !reader.next();
        const std::size_t checked = bytes.size() - reader.left();
        unsigned sum = 0;
        for (const std::uint8_t byte : bytes.subspan(1, checked - 1)) {
            sum ^= byte;
        }
        atr.isCheckRight = sum == 0;
    }
    atr.surplus = reader.left();
    return atr;
}

std::string protocolsOf(const Atr& atr) {
    constexpr unsigned kAllProtocols = 15;  // stands for interface bytes that are about all of them
    std::string text;
    std::set<unsigned> named = {kAllProtocols};
    for (const unsigned protocol : atr.protocols) {
        if (named.insert(protocol).second) {
            text.append(text.empty() ? "T=" : ", T=").append(std::to_string(protocol));
        }
    }
    return text.empty() ? "T=0" : text;
}

std::string ratesText(unsigned rates) {
    const unsigned clock = kClockFactors[rates >> 4U];
    const unsigned rate = kRateFactors[rates & 0xFU];
    if (clock == 0 || rate == 0) {
        return "reserved value " + formatDigits(rates, 2);
    }
    return "clock factor " + std::to_string(clock) + ", rate factor " + std::to_string(rate) +
           ": " + std::to_string(clock / rate) + " clock cycles a bit";
}

std::string storageName(ByteView historical) {
    // 80, then the tag, its length, the provider, the standard's byte, and the card's number.
    constexpr std::size_t kNumberAt = 1 + std::size(kStorageCard) + 1;
    if (historical.size() < kNumberAt + 3 ||
        !std::equal(std::begin(kStorageCard), std::end(kStorageCard), historical.begin() + 1)) {
        return "";
    }
    const unsigned number =
        unsigned{historical[kNumberAt]} << 8U | unsigned{historical[kNumberAt + 1]};
    return "storage card without contacts, number " + formatDigits(number, 4);
}

bool isText(ByteView bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](std::uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
}

std::string historicalText(ByteView historical) {
    if (isText(historical)) {
        return "\"" + printable(historical) + "\"";
    }
    std::string text = formatHex(historical);
    const std::string storage = storageName(historical);
    if (!storage.empty()) {
        return text + ", " + storage;
    }
    switch (historical.front()) {
        case 0x00:
        case 0x80:
            return text + ", data objects of ISO 7816-4";
        case 0x10:
            return text + ", a reference to a DIR file";
        default:
            return text + ", the maker's own format";
    }
}

}  // namespace

std::vector<std::pair<std::string, std::string>> describeAtr(ByteView bytes) {
    const Atr atr = parse(bytes);
    std::vector<std::pair<std::string, std::string>> words;
    const auto add = [&words](std::string label, std::string text) {
        words.emplace_back(std::move(label), std::move(text));
    };
    add("coding", !atr.isConventionKnown ? "neither direct (3B) nor inverse (3F)"
                  : atr.isInverse        ? "inverse"
                                         : "direct");
    add("protocols", protocolsOf(atr));
    if (atr.rates) {
        add("speed", ratesText(*atr.rates));
    }
    if (atr.guardTime) {
        add("guard", *atr.guardTime == 255 ? "the least that the protocol allows"
                                           : std::to_string(*atr.guardTime) + " bits more");
    }
    if (atr.specific) {
        add("mode", "specific: T=" + std::to_string(*atr.specific & 0xFU) + " without negotiation");
    }
    if (!atr.historical.empty()) {
        add("history", historicalText(atr.historical));
    }
    if (atr.hasCheck && !atr.isCut) {
        add("check", atr.isCheckRight ? "right sum" : "wrong sum");
    }
    if (atr.isCut) {
        add("mistake", "ends too early");
    }
    if (atr.surplus > 0) {
        add("mistake", "bytes too many: " + std::to_string(atr.surplus));
    }
    return words;
}

std::string summarizeAtr(ByteView bytes) {
    const Atr atr = parse(bytes);
    std::string text = protocolsOf(atr);
    if (!atr.historical.empty()) {
        text += "; historical bytes " + historicalText(atr.historical);
    }
    const bool isRight = atr.isConventionKnown && !atr.isCut && atr.surplus == 0 &&
                         (!atr.hasCheck || atr.isCheckRight);
    return isRight ? text : text + "; not a valid ATR";
}

}  // namespace tez::client
