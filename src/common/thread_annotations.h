#pragma once

// What is guarded by which lock, in words that clang checks (scripts/lint); other compilers know
// nothing of it.
#if defined(__clang__)
#define TEZ_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define TEZ_THREAD_ANNOTATION(attribute)
#endif

/// A type of lock.
#define TEZ_CAPABILITY(name) TEZ_THREAD_ANNOTATION(capability(name))
/// A type that holds a lock for as long as an object of it lives.
#define TEZ_SCOPED_CAPABILITY TEZ_THREAD_ANNOTATION(scoped_lockable)
/// Data that is touched with the lock held only.
#define TEZ_GUARDED_BY(lock) TEZ_THREAD_ANNOTATION(guarded_by(lock))
/// Functions that are called with the lock held, take it, take it if they return true, take it with
/// other readers, give it back.
#define TEZ_REQUIRES(...) TEZ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TEZ_ACQUIRE(...) TEZ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TEZ_TRY_ACQUIRE(...) TEZ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TEZ_ACQUIRE_SHARED(...) TEZ_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define TEZ_RELEASE_SHARED(...) TEZ_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TEZ_RELEASE(...) TEZ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
