#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "pcscd_names.h"
#include "simulated/simulated_service.h"

namespace tez::soak {

using namespace test;

// The readers of both sides. Each side has one whose card comes and goes, one whose card stays in,
// and one that is empty, in which nothing ever happens.
inline constexpr const char* kRemoteReader = "Remote Reader 0";
inline constexpr const char* kRemoteCardReader = "Remote Reader 1";
inline constexpr const char* kRemoteQuietReader = "Remote Reader 2";
inline constexpr const char* kHostCardReader = "Host Reader 1";
inline constexpr const char* kHostQuietReader = "Host Reader 2";

/// The size of the file on a tagged card.
inline constexpr std::size_t kTaggedFileSize = 0x8000;

/// A card with one file, all of whose parts differ from each other and from those of the card in
/// any other reader: where a READ BINARY begins is a tag that its answer carries back.
VirtualCard makeTaggedCard(const std::string& reader);

/// The commands that select the file.
Bytes selectTaggedApplication();
Bytes selectTaggedFile();
/// READ BINARY. `length` from 1 to kTaggedFileSize - offset.
Bytes readTaggedFile(std::size_t offset, std::size_t length);

/// Whether the answer is the one of this reader's card to readTaggedFile with these arguments.
bool isAnswerOf(const std::string& reader, std::size_t offset, std::size_t length,
                std::span<const std::uint8_t> answer);

}  // namespace tez::soak
