#include "readers/standard_wait.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/deadline.h"
#include "context/context_registry.h"
#include "readers/asked_side.h"
#include "readers/known_readers.h"
#include "readers/reader_list.h"
#include "state/reader_names.h"

namespace tez {

namespace {

constexpr DWORD kShortestPause = 20;   // milliseconds
constexpr DWORD kLongestPause = 1280;  // milliseconds
/// A side may find that a time-out is over before this library's clock does.
constexpr DWORD kClockTick = 20;  // milliseconds
/// How often in a row a side may refuse a reader that it has listed.
constexpr int kMostRefusals = 2;

bool isIgnored(const SCARD_READERSTATEA& entry) {
    return (entry.dwCurrentState & SCARD_STATE_IGNORE) != 0;
}

bool isCounted(const SCARD_READERSTATEA& entry) {
    return !isIgnored(entry) && isPnpReader(entry.szReader);
}

/// A call as a loop of rounds: the entries are sorted by the side that has their readers, and the
/// sides are waited for until one has a change, the time is over or the call is cancelled. Whatever
/// else ends a wait, the daemon's coming and going above all, begins another round.
class StandardWait {
  public:
    explicit StandardWait(const StatusChange& call)
        : call_(call),
          entries_(call.entries, call.count),
          deadline_(call.timeout),
          state_(call.state),
          places_(call.count) {
        hasPseudoReader_ = std::any_of(entries_.begin(), entries_.end(), isCounted);
        if (hasPseudoReader_) {
            known_.emplace(call.context);
            if (const auto& counts = known_->counts()) {
                local_.count = counts->local;
                remote_.count = counts->remote;
            }
        }
    }

    LONG run() {
        if (call_.timeout != 0) {
            // For the first questions, too, which are asked without waiting: a daemon that leaves
            // one unanswered must not keep the wait from hearing that it is to end.
            call_.wait.openWake();
        }
        for (;; isFirstRound_ = false) {
            if (const std::optional<LONG> rv = round()) {
                report();
                return *rv;
            }
            if (orders().isInterrupted) {
                call_.wait.resume();
                pause_ = kShortestPause;
                local_.failure = remote_.failure = std::nullopt;
            }
            state_ = getServiceState();  // an undisturbed wait is not told of a new one
        }
    }

  private:
    WaitOrders orders() const { return call_.wait.orders(); }
    bool has(Place place) const {
        return std::find(places_.begin(), places_.end(), place) != places_.end();
    }

    /// The result of the call, or nothing when there is to be another round.
    std::optional<LONG> round() {
        isDaemonLost_ = isRefused_ = false;
        local_.isThere = state_ != ServiceState::RemoteOnly && !local_.failure &&
                         getLocalContext(call_.context) != 0;
        remote_.isThere = state_ != ServiceState::LocalOnly && !remote_.failure;
        if (hasPseudoReader_) {
            learnCounts();
        }
        sort();
        if (!hasPseudoReader_ && has(Place::Awaited)) {
            // Whoever comes behind the list changes a count.
            learnCounts();
            sort();
        }
        const bool areCountsAsked = hasPseudoReader_ || has(Place::Awaited);
        call_.wait.setUndisturbed(has(Place::Local) && !areCountsAsked && !has(Place::Remote) &&
                                  !has(Place::Unclear));
        const Question question = areCountsAsked ? Question::CountAndReaders : Question::Readers;
        const bool isToTell = has(Place::Gone) || hasNewCount();
        const ULONGLONG begin = GetTickCount64();
        ask(isToTell || isDaemonLost_ ? 0 : deadline_.remaining(), question, local_.isThere,
            remote_.isThere);
        const bool isAnyoneLeft = isDaemonLost_ || local_.goesOn() || remote_.goesOn();
        if (GetTickCount64() - begin >= kLongestPause) {
            pause_ = kShortestPause;
            refusals_ = 0;
        }
        if (isRefused_) {
            return std::nullopt;
        }
        std::optional<LONG> rv = outcome(question, isAnyoneLeft);
        if (!rv && !orders().isInterrupted) {
            rest(question);
            rv = outcome(question, isAnyoneLeft);
        }
        return rv;
    }

    /// Waits a little for what has nothing to tell now, on the host's readers if it is the daemon.
    void rest(Question question) {
        const DWORD pause = std::min(std::exchange(pause_, std::min(pause_ * 2, kLongestPause)),
                                     deadline_.remaining());
        const Deadline end(pause);
        ask(pause, question, isDaemonLost_ && local_.isThere, false);
        if (!hasNews()) {
            sleep(end.remaining());
        }
    }

