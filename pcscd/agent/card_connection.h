#pragma once

#include <winscard.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "agent/feature_codes.h"
#include "agent/service_context.h"
#include "core/card_service.h"

namespace tez::agent {

/// How long to wait before another try, as the service tells nobody that a transaction has ended.
inline constexpr std::chrono::milliseconds kTurnRetry{5};

/// One connection to a card, with a context of the service of its own, so that no call on another
/// card waits for this one's. Thread-safe; all results are those of the Windows interface.
///
/// While another program holds the card in a transaction, calls wait for its end; refuseCalls()
/// ends these waits.
class CardConnection {
  public:
    CardConnection(std::string serviceName, std::string servedName, pcscd::Context owner)
        : serviceName_(std::move(serviceName)), name_(std::move(servedName)), owner_(owner) {}
    CardConnection(const CardConnection&) = delete;
    CardConnection& operator=(const CardConnection&) = delete;
    /// Closes, and resets the card, for which it can wait.
    ~CardConnection();

    const std::string& reader() const { return name_; }
    pcscd::Context owner() const { return owner_; }

    /// To be called once, before all others. result::kNoMemory when the service gives no context.
    pcscd::Result open(std::uint32_t shareMode, std::uint32_t protocols, std::uint32_t& active);
    /// Serves no call any more, and keeps no transaction that a call in progress begins.
    void refuseCalls() { closing_ = true; }
    /// Ends a connection that refuses calls, unless that is to be tried again: while the card is
    /// busy with a command and, where something is to be done to it, while another program's
    /// transaction goes on. @return whether the connection has ended.
    [[nodiscard]] bool tryClose(std::uint32_t disposition);

    pcscd::Result reconnect(std::uint32_t shareMode, std::uint32_t protocols,
                            std::uint32_t initialization, std::uint32_t& active);
    pcscd::Result beginTransaction();
    pcscd::Result endTransaction(std::uint32_t disposition);
    /// result::kSharingViolation while another program's transaction goes on.
    pcscd::Result status(pcscd::CardStatus& status);
    pcscd::Result transmit(std::uint32_t protocol, std::span<const std::uint8_t> command,
                           std::size_t capacity, pcscd::Bytes& response);
    pcscd::Result control(std::uint32_t function, std::span<const std::uint8_t> input,
                          std::size_t capacity, pcscd::Bytes& output);
    pcscd::Result getAttribute(std::uint32_t id, pcscd::Bytes& value);
    pcscd::Result setAttribute(std::uint32_t id, std::span<const std::uint8_t> value);
    std::uint32_t transmits() const { return transmits_; }
    std::uint32_t protocol() const { return protocol_; }

  private:
    template <typename Call>
    pcscd::Result inTurn(Call call);
    bool isKeptOut() const;
    pcscd::Bytes requestFeatures() const;

    const std::string serviceName_;
    const std::string name_;
    const pcscd::Context owner_;
    std::atomic<bool> closing_ = false;
    std::atomic<std::uint32_t> transmits_ = 0;
    std::atomic<std::uint32_t> protocol_ = 0;

    std::mutex mutex_;  // guards what follows, and is held during a call of the service
    std::optional<ServiceContext> context_;
    SCARDHANDLE card_ = 0;
    FeatureCodes features_;
};

}  // namespace tez::agent
