#pragma once

#include <winscard.h>

#include <utility>

namespace tez::agent {

/// Owns a context of the PC/SC service. A context serves one call at a time.
class ServiceContext {
  public:
    /// Without a context when the service gives none.
    ServiceContext()
        : given_(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_) ==
                 SCARD_S_SUCCESS) {}
    ~ServiceContext() {
        if (*this) {
            SCardReleaseContext(context_);
        }
    }
    ServiceContext(const ServiceContext&) = delete;
    ServiceContext& operator=(const ServiceContext&) = delete;

    explicit operator bool() const { return given_; }
    SCARDCONTEXT get() const { return context_; }

  private:
    SCARDCONTEXT context_ = 0;
    bool given_;
};

}  // namespace tez::agent
