#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tez::tools {

std::string toUtf8(const std::wstring& text);
/// What is not UTF-8 becomes U+FFFD.
std::wstring toWide(const std::string& utf8);

/// A path as a person gives it; throws std::system_error when it is not UTF-8.
std::filesystem::path toPath(const std::string& utf8);

/// The words behind a program's name, as wmain gets them.
std::vector<std::string> utf8Arguments(int argc, wchar_t** argv);

/// Lets what this program reads from and writes to a console be UTF-8.
void useUtf8Console();

}  // namespace tez::tools
