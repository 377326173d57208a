#include "relay/command_line.h"

#include <windows.h>

#include "pipe/system_failure.h"
#include "utf8.h"

namespace tez::relay {

std::wstring quoteWord(const std::wstring& word) {
    // Backslashes stand for themselves, but for those before a quotation mark.
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t character : word) {
        if (character == L'"') {
            text.append(backslashes + 1, L'\\');
        }
        backslashes = character == L'\\' ? backslashes + 1 : 0;
        text.push_back(character);
    }
    return text.append(backslashes, L'\\').append(L"\"");
}

std::wstring commandLineOfThisProgram(const std::vector<std::string>& words) {
    constexpr DWORD kLongestPath = 32768;
    std::wstring program(kLongestPath, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, program.data(), kLongestPath);
    if (length == 0 || length == kLongestPath) {
        throw pcscd::systemFailure("cannot tell where this program is");
    }
    program.resize(length);
    std::wstring line = quoteWord(program);
    for (const std::string& word : words) {
        line.append(L" ").append(quoteWord(tools::toPath(word).wstring()));
    }
    return line;
}

}  // namespace tez::relay
