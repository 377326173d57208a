#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/bytes.h"

// docs/daemon-protocol.md as tests read it: what it says of records and bytes must be so.
namespace tez::test {

/// A field of a record, as its table has it.
struct PageField {
    std::size_t offset = 0;
    std::size_t width = 0;

    friend bool operator==(const PageField&, const PageField&) = default;
};

/// A record's table, and the size in its heading.
struct PageRecord {
    std::size_t size = 0;
    std::map<std::string, PageField> fields;
};

/// An example: what the library writes, and the pieces that the daemon answers with.
struct PageExample {
    std::string title;
    pcscd::Bytes sent;
    std::vector<pcscd::Bytes> answered;
};

struct ProtocolPage {
    std::map<std::uint32_t, PageRecord> records;  ///< by command
    PageRecord header;
    PageRecord readerState;
    std::vector<PageExample> examples;  ///< in their order
};

/// Throws std::runtime_error when the page is not there or not as it should be.
ProtocolPage readProtocolPage(const std::string& path);

}  // namespace tez::test
