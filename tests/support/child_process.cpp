#include "child_process.h"

#include <stdexcept>

#include "program_directory.h"

namespace tez::test {
namespace {

struct Pipe {
    UniqueHandle read;
    UniqueHandle write;
};

/// A pipe whose ends the child inherits, but for the one that stays here.
Pipe makePipe(UniqueHandle Pipe::*staysHere) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (CreatePipe(&read, &write, &inherited, 0) == FALSE) {
        throw std::runtime_error("no pipe for a child process");
    }
    Pipe pipe{UniqueHandle(read), UniqueHandle(write)};
    SetHandleInformation((pipe.*staysHere).get(), HANDLE_FLAG_INHERIT, 0);
    return pipe;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::string& argument) {
    Pipe input = makePipe(&Pipe::write);
    Pipe output = makePipe(&Pipe::read);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input.read.get();
    startup.hStdOutput = output.write.get();
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION started = {};
    const std::string path = programDirectory() + "\\" + program;
    std::string commandLine = "\"" + path + "\" " + argument;
    if (CreateProcessA(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                       nullptr, &startup, &started) == FALSE) {
        throw std::runtime_error("cannot start " + path);
    }
    CloseHandle(started.hThread);
    process_ = UniqueHandle(started.hProcess);
    input_ = std::move(input.write);
    output_ = std::move(output.read);
}

ChildProcess::~ChildProcess() {
    kill();
}

void ChildProcess::kill() {
    if (isRunning()) {
        TerminateProcess(process_.get(), 1);
        WaitForSingleObject(process_.get(), INFINITE);
    }
}

std::optional<std::string> ChildProcess::readLine() {
    std::size_t end = unread_.find('\n');
    while (end == std::string::npos) {
        char block[4096];
        DWORD count = 0;
        if (ReadFile(output_.get(), block, sizeof block, &count, nullptr) == FALSE || count == 0) {
            return std::nullopt;
        }
        const std::size_t searched = unread_.size();
        unread_.append(block, count);
        end = unread_.find('\n', searched);
    }
    std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    return line;
}

std::string ChildProcess::readRest() {
    std::string rest;
    while (const std::optional<std::string> line = readLine()) {
        rest.append(*line).append("\n");
    }
    return rest;
}

void ChildProcess::closeOutput() {
    output_ = UniqueHandle();
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + "\n";
    DWORD count = 0;
    if (WriteFile(input_.get(), text.data(), static_cast<DWORD>(text.size()), &count, nullptr) ==
        FALSE) {
        throw std::runtime_error("the child process does not listen");
    }
}

bool ChildProcess::isRunning() const {
    return WaitForSingleObject(process_.get(), 0) == WAIT_TIMEOUT;
}

std::optional<DWORD> ChildProcess::waitForEnd(std::chrono::milliseconds timeout) const {
    DWORD code = 0;
    if (WaitForSingleObject(process_.get(), static_cast<DWORD>(timeout.count())) != WAIT_OBJECT_0 ||
        GetExitCodeProcess(process_.get(), &code) == FALSE) {
        return std::nullopt;
    }
    return code;
}

}  // namespace tez::test
