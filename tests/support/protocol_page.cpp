#include "protocol_page.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tez::test {
namespace {

using pcscd::Bytes;

[[noreturn]] void refuse(const std::string& line) {
    throw std::runtime_error("the page on the protocol has a line of no sense: " + line);
}

/// The bytes of an example's line: "0A", or "00*8" for eight of them.
Bytes bytesOf(const std::string& line) {
    Bytes bytes;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        std::size_t digits = 0;
        const unsigned long value = std::stoul(word, &digits, 16);
        if (digits != 2 || (word.size() > 2 && word[2] != '*')) {
            refuse(line);
        }
        const std::size_t count = word.size() == 2 ? 1 : std::stoul(word.substr(3));
        bytes.insert(bytes.end(), count, static_cast<std::uint8_t>(value));
    }
    return bytes;
}

/// The cells of a table's row, without the blanks around them.
std::vector<std::string> cellsOf(const std::string& row) {
    std::vector<std::string> cells;
    std::istringstream text(row.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        const std::size_t first = cell.find_first_not_of(' ');
        cells.push_back(first == std::string::npos
                            ? ""
                            : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
    }
    return cells;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// "### 4: connect (160 bytes)", or with the command in hexadecimal.
PageRecord& recordOf(ProtocolPage& page, const std::string& heading) {
    const std::size_t size = heading.rfind('(');
    if (size == std::string::npos) {
        refuse(heading);
    }
    PageRecord& record =
        heading.find("a reader state") != std::string::npos
            ? page.readerState
            : page.records[static_cast<std::uint32_t>(std::stoul(heading.substr(4), nullptr, 0))];
    record.size = std::stoul(heading.substr(size + 1));
    return record;
}

void takeRow(PageRecord& record, const std::string& row) {
    const std::vector<std::string> cells = cellsOf(row);
    if (cells.size() >= 3 && isNumber(cells[0]) && isNumber(cells[1])) {
        const std::string name = cells[2].substr(1, cells[2].size() - 2);  // without its quotes
        record.fields[name] = {std::stoul(cells[0]), std::stoul(cells[1])};
    }
}

}  // namespace

ProtocolPage readProtocolPage(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("there is no " + path);
    }
    ProtocolPage page;
    PageRecord* record = nullptr;
    Bytes* continued = nullptr;
    const std::string exampleStart = "    example: ";
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.starts_with("## ")) {
            record = line == "## A request and its answer" ? &page.header : nullptr;
        } else if (line.starts_with("### ")) {
            record = &recordOf(page, line);
        } else if (record != nullptr && line.starts_with("| ")) {
            takeRow(*record, line);
        } else if (line.starts_with(exampleStart)) {
            page.examples.push_back({line.substr(exampleStart.size()), {}, {}});
            continued = nullptr;
        } else if (line.starts_with("    > ") && !page.examples.empty()) {
            continued = &page.examples.back().sent;
        } else if (line.starts_with("    < ") && !page.examples.empty()) {
            continued = &page.examples.back().answered.emplace_back();
        } else if (!line.starts_with("      ")) {
            continued = nullptr;
        }
        if (continued != nullptr) {
            const Bytes bytes = bytesOf(line.substr(6));
            continued->insert(continued->end(), bytes.begin(), bytes.end());
        }
    }
    return page;
}

}  // namespace tez::test
