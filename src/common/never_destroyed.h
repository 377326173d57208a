#pragma once

#include <atomic>
#include <new>

#include "common/module_reference.h"
#include "common/slim_lock.h"

namespace tez {

/// Holds a process-wide object that its first use makes and that lives until the process ends. To
/// be defined as a constinit variable of static storage:
///
///     constinit NeverDestroyed<Registry> registry;
///
///     void add(Entry entry) { registry->entries.push_back(entry); }
///
/// Any thread may use it, several at once for the first time too. Should T's constructor throw, the
/// next use tries again.
///
/// It is not destroyed because at process detach the other threads have been stopped wherever they
/// were, in the middle of a change or of an allocation too: a destructor that walks such an object
/// could hang or crash. The process is ending, so its memory is left to the platform.
///
/// As the object stays for good, so does the library that holds it: the first use keeps it loaded.
/// And it is no static object that the compiler guards, because the C++ runtime takes a TLS index
/// of the application's process for its first guard.
template <class T>
class NeverDestroyed {
  public:
    constexpr NeverDestroyed() noexcept = default;
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
    ~NeverDestroyed() = default;  // of the storage only

    T& operator*() {
        if (!isMade_.load(std::memory_order_acquire)) {
            make();
        }
        return *std::launder(reinterpret_cast<T*>(storage_));
    }
    T* operator->() { return &**this; }

    /// For process detach, which must not be the one to make it.
    bool isMade() const noexcept { return isMade_; }

  private:
    void make() {
        // Before the lock is taken: the loader has one of its own.
        pinOwnModule();
        const SlimGuard guard(lock_);
        if (!isMade_) {
            ::new (static_cast<void*>(storage_)) T();
            isMade_.store(true, std::memory_order_release);
        }
    }

    SlimLock lock_;
    std::atomic<bool> isMade_ = false;
    alignas(T) unsigned char storage_[sizeof(T)] = {};
};

}  // namespace tez
