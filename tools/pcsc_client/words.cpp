#include "words.h"

#include <cctype>

#include "failure.h"

namespace tez::client {
namespace {

bool isSpace(char character) {
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

/// @param position  of the opening quotes; out: behind the closing ones.
std::string quotedWord(const std::string& line, std::size_t& position) {
    std::string word;
    for (++position; position < line.size(); ++position) {
        if (line[position] == '"') {
            ++position;
            return word;
        }
        if (line[position] == '\\' && position + 1 < line.size()) {
            ++position;
        }
        word.push_back(line[position]);
    }
    throw Failure("the quotes are not closed");
}

std::string plainWord(const std::string& line, std::size_t& position) {
    const std::size_t begin = position;
    while (position < line.size() && !isSpace(line[position])) {
        ++position;
    }
    return line.substr(begin, position - begin);
}

}  // namespace

std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    std::size_t position = 0;
    for (;;) {
        while (position < line.size() && isSpace(line[position])) {
            ++position;
        }
        if (position == line.size() || line[position] == '#') {
            return words;
        }
        words.push_back(line[position] == '"' ? quotedWord(line, position)
                                              : plainWord(line, position));
    }
}

}  // namespace tez::client
