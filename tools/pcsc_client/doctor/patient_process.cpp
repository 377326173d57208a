#include "doctor/patient_process.h"

#include <array>

#include "failure.h"
#include "host_library.h"

namespace tez::client {

PatientProcess::PatientProcess(const std::wstring& arguments) {
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE write = nullptr;
    if (CreatePipe(&output_, &write, &inherited, 0) == FALSE) {
        throw Failure("there is no memory for another process");
    }
    SetHandleInformation(output_, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = write;
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    const std::wstring program = modulePath(nullptr);
    std::wstring commandLine = L"\"" + program + L"\" " + arguments;
    PROCESS_INFORMATION started = {};
    const BOOL isStarted = CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr,
                                          TRUE, 0, nullptr, nullptr, &startup, &started);
    CloseHandle(write);
    if (isStarted == FALSE) {
        CloseHandle(output_);
        throw Failure("this program cannot be started once more");
    }
    CloseHandle(started.hThread);
    process_ = started.hProcess;
}

PatientProcess::~PatientProcess() {
    TerminateProcess(process_, 1);  // without effect on one that has ended
    CloseHandle(process_);
    CloseHandle(output_);
}

PatientProcess::Event PatientProcess::readLine(std::string& line,
                                               std::chrono::milliseconds patience) {
    constexpr DWORD kPause = 10;  // an anonymous pipe can only be looked at again and again
    const ULONGLONG end = GetTickCount64() + static_cast<ULONGLONG>(patience.count());
    for (;;) {
        if (const std::size_t length = received_.find('\n'); length != std::string::npos) {
            line = received_.substr(0, length);
            received_.erase(0, length + 1);
            return Event::kLine;
        }
        std::array<char, 4096> part = {};
        DWORD count = 0;
        if (PeekNamedPipe(output_, nullptr, 0, nullptr, &count, nullptr) == FALSE) {
            return Event::kEnd;
        }
        if (count == 0) {
            if (GetTickCount64() >= end) {
                return Event::kSilence;
            }
            Sleep(kPause);
        } else if (ReadFile(output_, part.data(), static_cast<DWORD>(part.size()), &count,
                            nullptr) != FALSE) {
            received_.append(part.data(), count);
        }
    }
}

DWORD PatientProcess::exitCode() const {
    DWORD code = 0;
    WaitForSingleObject(process_, INFINITE);  // it has closed its output and is about to end
    GetExitCodeProcess(process_, &code);
    return code;
}

}  // namespace tez::client
