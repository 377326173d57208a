#include "suggestion.h"

#include <algorithm>
#include <numeric>
#include <string_view>
#include <utility>

namespace tez::client {
namespace {

/// How many letters have to be changed, added or taken away to come from one word to the other.
std::size_t distance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> above(to.size() + 1);
    std::iota(above.begin(), above.end(), std::size_t{0});
    std::size_t last = to.size();
    for (std::size_t line = 1; line <= from.size(); ++line) {
        std::vector<std::size_t> row;
        last = line;
        row.push_back(last);
        for (std::size_t column = 1; column <= to.size(); ++column) {
            const std::size_t change =
                above[column - 1] + (from[line - 1] == to[column - 1] ? 0 : 1);
            last = std::min({change, above[column] + 1, last + 1});
            row.push_back(last);
        }
        above = std::move(row);
    }
    return last;
}

}  // namespace

std::string suggest(const std::string& word, const std::vector<std::string>& names) {
    std::string nearest;
    std::size_t least = std::max<std::size_t>(word.size() / 3, 1) + 1;
    for (const std::string& name : names) {
        // The beginning of a name is as good as one wrong letter.
        const bool isBeginning = word.size() >= 2 && name.starts_with(word);
        const std::size_t apart = isBeginning ? 1 : distance(word, name);
        if (apart < least) {
            least = apart;
            nearest = name;
        }
    }
    return nearest;
}

}  // namespace tez::client
