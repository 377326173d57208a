#pragma once

#include <windows.h>
#include <winscard.h>

#include <string>
#include <vector>

#include "bytes.h"

namespace tez::client {

/// A result that PC/SC allocates, however long it is. The object frees it:
///
///     AllocatedBuffer names(context);
///     check("SCardListReaders",
///           SCardListReadersA(context, nullptr, names.textDestination(), names.length()));
class AllocatedBuffer {
  public:
    explicit AllocatedBuffer(SCARDCONTEXT context) : context_(context) {}
    ~AllocatedBuffer();
    AllocatedBuffer(const AllocatedBuffer&) = delete;
    AllocatedBuffer& operator=(const AllocatedBuffer&) = delete;

    /// For the parameter that is a buffer, and with SCARD_AUTOALLOCATE the address of one.
    LPSTR textDestination() { return reinterpret_cast<LPSTR>(&data_); }
    LPBYTE byteDestination() { return reinterpret_cast<LPBYTE>(&data_); }
    LPDWORD length() { return &length_; }

    ByteView bytes() const { return {data_, data_ == nullptr ? 0 : length_}; }
    /// Up to the first zero.
    std::string text() const;
    /// The names of a list in which each ends in a zero, and the list in one more.
    std::vector<std::string> names() const;

  private:
    SCARDCONTEXT context_;
    BYTE* data_ = nullptr;
    DWORD length_ = SCARD_AUTOALLOCATE;
};

}  // namespace tez::client
