#include "bare_pipe.h"

#include <mutex>
#include <stdexcept>

#include "import_patch.h"
#include "library.h"

namespace tez::bench {
namespace {

constexpr const char* kPipeName = R"(\\.\pipe\tez-pcscd-0)";

}  // namespace

Pattern patternOf(const std::function<void()>& call) {
    const DWORD thread = GetCurrentThreadId();
    Pattern pattern;
    const test::ImportPatch<decltype(::WriteFile)> write(
        libraryModule(), "KERNEL32.dll", "WriteFile",
        [&](HANDLE pipe, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
            if (GetCurrentThreadId() == thread) {
                const auto* const bytes = static_cast<const std::uint8_t*>(data);
                pattern.push_back({true, {bytes, bytes + size}});
            }
            return ::WriteFile(pipe, data, size, written, overlapped);
        });
    const test::ImportPatch<decltype(::ReadFile)> read(
        libraryModule(), "KERNEL32.dll", "ReadFile",
        [&](HANDLE pipe, LPVOID data, DWORD size, LPDWORD count, LPOVERLAPPED overlapped) {
            if (GetCurrentThreadId() == thread) {
                pattern.push_back({false, std::vector<std::uint8_t>(size)});
            }
            return ::ReadFile(pipe, data, size, count, overlapped);
        });
    call();
    return pattern;
}

BarePipe::BarePipe() {
    HANDLE pipe = nullptr;
    do {
        pipe = CreateFileA(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    } while (pipe == INVALID_HANDLE_VALUE && WaitNamedPipeA(kPipeName, 5000) != FALSE);
    if (pipe == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("no daemon");
    }
    pipe_ = pcscd::UniqueHandle(pipe);
    constexpr std::uint8_t kUnset = 0xFF;
    constexpr std::size_t kVersionSize = 8;
    play({{true, {0}},
          {true, {kUnset, kUnset, kUnset, kUnset}},
          {false, std::vector<std::uint8_t>(kVersionSize)}});
}

void BarePipe::play(const Pattern& pattern) {
    for (const Piece& piece : pattern) {
        buffer_ = piece.bytes;
        transfer(piece.isWrite, buffer_.data(), static_cast<DWORD>(buffer_.size()));
    }
}

void BarePipe::transfer(bool isWrite, void* data, DWORD size) {
    const pcscd::UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event.get();
    const BOOL isDone = isWrite ? WriteFile(pipe_.get(), data, size, nullptr, &overlapped)
                                : ReadFile(pipe_.get(), data, size, nullptr, &overlapped);
    if (isDone == FALSE && GetLastError() == ERROR_IO_PENDING) {
        WaitForSingleObject(event.get(), INFINITE);
    }
    DWORD count = 0;
    if (GetOverlappedResult(pipe_.get(), &overlapped, &count, FALSE) == FALSE || count != size) {
        throw std::runtime_error("the daemon's pipe broke");
    }
}

}  // namespace tez::bench
