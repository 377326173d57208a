#include "daemon_probe.h"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace tez::client {
namespace {

constexpr const wchar_t* kPipeName = LR"(\\.\pipe\tez-pcscd-0)";
constexpr std::uint32_t kListReaders = 3;
/// Bytes of names: what the library takes with standard answers, which is more than without.
constexpr std::uint32_t kLongestList = 64 * 1024;

struct Closer {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, Closer>;

class ProbeFailure : public std::exception {
  public:
    explicit ProbeFailure(DaemonState state, DWORD error = ERROR_SUCCESS)
        : state_(state), error_(error) {}

    DaemonState state() const { return state_; }
    DWORD error() const { return error_; }

  private:
    DaemonState state_;
    DWORD error_;
};

class PatientPipe {
  public:
    explicit PatientPipe(std::chrono::milliseconds patience)
        : end_(GetTickCount64() + static_cast<ULONGLONG>(patience.count())),
          event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          pipe_(open()) {}

    void write(const void* data, DWORD size) {
        transfer(size, [&](OVERLAPPED* overlapped) {
            return WriteFile(pipe_.get(), data, size, nullptr, overlapped);
        });
    }

    /// In byte mode a record may arrive in pieces.
    void read(void* data, DWORD size) {
        for (DWORD done = 0; done < size;) {
            done += transfer(size - done, [&](OVERLAPPED* overlapped) {
                return ReadFile(pipe_.get(), static_cast<char*>(data) + done, size - done, nullptr,
                                overlapped);
            });
        }
    }

  private:
    DWORD remaining() const {
        const ULONGLONG now = GetTickCount64();
        return now >= end_ ? 0 : static_cast<DWORD>(end_ - now);
    }

    Handle open() const {
        for (;;) {
            const HANDLE pipe = CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
            if (pipe != INVALID_HANDLE_VALUE) {
                return Handle(pipe);
            }
            const DWORD error = GetLastError();
            switch (error) {
                case ERROR_PIPE_BUSY:
                    break;
                case ERROR_FILE_NOT_FOUND:
                    throw ProbeFailure(DaemonState::kAbsent, error);
                case ERROR_ACCESS_DENIED:
                    throw ProbeFailure(DaemonState::kDenied, error);
                default:
                    throw ProbeFailure(DaemonState::kFailed, error);
            }
            const DWORD patience = remaining();
            if (patience == 0 || WaitNamedPipeW(kPipeName, patience) == FALSE) {
                throw ProbeFailure(DaemonState::kBusy, error);
            }
        }
    }

    template <class Start>
    DWORD transfer(DWORD size, Start start) {
        OVERLAPPED overlapped = {};
        overlapped.hEvent = event_.get();
        if (start(&overlapped) == FALSE && GetLastError() != ERROR_IO_PENDING) {
            throw ProbeFailure(DaemonState::kBroken);
        }
        const bool isInTime = WaitForSingleObject(event_.get(), remaining()) == WAIT_OBJECT_0;
        if (!isInTime) {
            CancelIoEx(pipe_.get(), &overlapped);
        }
        // Returns in both cases; the transfer may have been faster than its cancellation.
        DWORD count = 0;
        if (GetOverlappedResult(pipe_.get(), &overlapped, &count, TRUE) == FALSE || count == 0 ||
            count > size) {
            throw ProbeFailure(isInTime ? DaemonState::kBroken : DaemonState::kSilent);
        }
        return count;
    }

    ULONGLONG end_;
    Handle event_;
    Handle pipe_;
};

void shakeHands(PatientPipe& pipe, DaemonProbe& probe) {
    // No token but its NUL, and no wish about the cache.
    constexpr char kToken = '\0';
    constexpr std::int32_t kCacheUnset = -1;
    pipe.write(&kToken, sizeof kToken);
    pipe.write(&kCacheUnset, sizeof kCacheUnset);
    std::uint32_t version[2] = {};
    pipe.read(version, sizeof version);
    probe.major = version[0];
    probe.minor = version[1];
    probe.hasVersion = true;
}

/// Under the context 0, with which a daemon lists its readers, too.
void listReaders(PatientPipe& pipe, DaemonProbe& probe) {
    struct Record {
        std::uint64_t context;
        std::uint32_t length;
        std::uint32_t result;
    } record = {};
    const std::uint32_t header[] = {sizeof record, kListReaders, 0};
    pipe.write(header, sizeof header);
    pipe.write(&record, sizeof record);
    pipe.read(&record, sizeof record);
    if (record.result != 0 || record.length == 0) {
        return;
    }
    if (record.length > kLongestList) {
        throw ProbeFailure(DaemonState::kBroken);
    }
    std::string names(record.length, '\0');
    pipe.read(names.data(), record.length);
    probe.listSize = names.size();
    for (const char* name = names.c_str(); name < names.data() + names.size() && *name != '\0';
         name += probe.readers.back().size() + 1) {
        probe.readers.emplace_back(name);
    }
}

}  // namespace

DaemonProbe probeDaemon(std::chrono::milliseconds patience) {
    DaemonProbe probe;
    try {
        PatientPipe pipe(patience);
        shakeHands(pipe, probe);
        listReaders(pipe, probe);
        probe.state = DaemonState::kServing;
    } catch (const ProbeFailure& failure) {
        probe.state = failure.state();
        probe.error = failure.error();
    }
    return probe;
}

}  // namespace tez::client
