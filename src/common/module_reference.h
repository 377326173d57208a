#pragma once

#include <windows.h>

namespace tez {

/// The module that holds this code, without a reference on it; null only if the platform refuses.
HMODULE ownModule() noexcept;

/// Keeps that module loaded until the process ends. To be called before anything is made that stays
/// until then, with no lock held unless that has been done before: the loader has a lock of its
/// own, which it is asked for once.
/// - a process-wide object or the log's file, of which an application that loads and unloads the
///   library again and again would lose one each time, until its process has no more;
/// - a thread: FreeLibrary under a running one would either unmap the code that it runs or
///   deadlock, as DllMain cannot join a thread that needs the loader lock to end.
/// Returns false when the platform refuses, which it has no documented reason to do.
bool pinOwnModule() noexcept;

}  // namespace tez
