// The text of a token's file as somebody may have left it.
#include "link/token.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/holds.h"

using namespace tez::link;
using tez::fuzz::holds;

namespace {

/// The text without what does not count: blanks at a line's end, empty lines at the end, capitals.
std::string plainOf(std::string_view text) {
    std::string plain;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        while (!line.empty() &&
               std::string_view(" \t\r").find(line.back()) != std::string_view::npos) {
            line.remove_suffix(1);
        }
        plain.append(line).push_back('\n');
    }
    while (plain.ends_with("\n\n")) {
        plain.pop_back();
    }
    return plain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(data, data + size);
    const std::optional<Token> token = parseToken(text);
    if (token) {
        holds(token->relay != token->agent);
        const std::string formatted = formatToken(*token);
        holds(parseToken(formatted) == token);
        std::string plain = plainOf(text);
        // The digits of the halves, which may be capitals; nothing else may.
        for (const std::string_view owner : {"\nrelay ", "\nagent "}) {
            const std::size_t begin = plain.find(owner) + owner.size();
            std::transform(plain.begin() + static_cast<std::ptrdiff_t>(begin),
                           plain.begin() + static_cast<std::ptrdiff_t>(begin + 2 * kTokenHalfSize),
                           plain.begin() + static_cast<std::ptrdiff_t>(begin), [](char digit) {
                               return digit >= 'A' && digit <= 'F'
                                          ? static_cast<char>(digit - 'A' + 'a')
                                          : digit;
                           });
        }
        holds(plain == formatted);
    }

    // Any two halves that differ are a token, and differ for isSameHalf too.
    if (size >= 2 * kTokenHalfSize) {
        Token made = {};
        std::copy_n(data, kTokenHalfSize, made.relay.begin());
        std::copy_n(data + kTokenHalfSize, kTokenHalfSize, made.agent.begin());
        const bool isSame = made.relay == made.agent;
        holds(isSameHalf(made.relay, made.agent) == isSame);
        holds(parseToken(formatToken(made)) == (isSame ? std::nullopt : std::optional(made)));
    }
    return 0;
}