    std::optional<LONG> outcome(Question question, bool isAnyoneLeft) {
        if (orders().isReleased) {
            return SCARD_E_CANCELLED;  // what the sides say of a context that is gone is no news
        }
        if (hasNews()) {
            // No entry is to come back without its state because the other side was faster, or the
            // daemon came or went.
            call_.wait.resume();
            if (local_.isCutShort() || remote_.isCutShort()) {
                ask(0, question, local_.isCutShort(), remote_.isCutShort());
            }
            return SCARD_S_SUCCESS;
        }
        if (orders().isCancelled) {
            return SCARD_E_CANCELLED;
        }
        if ((local_.failure || remote_.failure) && !isAnyoneLeft) {
            return local_.failure ? *local_.failure : *remote_.failure;
        }
        if (deadline_.remaining() <= (hasTimedOut_ && !orders().isInterrupted ? kClockTick : 0)) {
            return SCARD_E_TIMEOUT;
        }
        return std::nullopt;
    }

    bool areCountsKnown() const { return local_.count && remote_.count; }
    /// Of known ones.
    ReaderCounts counts() const { return {local_.count.value_or(0), remote_.count.value_or(0)}; }

    /// Asks the sides that are there how many readers they have, as far as that is not known by
    /// what the application was told last or by an earlier round. A known count of 0 is asked for
    /// all the same, as some hosts take it for none when they are told it.
    void learnCounts() {
        const auto isToBeAsked = [](AskedSide& side) {
            if (!side.isThere) {
                side.count = 0;
            }
            return side.isThere && side.count.value_or(0) == 0;
        };
        const bool isLocalAsked = isToBeAsked(local_);
        const bool isRemoteAsked = isToBeAsked(remote_);
        if (isLocalAsked || isRemoteAsked) {
            ask(0, Question::Count, isLocalAsked, isRemoteAsked);
        }
    }

    /// Finds the place of each entry, and whether the names are those that the application was
    /// told.
    void sort() {
        std::vector<std::string_view> names;
        for (const SCARD_READERSTATEA& entry : entries_) {
            names.emplace_back(entry.szReader);
        }
        const bool isByNames = hasPseudoReader_ && known_->areNamesToBeCompared();
        std::vector<ReaderSide> sides = findReaderSides(names);
        bool isListLost = false;
        if (isByNames || !isFirstRound_ || isListToBeRenewed(sides)) {
            const ListedReaders listed = listBothSides(call_.log, state_, call_.context, {});
            isListLost = listed.isDaemonLost;
            for (std::size_t i = 0; i < names.size(); ++i) {
                sides[i] = listed.sideOf(names[i]);
            }
            if (isByNames && !isListLost && areCountsKnown()) {
                compareNames(listed);
            }
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            places_[i] = placeOf(entries_[i], sides[i], isListLost);
        }
        isDaemonLost_ = isDaemonLost_ || has(Place::Unclear) || (isByNames && isListLost);
    }

    /// Whether what is known of the readers does not do for the entries.
    bool isListToBeRenewed(const std::vector<ReaderSide>& sides) const {
        for (std::size_t i = 0; i < sides.size(); ++i) {
            const SCARD_READERSTATEA& entry = entries_[i];
            if (isIgnored(entry) || isPnpReader(entry.szReader)) {
                continue;
            }
            const bool isThere = sides[i] == ReaderSide::Local    ? local_.isThere
                                 : sides[i] == ReaderSide::Remote ? remote_.isThere
                                                                  : false;
            if (!wasListReadersCalled() || !isThere ||
                (entry.dwCurrentState & SCARD_STATE_UNKNOWN) != 0) {
                return true;
            }
        }
        return false;
    }

    static Place placeOf(const SCARD_READERSTATEA& entry, ReaderSide side, bool isDaemonLost) {
        if (isIgnored(entry)) {
            return Place::Ignored;
        }
        if (isPnpReader(entry.szReader)) {
            return Place::Counted;
        }
        if (side != ReaderSide::Neither) {
            return side == ReaderSide::Local ? Place::Local : Place::Remote;
        }
        if (isDaemonLost) {
            return Place::Unclear;
        }
        return (entry.dwCurrentState & SCARD_STATE_UNKNOWN) != 0 ? Place::Awaited : Place::Gone;
    }

    void compareNames(const ListedReaders& listed) {
        known_->compareNames(
            known_->groups().empty()
                ? listed.names()
                : listBothSides(call_.log, state_, call_.context, known_->groups()).names(),
            counts());
    }

    bool isNews(const SCARD_READERSTATEA& entry) const {
        return known_->isNews(entry.dwCurrentState, counts().sum());
    }

