#pragma once

#include <string>

namespace tez::agent {

/// Lets logDetail write, too.
void setVerbose(bool verbose);

/// Writes a line to standard error. Lines of several threads do not mix.
void logLine(const std::string& line);
/// As logLine, for what only a troubleshooter wants to know.
void logDetail(const std::string& line);

}  // namespace tez::agent
