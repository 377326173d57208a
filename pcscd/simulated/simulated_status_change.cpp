#include "core/status_change.h"
#include "simulated/simulated_service.h"
#include "simulated/simulated_service_state.h"

namespace tez::pcscd {

/// The readers of the service, as waits see them.
class SimulatedService::Observed final : public ObservedReaders {
  public:
    explicit Observed(const SimulatedService& service) : service_(service) {}

    std::size_t count() const override { return service_.readers_.size(); }

    std::optional<ObservedReader> find(const std::string& name) const override {
        const ReaderPointer reader = service_.findReader(name);
        if (reader == nullptr) {
            return std::nullopt;
        }
        ObservedReader observed{state::kEmpty, reader->events};
        if (reader->card) {
            observed.bits = state::kPresent;
            observed.atr = reader->card->atr();
        }
        for (const auto& [card, connection] : service_.connections_) {
            if (connection->reader != reader || !connection->holdsCard()) {
                continue;
            }
            observed.bits |= state::kInUse;
            if (connection->shareMode != share::kShared) {
                observed.bits |= state::kExclusive;
            }
        }
        return observed;
    }

  private:
    const SimulatedService& service_;
};

Result SimulatedService::getStatusChange(Context context, std::uint32_t timeout,
                                         std::span<ReaderState> states) {
    Lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return result::kInvalidHandle;
    }
    const std::shared_ptr<WaitEnds> ends = found->second;
    const Observed observed(*this);
    if (states.empty() || refresh(states, observed)) {
        return result::kSuccess;
    }
    const Blocked blocked(statusWaits_, changed_);
    return awaitChange(lock, changed_, *ends, timeout, states, observed);
}

Result SimulatedService::cancel(Context context) {
    const Lock lock(mutex_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return result::kInvalidHandle;
    }
    ++found->second->cancels;
    changed_.notify_all();
    return result::kSuccess;
}

}  // namespace tez::pcscd
