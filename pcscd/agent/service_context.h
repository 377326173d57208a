#pragma once

#include <winscard.h>

#include <utility>

namespace tez::agent {

/// Owns a context of the PC/SC service. A context serves one call at a time.
class ServiceContext {
  public:
    /// Without a context when the service gives none; see result().
    ServiceContext()
        : result_(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_)) {}
    ~ServiceContext() {
        if (*this) {
            SCardReleaseContext(context_);
        }
    }
    ServiceContext(const ServiceContext&) = delete;
    ServiceContext& operator=(const ServiceContext&) = delete;

    explicit operator bool() const { return result_ == SCARD_S_SUCCESS; }
    LONG result() const { return result_; }
    SCARDCONTEXT get() const { return context_; }

  private:
    SCARDCONTEXT context_ = 0;
    LONG result_;
};

}  // namespace tez::agent
