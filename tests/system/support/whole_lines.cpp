#include "whole_lines.h"

#include <string_view>

namespace tez::test {

WholeLines::WholeLines(HMODULE library)
    : fwrite_(library, "msvcrt.dll", "fwrite",
              [this](const void* data, std::size_t size, std::size_t count,
                     std::FILE* stream) -> std::size_t {
                  if (stream == stderr) {
                      return std::fwrite(data, size, count, stream);
                  }
                  const std::string_view piece(static_cast<const char*>(data), size * count);
                  const std::scoped_lock guard(mutex_);
                  std::string& line = lines_[GetCurrentThreadId()];
                  line.append(piece);
                  if (piece == "\n") {
                      std::fwrite(line.data(), 1, line.size(), stream);
                      line.clear();
                  }
                  return count;
              }) {}

}  // namespace tez::test
