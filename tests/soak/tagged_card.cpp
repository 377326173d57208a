#include "tagged_card.h"

#include <algorithm>
#include <functional>

namespace tez::soak {
namespace {

constexpr std::uint8_t kAid[] = {0xF0, 'T', 'E', 'Z', 'T', 'A', 'G'};
constexpr std::uint16_t kFile = 0x0201;

std::uint8_t low(std::size_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

/// What stands at one place of the file: four bytes each are the mixed number of their place.
std::uint8_t contentAt(std::uint32_t card, std::size_t offset) {
    std::uint32_t mixed = card ^ static_cast<std::uint32_t>(offset / 4 + 1) * 0x9E3779B9U;
    mixed = (mixed ^ mixed >> 16U) * 0x85EBCA6BU;
    mixed = (mixed ^ mixed >> 13U) * 0xC2B2AE35U;
    mixed ^= mixed >> 16U;
    return low(mixed >> offset % 4 * 8);
}

std::uint32_t cardOf(const std::string& reader) {
    return static_cast<std::uint32_t>(std::hash<std::string>()(reader));
}

Bytes select(std::uint8_t p1, std::span<const std::uint8_t> data) {
    Bytes command = {0x00, 0xA4, p1, 0x0C, low(data.size())};
    command.insert(command.end(), data.begin(), data.end());
    return command;
}

}  // namespace

VirtualCard makeTaggedCard(const std::string& reader) {
    ElementaryFile file;
    file.id = kFile;
    file.content.resize(kTaggedFileSize);
    const std::uint32_t card = cardOf(reader);
    for (std::size_t i = 0; i < file.content.size(); ++i) {
        file.content[i] = contentAt(card, i);
    }
    CardApplication application;
    application.aid.assign(std::begin(kAid), std::end(kAid));
    application.files.push_back(std::move(file));
    return {makeAtr(protocol::kT1, "TAGGED CARD"), {std::move(application)}};
}

Bytes selectTaggedApplication() {
    return select(0x04, kAid);
}

Bytes selectTaggedFile() {
    return select(0x02, Bytes{low(kFile >> 8U), low(kFile)});
}

Bytes readTaggedFile(std::size_t offset, std::size_t length) {
    Bytes command = {0x00, 0xB0, low(offset >> 8U), low(offset)};
    if (length > 256) {
        command.insert(command.end(), {0x00, low(length >> 8U)});
    }
    command.push_back(low(length));
    return command;
}

bool isAnswerOf(const std::string& reader, std::size_t offset, std::size_t length,
                std::span<const std::uint8_t> answer) {
    if (answer.size() != length + 2 || answer[length] != 0x90 || answer[length + 1] != 0x00) {
        return false;
    }
    const std::uint32_t card = cardOf(reader);
    for (std::size_t i = 0; i < length; ++i) {
        if (answer[i] != contentAt(card, offset + i)) {
            return false;
        }
    }
    return true;
}

}  // namespace tez::soak
