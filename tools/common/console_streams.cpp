#include "console_streams.h"

#include <windows.h>

#include <algorithm>
#include <iostream>
#include <streambuf>

#include "utf8.h"

namespace tez::tools {
namespace {

constexpr wchar_t kEndOfInput = 0x1A;  // Ctrl+Z

bool isConsole(HANDLE handle) {
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != FALSE;
}

/// How many bytes at the end of the text begin a character whose other bytes are still to come.
std::size_t unfinishedTail(const std::string& text) {
    constexpr std::size_t kLongestCharacter = 4;
    const std::size_t most = std::min(text.size(), kLongestCharacter - 1);
    for (std::size_t back = 1; back <= most; ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if ((byte & 0xC0U) != 0x80U) {
            const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
            return length > back ? back : 0;
        }
    }
    return 0;
}

class ConsoleOutput : public std::streambuf {
  public:
    explicit ConsoleOutput(HANDLE console) : console_(console) {}

  protected:
    int_type overflow(int_type character) override {
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            pending_.push_back(traits_type::to_char_type(character));
        }
        return traits_type::not_eof(character);
    }

    std::streamsize xsputn(const char* text, std::streamsize size) override {
        pending_.append(text, static_cast<std::size_t>(size));
        return size;
    }

    int sync() override {
        const std::size_t whole = pending_.size() - unfinishedTail(pending_);
        const std::wstring text = toWide(pending_.substr(0, whole));
        pending_.erase(0, whole);
        constexpr std::size_t kLongestWrite = 8192;  // older systems refuse more than 64 KiB
        for (std::size_t done = 0; done < text.size();) {
            DWORD written = 0;
            const auto size = static_cast<DWORD>(std::min(kLongestWrite, text.size() - done));
            if (WriteConsoleW(console_, text.data() + done, size, &written, nullptr) == FALSE ||
                written == 0) {
                return -1;
            }
            done += written;
        }
        return 0;
    }

  private:
    HANDLE console_;
    std::string pending_;
};

class ConsoleInput : public std::streambuf {
  public:
    explicit ConsoleInput(HANDLE console) : console_(console) {}

  protected:
    int_type underflow() override {
        wchar_t text[1024];
        DWORD count = 0;
        if (ReadConsoleW(console_, text, static_cast<DWORD>(std::size(text)), &count, nullptr) ==
                FALSE ||
            count == 0 || text[0] == kEndOfInput) {
            return traits_type::eof();
        }
        line_ = toUtf8({text, count});
        std::erase(line_, '\r');
        setg(line_.data(), line_.data(), line_.data() + line_.size());
        return line_.empty() ? underflow() : traits_type::to_int_type(line_.front());
    }

  private:
    HANDLE console_;
    std::string line_;
};

/// Never destroyed: the standard streams are flushed when everything else is gone.
template <class Buffer>
void replace(std::ios& stream, DWORD standardHandle) {
    const HANDLE handle = GetStdHandle(standardHandle);
    if (isConsole(handle)) {
        stream.rdbuf(new Buffer(handle));  // NOLINT(cppcoreguidelines-owning-memory)
    }
}

/// Switches a console's echo off; back on when it is destroyed.
class HiddenInput {
  public:
    HiddenInput() : console_(GetStdHandle(STD_INPUT_HANDLE)) {
        isHidden_ = GetConsoleMode(console_, &mode_) != FALSE &&
                    SetConsoleMode(console_, mode_ & ~DWORD{ENABLE_ECHO_INPUT}) != FALSE;
    }
    ~HiddenInput() {
        if (isHidden_) {
            SetConsoleMode(console_, mode_);
        }
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

  private:
    HANDLE console_;
    DWORD mode_ = 0;
    bool isHidden_ = false;
};

}  // namespace

void useConsoleStreams() {
    replace<ConsoleInput>(std::cin, STD_INPUT_HANDLE);
    replace<ConsoleOutput>(std::cout, STD_OUTPUT_HANDLE);
    replace<ConsoleOutput>(std::cerr, STD_ERROR_HANDLE);
}

bool isInputTyped() {
    return isConsole(GetStdHandle(STD_INPUT_HANDLE));
}

bool readHiddenLine(std::string& line) {
    const HiddenInput hidden;
    if (!std::getline(std::cin, line)) {
        return false;
    }
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (isInputTyped()) {
        std::cerr << std::endl;  // the one that was typed was hidden, too
    }
    return true;
}

}  // namespace tez::tools
