#include "output.h"

#include <iostream>
#include <string>

#include "failure.h"

namespace tez::client {

void print(std::string_view text) {
    if (!(std::cout << text << std::flush)) {
        throw Failure("standard output cannot be written");
    }
}

void printLine(std::string_view line) {
    print(std::string(line) + '\n');
}

void printField(std::string_view label, std::string_view value) {
    constexpr std::size_t kLabelWidth = 10;
    std::string line = "    " + std::string(label);
    line.resize(4 + kLabelWidth, ' ');
    printLine(line + std::string(value));
}

}  // namespace tez::client
