#pragma once

#include <filesystem>

#include "link/token.h"

namespace tez::agent {

/// Makes a new token and writes it to a file that only its owner can read. Throws std::system_error
/// when the file is there already, or cannot be written, in which case none is left behind.
void makeTokenFile(const std::filesystem::path& path);

/// Throws std::runtime_error when the file cannot be read, others than its owner can read or change
/// it, or it is no token's.
link::Token readTokenFile(const std::filesystem::path& path);

}  // namespace tez::agent
