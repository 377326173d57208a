#pragma once

#include <string>
#include <vector>

namespace tez::relay {

/// A command line that starts this program with these words, in UTF-8, behind its name: quoted so
/// that it takes them apart as they are.
std::wstring commandLineOfThisProgram(const std::vector<std::string>& words);

/// A word as it stands in a command line of Windows.
std::wstring quoteWord(const std::wstring& word);

}  // namespace tez::relay
