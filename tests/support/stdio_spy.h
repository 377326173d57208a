#pragma once

#include <windows.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "import_patch.h"

namespace tez::test {

/// Watches what a module does with the C runtime's streams. Thread-safe.
class StdioSpy {
  public:
    struct Write {
        std::FILE* stream;
        std::string text;
    };
    struct Open {
        std::string path;
        std::string mode;
    };

    /// @param module the library under test, or the program that has its parts within.
    explicit StdioSpy(HMODULE module);

    /// Every fwrite, in order.
    std::vector<Write> writes() const;
    /// All that was written to standard error.
    std::string standardError() const;
    /// Every fopen, in order.
    std::vector<Open> opens() const;

  private:
    void noteWrite(const void* data, std::size_t size, std::FILE* stream);
    void noteOpen(const char* path, const char* mode);

    mutable std::mutex mutex_;
    std::vector<Write> writes_;
    std::vector<Open> opens_;

    // Last, so that they are gone before what they tell is.
    ImportPatch<std::size_t(const void*, std::size_t, std::size_t, std::FILE*)> fwrite_;
    ImportPatch<std::FILE*(const char*, const char*)> fopen_;
};

}  // namespace tez::test
