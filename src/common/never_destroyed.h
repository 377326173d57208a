#pragma once

#include <new>
#include <utility>

namespace tez {

/// Holds a process-wide object that is constructed on first use and lives until the process ends:
///
///     Registry& registry() {
///         static NeverDestroyed<Registry> instance;
///         return *instance;
///     }
///
/// At process detach the other threads have been stopped wherever they were, in the middle of a
/// change or of an allocation too. A destructor that walks such an object could hang or crash; the
/// process is ending, so its memory is left to the platform.
template <class T>
class NeverDestroyed {
  public:
    template <class... Args>
    explicit NeverDestroyed(Args&&... args) {
        ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
    }
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;
    ~NeverDestroyed() = default;  // of the storage only

    T& operator*() { return *std::launder(reinterpret_cast<T*>(storage_)); }

  private:
    alignas(T) unsigned char storage_[sizeof(T)] = {};
};

}  // namespace tez
