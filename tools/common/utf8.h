#pragma once

#include <string>
#include <vector>

namespace tez::tools {

std::string toUtf8(const std::wstring& text);

/// The words behind a program's name, as wmain gets them.
std::vector<std::string> utf8Arguments(int argc, wchar_t** argv);

/// Lets what this program reads from and writes to a console be UTF-8.
void useUtf8Console();

}  // namespace tez::tools
