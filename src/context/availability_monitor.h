#pragma once

namespace tez {

/// Follows the daemon from now on, if that has not begun yet: checks once on the calling thread, so
/// that the first call of the process already knows whether the daemon can be reached, then starts
/// the poll thread, which lives until the process ends. Returns when the thread watches a daemon
/// that was there, or after a second; callers that come meanwhile wait as long. Should the thread
/// fail to start, a warning is logged and the next call tries again.
/// No lock may be held.
void ensurePollThreadStarted();

/// Asks the poll thread to end and takes its end. For process detach only, where the platform has
/// already ended the thread wherever it was, so nothing is waited for.
void stopPollThread();

}  // namespace tez
