#pragma once

#include "pipe/transfer.h"

namespace tez::pcscd {

/// An instance of a pipe that waits for a client. Its end closes it, whether one has come or not.
class WaitingInstance {
  public:
    /// Takes an instance, opened for overlapped use, over and begins to wait. Throws
    /// std::system_error when it cannot wait.
    explicit WaitingInstance(UniqueHandle instance);
    ~WaitingInstance();
    WaitingInstance(const WaitingInstance&) = delete;
    WaitingInstance& operator=(const WaitingInstance&) = delete;

    /// An event that is set when a client has come, which may have gone again.
    HANDLE connected() const { return connected_.get(); }

    /// Gives the instance up, once a client has come.
    UniqueHandle take();

  private:
    UniqueHandle instance_;
    const UniqueHandle connected_ = makeEvent();
    OVERLAPPED overlapped_ = {};
};

}  // namespace tez::pcscd
