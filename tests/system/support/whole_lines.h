#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <string>

#include "import_patch.h"

namespace tez::test {

/// Keeps the log lines of different threads apart as long as it lives. The library writes a line in
/// three pieces and takes no lock, so lines of two threads may run into each other; a test that
/// wants to read them has each line written in one piece instead. What goes to standard error, and
/// the calls that the library makes, stay as they are.
class WholeLines {
  public:
    explicit WholeLines(HMODULE library);

  private:
    std::mutex mutex_;
    std::map<DWORD, std::string> lines_;  // what each thread has written of its line
    ImportPatch<std::size_t(const void*, std::size_t, std::size_t, std::FILE*)> fwrite_;
};

}  // namespace tez::test
