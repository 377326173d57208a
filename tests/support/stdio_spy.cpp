#include "stdio_spy.h"

namespace tez::test {

StdioSpy::StdioSpy(HMODULE module)
    : fwrite_(module, "msvcrt.dll", "fwrite",
              [this](const void* data, std::size_t size, std::size_t count, std::FILE* stream) {
                  noteWrite(data, size * count, stream);
                  return fwrite_.original()(data, size, count, stream);
              }),
      fopen_(module, "msvcrt.dll", "fopen", [this](const char* path, const char* mode) {
          noteOpen(path, mode);
          return fopen_.original()(path, mode);
      }) {}

void StdioSpy::noteWrite(const void* data, std::size_t size, std::FILE* stream) {
    const std::lock_guard lock(mutex_);
    writes_.push_back({stream, std::string(static_cast<const char*>(data), size)});
}

void StdioSpy::noteOpen(const char* path, const char* mode) {
    const std::lock_guard lock(mutex_);
    opens_.push_back({path, mode});
}

std::vector<StdioSpy::Write> StdioSpy::writes() const {
    const std::lock_guard lock(mutex_);
    return writes_;
}

std::string StdioSpy::standardError() const {
    std::string text;
    for (const Write& write : writes()) {
        text += write.stream == stderr ? write.text : "";
    }
    return text;
}

std::vector<StdioSpy::Open> StdioSpy::opens() const {
    const std::lock_guard lock(mutex_);
    return opens_;
}

}  // namespace tez::test
