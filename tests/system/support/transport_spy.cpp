#include "transport_spy.h"

#include "patience.h"

namespace tez::test {
namespace {

constexpr int kHandshakeWrites = 2;  // the token and the options

/// Keeps the calling thread's last error as it is: it is part of a call's result.
class LastErrorKept {
  public:
    LastErrorKept() : error_(GetLastError()) {}
    LastErrorKept(const LastErrorKept&) = delete;
    LastErrorKept& operator=(const LastErrorKept&) = delete;
    ~LastErrorKept() { SetLastError(error_); }

  private:
    DWORD error_;
};

}  // namespace

TransportSpy::TransportSpy(HMODULE library)
    : createFile_(library, "KERNEL32.dll", "CreateFileA",
                  [this](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                         DWORD creation, DWORD flags, HANDLE file) {
                      const HANDLE pipe =
                          ::CreateFileA(name, access, share, security, creation, flags, file);
                      const LastErrorKept error;
                      noteOpen(pipe);
                      return pipe;
                  }),
      writeFile_(
          library, "KERNEL32.dll", "WriteFile",
          [this](HANDLE pipe, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
              noteWrite(pipe);
              return ::WriteFile(pipe, data, size, written, overlapped);
          }),
      readFile_(
          library, "KERNEL32.dll", "ReadFile",
          [this](HANDLE pipe, LPVOID data, DWORD size, LPDWORD read, LPOVERLAPPED overlapped) {
              const BOOL done = ::ReadFile(pipe, data, size, read, overlapped);
              const LastErrorKept error;
              noteRead(pipe, size);
              return done;
          }) {}

void TransportSpy::noteOpen(HANDLE pipe) {
    const std::lock_guard lock(mutex_);
    ++opens_;
    ++opensByThread_[GetCurrentThreadId()];
    writes_[pipe] = 0;
    changed_.notify_all();
}

void TransportSpy::noteWrite(HANDLE pipe) {
    const std::lock_guard lock(mutex_);
    ++writes_[pipe];
}

void TransportSpy::noteRead(HANDLE pipe, DWORD size) {
    const std::lock_guard lock(mutex_);
    if (size == 1 && writes_[pipe] == kHandshakeWrites) {
        ++watches_;
        monitorThread_ = GetCurrentThreadId();
        changed_.notify_all();
    }
}

std::size_t TransportSpy::opens() const {
    const std::lock_guard lock(mutex_);
    return opens_;
}

bool TransportSpy::waitForOpens(std::size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return opens_ >= count; });
}

std::size_t TransportSpy::watches() const {
    const std::lock_guard lock(mutex_);
    return watches_;
}

bool TransportSpy::waitForWatches(std::size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return watches_ >= count; });
}

std::size_t TransportSpy::monitorOpensLocked() const {
    const auto opens = opensByThread_.find(monitorThread_);
    return opens == opensByThread_.end() ? 0 : opens->second;
}

std::size_t TransportSpy::monitorOpens() const {
    const std::lock_guard lock(mutex_);
    return monitorOpensLocked();
}

bool TransportSpy::waitForMonitorOpens(std::size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return monitorOpensLocked() >= count; });
}

}  // namespace tez::test
