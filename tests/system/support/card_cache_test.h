// What the tests of the card cache share.
#pragma once

#include <string>

#include "remote_card_test.h"

namespace tez::test {

inline constexpr const char* kCacheItem = "Cached_GeneralFile/cp";
inline constexpr DWORD kCacheFreshness = 0x01020304;

/// A card whose identifier has no two equal bytes.
inline constexpr UUID kCacheCard = {
    0x10111213, 0x1415, 0x1617, {0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F}};

/// The identifier that renamingCard answers with.
inline constexpr UUID kRenamedCard = {
    0x20212223, 0x2425, 0x2627, {0x28, 0x29, 0x2A, 0x2B, 0x2C, 0x2D, 0x2E, 0x2F}};

class CardCacheTest : public RemoteCardTest {
  protected:
    static constexpr std::size_t kRecordSize = 36;

    /// The record of a request on kCacheCard, without what follows it.
    static RecordBytes cacheRecord(DWORD dataLength) {
        return RecordBytes(kRecordSize)
            .u64(0, kDaemonContext)
            .raw(8, {0x13, 0x12, 0x11, 0x10, 0x15, 0x14, 0x17, 0x16})
            .raw(16, {0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F})
            .u32(24, static_cast<std::uint32_t>(kCacheFreshness))
            .u32(28, static_cast<std::uint32_t>(dataLength));
    }

    /// A text with its NUL, as it goes over the pipe.
    static Bytes wireText(const std::string& text) {
        Bytes bytes(text.begin(), text.end());
        bytes.push_back(0);
        return bytes;
    }

    /// A daemon that answers with kRenamedCard, this result, and this data behind the record.
    static DaemonSimulator::Handler renamingCard(const Bytes& data, std::uint32_t rv = 0) {
        return answering(kRecordSize,
                         {{8, 0x20212223},
                          {12, 0x26272425},
                          {16, 0x2B2A2928},
                          {20, 0x2F2E2D2C},
                          {28, static_cast<std::uint32_t>(data.size())},
                          {32, rv}},
                         data);
    }

    UUID identifier = kCacheCard;
    std::string item = kCacheItem;
};

}  // namespace tez::test
