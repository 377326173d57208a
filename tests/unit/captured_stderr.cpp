#include "captured_stderr.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <io.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace tez::test {

namespace {

constexpr int kStderr = 2;

int openTemporaryFile() {
    char directory[MAX_PATH];
    char path[MAX_PATH];
    if (GetTempPathA(sizeof(directory), directory) == 0 ||
        GetTempFileNameA(directory, "tez", 0, path) == 0) {
        return -1;
    }
    // Appending, so that reading moves no writer's position.
    return _open(path, _O_RDWR | _O_CREAT | _O_TRUNC | _O_APPEND | _O_TEMPORARY | _O_BINARY,
                 _S_IREAD | _S_IWRITE);
}

}  // namespace

CapturedStderr::CapturedStderr() : saved_(_dup(kStderr)), file_(openTemporaryFile()) {
    std::fflush(stderr);
    if (saved_ < 0 || file_ < 0 || _dup2(file_, kStderr) != 0) {
        throw std::runtime_error("standard error cannot be redirected");
    }
}

CapturedStderr::~CapturedStderr() {
    std::fflush(stderr);
    _dup2(saved_, kStderr);
    _close(saved_);
    _close(file_);
}

std::string CapturedStderr::text() const {
    std::fflush(stderr);
    _lseek(file_, 0, SEEK_SET);
    std::string text;
    char block[4096];
    for (int count = 0; (count = _read(file_, block, sizeof(block))) > 0;) {
        text.append(block, static_cast<std::size_t>(count));
    }
    return text;
}

CapturedLog::CapturedLog() {
    setEnvironment("TEZ_PCSC_LOG_DIR", "");
    setEnvironment("TEZ_PCSC_LOG_LEVEL", "debug");
}

std::vector<std::string> CapturedLog::lines() const {
    std::vector<std::string> lines;
    std::istringstream stream(stderr_.text());
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> CapturedLog::messages() const {
    std::vector<std::string> messages;
    for (const std::string& line : lines()) {
        const std::size_t function = line.find('(');
        messages.push_back(
            function == std::string::npos ? line : line.substr(0, 2) + line.substr(function));
    }
    return messages;
}

void setEnvironment(const char* name, const std::string& value) {
    if (_putenv_s(name, value.c_str()) != 0) {
        throw std::runtime_error("the environment cannot be changed");
    }
}

}  // namespace tez::test
