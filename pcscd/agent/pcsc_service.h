#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/card_connection.h"
#include "agent/reader_choice.h"
#include "agent/reader_monitor.h"
#include "core/card_service.h"
#include "core/handle_numbers.h"
#include "core/status_change.h"

namespace tez::agent {

/// The readers of this machine's PC/SC service, or those of them that are chosen.
///
/// Contexts are this class's own and outlive the service, which may end and come back; while it is
/// gone there are no readers. All status changes are served from what one monitor knows, each card
/// connection has a context of the service to itself.
class PcscService final : public pcscd::CardService {
  public:
    /// Returns when the service's readers are known, or that there is no service.
    explicit PcscService(ReaderChoice choice);
    ~PcscService() override;
    PcscService(const PcscService&) = delete;
    PcscService& operator=(const PcscService&) = delete;

    /// result::kNoMemory beyond 10,000 contexts.
    pcscd::Result establishContext(std::uint32_t scope, pcscd::Context& context) override;
    pcscd::Result closeContexts(const pcscd::Contexts& contexts,
                                std::uint32_t disposition) override;
    pcscd::Result isValidContext(pcscd::Context context) const override;
    void releaseAll() override;
    pcscd::Result listReaders(pcscd::Context context,
                              std::vector<std::string>& names) const override;
    /// Waits, as the service does, while another program holds the card in a transaction; only the
    /// transaction's end ends that. result::kNoMemory beyond 128 connections.
    pcscd::Result connect(pcscd::Context context, const std::string& reader,
                          std::uint32_t shareMode, std::uint32_t preferredProtocols,
                          pcscd::Card& card, std::uint32_t& activeProtocol) override;
    pcscd::Result reconnect(pcscd::Card card, std::uint32_t shareMode,
                            std::uint32_t preferredProtocols, std::uint32_t initialization,
                            std::uint32_t& activeProtocol) override;
    pcscd::Result disconnect(pcscd::Card card, std::uint32_t disposition) override;
    pcscd::Result beginTransaction(pcscd::Card card) override;
    pcscd::Result endTransaction(pcscd::Card card, std::uint32_t disposition) override;
    pcscd::Result status(pcscd::Card card, pcscd::CardStatus& status) override;
    pcscd::Result transmit(pcscd::Card card, std::uint32_t protocol,
                           std::span<const std::uint8_t> command, std::size_t capacity,
                           pcscd::Bytes& response) override;
    pcscd::Result control(pcscd::Card card, std::uint32_t function,
                          std::span<const std::uint8_t> input, std::size_t capacity,
                          pcscd::Bytes& output) override;
    /// The reader's names are those under which it is served.
    pcscd::Result getAttribute(pcscd::Card card, std::uint32_t id, pcscd::Bytes& value) override;
    pcscd::Result setAttribute(pcscd::Card card, std::uint32_t id,
                               std::span<const std::uint8_t> value) override;
    pcscd::Result transmitCount(pcscd::Card card, std::uint32_t& count) const override;
    pcscd::Result getStatusChange(pcscd::Context context, std::uint32_t timeout,
                                  std::span<pcscd::ReaderState> states) override;
    pcscd::Result cancel(pcscd::Context context) override;

  private:
    struct ServedReader {
        std::string name;
        std::string serviceName;
        pcscd::ObservedReader observed;
    };
    class Observed;
    using ConnectionPointer = std::shared_ptr<CardConnection>;

    void publish(std::vector<MonitoredReader> readers);
    ConnectionPointer find(pcscd::Card card) const;
    /// Calls with the card's connection; result::kInvalidHandle when there is none.
    pcscd::Result with(pcscd::Card card,
                       const std::function<pcscd::Result(CardConnection&)>& call) const;
    const ServedReader* findReader(const std::string& name) const;
    std::vector<ConnectionPointer> takeOut(const pcscd::Contexts& contexts);

    const ReaderChoice choice_;
    mutable std::mutex mutex_;  // guards what follows, but for the monitor
    std::condition_variable changed_;
    std::vector<ServedReader> readers_;
    std::vector<std::string> leftOut_;  // chosen readers that cannot be served
    std::map<pcscd::Context, std::shared_ptr<pcscd::WaitEnds>> contexts_;
    std::map<pcscd::Card, ConnectionPointer> cards_;
    std::size_t opening_ = 0;  // connections on their way into cards_
    pcscd::HandleNumbers contextNumbers_;
    pcscd::HandleNumbers cardNumbers_;
    ReaderMonitor monitor_;  // the last: it publishes to all that
};

}  // namespace tez::agent
