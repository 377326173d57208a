#pragma once

#include <windows.h>
#include <winscard.h>

#include <optional>
#include <string>

#include "bytes.h"

namespace tez::client {

struct CardStatus {
    DWORD state = SCARD_UNKNOWN;  ///< SCARD_ABSENT ... SCARD_SPECIFIC
    DWORD protocol = SCARD_PROTOCOL_UNDEFINED;
    Bytes atr;
};

enum class Access : std::uint8_t {
    kShared,     ///< with the card, next to other applications
    kExclusive,  ///< with the card, which no other application can use then
    kDirect,     ///< with the reader, whether it holds a card or not
};

/// A connection to the card in a reader. Every call throws ScardFailure when PC/SC reports an
/// error.
class Card {
  public:
    /// Connects, with T=0 or T=1 as the card prefers.
    Card(SCARDCONTEXT context, std::string reader, Access access = Access::kShared);
    /// Disconnects if that was not done; a result is of no use to anybody then.
    ~Card();
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    const std::string& reader() const { return reader_; }
    DWORD protocol() const { return protocol_; }

    CardStatus status() const;
    /// @return the whole answer, with the status bytes.
    Bytes transmit(ByteView command) const;
    Bytes control(DWORD code, ByteView input) const;
    /// @return nullopt when the reader has no such attribute.
    std::optional<Bytes> attribute(DWORD id) const;
    /// Leaves the card as it is. The object is of no more use, whatever the result is.
    void disconnect();

  private:
    SCARDCONTEXT context_;
    std::string reader_;
    SCARDHANDLE handle_ = 0;
    DWORD protocol_ = SCARD_PROTOCOL_UNDEFINED;
};

}  // namespace tez::client
