#pragma once

#include <functional>

namespace tez::test {

/// Runs a task on a thread of its own that nobody waits for. The task must not throw. Throws
/// std::runtime_error when no thread can be had.
///
/// What std::thread::detach is for. With this toolchain a thread that comes to its end while it is
/// detached gives its place among the threads away before it has left it, and the thread that gets
/// the place next can end without having run.
void runDetached(std::function<void()> task);

}  // namespace tez::test
