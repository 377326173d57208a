#pragma once

#include <string>

namespace tez::tools {

/// Lets std::cin, std::cout and std::cerr be UTF-8 where they lead to a console, which is written
/// to and read from as UTF-16: what a console makes of bytes depends on the system and its code
/// page. Files and pipes get the bytes as they are.
void useConsoleStreams();

/// Whether a person types what std::cin gives.
bool isInputTyped();

/// The next line of std::cin, which is not shown while it is typed; only the end of the line is, on
/// std::cerr. False at the end of the input.
bool readHiddenLine(std::string& line);

}  // namespace tez::tools
