#include "utf8.h"

#include <windows.h>

namespace tez::tools {

std::string toUtf8(const std::wstring& text) {
    const auto length = static_cast<int>(text.size());
    const int size =
        WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, utf8.data(), size, nullptr, nullptr);
    return utf8;
}

std::wstring toWide(const std::string& utf8) {
    const auto length = static_cast<int>(utf8.size());
    const int size = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), length, wide.data(), size);
    return wide;
}

std::filesystem::path toPath(const std::string& utf8) {
    // What a narrow string is taken for depends on the host.
    return std::u8string(utf8.begin(), utf8.end());
}

std::vector<std::string> utf8Arguments(int argc, wchar_t** argv) {
    std::vector<std::string> words;
    for (int index = 1; index < argc; ++index) {
        words.push_back(toUtf8(argv[index]));
    }
    return words;
}

void useUtf8Console() {
    SetConsoleCP(CP_UTF8);
    SetConsoleOutputCP(CP_UTF8);
}

}  // namespace tez::tools