    /// Whether the pseudo-reader ends the call. It is the first that an application hears of its
    /// readers, if there was nothing before.
    bool hasNewCount() const {
        return hasPseudoReader_ && areCountsKnown() &&
               std::any_of(entries_.begin(), entries_.end(), [this](const auto& entry) {
                   return isCounted(entry) &&
                          (known_->isFirst(entry.dwCurrentState) || isNews(entry));
               });
    }

    /// Whether there is something to tell.
    bool hasNews() const {
        return has(Place::Gone) || local_.hasChange() || remote_.hasChange() || hasNewCount();
    }

    /// Asks the sides, and waits for them or for whoever ends the wait otherwise.
    void ask(DWORD timeout, Question question, bool isLocalAsked, bool isRemoteAsked) {
        StatusChange part = call_;
        part.state = state_;
        part.timeout = timeout;
        const auto halves = std::make_unique<WaitHalves>(part);
        put(local_, question, isLocalAsked, halves->localEntries);
        put(remote_, question, isRemoteAsked, halves->remoteEntries);
        hasTimedOut_ = false;
        if (!local_.isAsked() && !remote_.isAsked()) {
            sleep(timeout);
            return;
        }
        call_.wait.forgetHalves();
        const auto [localRv, remoteRv] =
            halves->run(remote_.isAsked() && timeout != 0, remote_.isAsked());
        isDaemonLost_ = isDaemonLost_ || (remote_.isAsked() && halves->owner.isRemoteLost());
        take(local_, question, timeout, localRv);
        if (!halves->owner.isRemoteLost()) {
            take(remote_, question, timeout, remoteRv);
        }
    }

    void put(AskedSide& side, Question question, bool isAsked, SideEntries& toAsk) const {
        if (isAsked) {
            side.ask(entries_, places_, question, toAsk);
        } else {
            side.leaveOut();
        }
    }

    /// Takes note of how a side's half has ended.
    void take(AskedSide& side, Question question, DWORD timeout, LONG rv) {
        if (!side.isAsked()) {
            return;
        }
        if (rv == SCARD_E_UNKNOWN_READER && question != Question::Count &&
            refusals_ < kMostRefusals) {
            ++refusals_;
            isRefused_ = true;
            return;
        }
        side.take(rv, rv == SCARD_E_CANCELLED || (rv == SCARD_E_TIMEOUT && orders().isInterrupted));
        hasTimedOut_ = hasTimedOut_ || (timeout != 0 && rv == SCARD_E_TIMEOUT);
    }

    /// Lets the time pass until the wait is told something.
    void sleep(DWORD timeout) const {
        call_.wait.openWake();
        const Deadline pause(timeout);
        for (DWORD left = timeout; left != 0 && !orders().isToEnd(); left = pause.remaining()) {
            WaitForSingleObject(call_.wait.wake(), left);
        }
    }

    /// Stores in the application's entries what is known of them, and notes what that tells it.
    void report() {
        for (std::size_t i = 0; i < places_.size(); ++i) {
            SCARD_READERSTATEA& entry = entries_[i];
            switch (places_[i]) {
                case Place::Ignored:
                    setEvent(entry, SCARD_STATE_IGNORE);
                    break;
                case Place::Counted:
                    if (areCountsKnown()) {
                        setEvent(entry,
                                 counts().sum() << 16 | (isNews(entry) ? SCARD_STATE_CHANGED : 0));
                    } else {
                        leaveUntold(entry);
                    }
                    break;
                case Place::Gone:
                    setEvent(entry, SCARD_STATE_UNKNOWN | SCARD_STATE_CHANGED | SCARD_STATE_IGNORE);
                    break;
                case Place::Local:
                    local_.report(i, entry);
                    break;
                case Place::Remote:
                    remote_.report(i, entry);
                    break;
                case Place::Unclear:
                case Place::Awaited:
                    leaveUntold(entry);
                    break;
            }
        }
        if (hasPseudoReader_ && areCountsKnown()) {
            tellReaders(call_.context, {std::nullopt, {}, counts()});
        }
    }

    const StatusChange& call_;
    const std::span<SCARD_READERSTATEA> entries_;
    const Deadline deadline_;
    ServiceState state_;
    std::vector<Place> places_;  ///< of the entries
    AskedSide local_{Place::Local};
    AskedSide remote_{Place::Remote};
    bool hasPseudoReader_ = false;
    std::optional<KnownReaders> known_;  ///< where there is a pseudo-reader

    // Of the round:
    bool isFirstRound_ = true;
    bool isDaemonLost_ = false;  ///< though the monitor has not said that it has gone
    bool isRefused_ = false;     ///< a reader, by its side
    bool hasTimedOut_ = false;

    int refusals_ = 0;
    DWORD pause_ = kShortestPause;
};

}  // namespace

LONG waitAsOneSystem(const StatusChange& call) {
    return std::make_unique<StandardWait>(call)->run();
}

}  // namespace tez
