#include "handle_spy.h"

#include "system_test.h"

namespace tez::test {

HandleSpy::HandleSpy()
    : createEvent_(libraryModule(), "KERNEL32.dll", "CreateEventA",
                   [this](LPSECURITY_ATTRIBUTES security, BOOL isManual, BOOL isSet, LPCSTR name) {
                       return noteOpened(::CreateEventA(security, isManual, isSet, name));
                   }),
      createFile_(libraryModule(), "KERNEL32.dll", "CreateFileA",
                  [this](LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                         DWORD creation, DWORD flags, HANDLE file) {
                      // By way of what watches the pipes already.
                      return noteOpened(createFile_.original()(name, access, share, security,
                                                               creation, flags, file));
                  }),
      beginThread_(libraryModule(), "msvcrt.dll", "_beginthreadex",
                   [this](void* security, unsigned stack, unsigned (*start)(void*), void* argument,
                          unsigned flags, unsigned* id) {
                       const std::uintptr_t thread =
                           beginThread_.original()(security, stack, start, argument, flags, id);
                       // NOLINTNEXTLINE(performance-no-int-to-ptr): the runtime's kind of a handle
                       noteOpened(reinterpret_cast<HANDLE>(thread));
                       return thread;
                   }),
      closeHandle_(libraryModule(), "KERNEL32.dll", "CloseHandle", [this](HANDLE handle) {
          noteClosed(handle);
          return ::CloseHandle(handle);
      }) {}

std::size_t HandleSpy::outstanding() const {
    const std::scoped_lock lock(mutex_);
    return open_.size();
}

bool HandleSpy::wasClosed(HANDLE handle) const {
    const std::scoped_lock lock(mutex_);
    return closed_.contains(handle);
}

HANDLE HandleSpy::noteOpened(HANDLE handle) {
    if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        const std::scoped_lock lock(mutex_);
        open_.insert(handle);
        closed_.erase(handle);
        SetLastError(error);
    }
    return handle;
}

void HandleSpy::noteClosed(HANDLE handle) {
    const std::scoped_lock lock(mutex_);
    open_.erase(handle);
    closed_.insert(handle);
}

}  // namespace tez::test
