// What one client sends to the daemon, from the first byte of its handshake on, with the simulated
// service behind the daemon. The client sends each request when the one before it was answered.
#include "core/daemon.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "simulated/simulated_service.h"
#include "support/answer_shape.h"
#include "support/holds.h"
#include "wire/message_header.h"

using namespace tez;
using namespace tez::pcscd;
using fuzz::AnswerShape;
using fuzz::findAnswerShape;
using fuzz::holds;

namespace {

// An answer that takes longer is that of a wait: the client goes instead of waiting for it.
constexpr std::chrono::milliseconds kPatience{5};

constexpr std::size_t kOptionSize = 4;

/// A stretch of the input that an answer has to follow.
struct Sent {
    std::size_t end;            ///< where it ends in the input
    const AnswerShape* answer;  ///< null where none may follow: nobody knows the request
};

/// Takes the input apart as the protocol does: handshake, and requests that are there as a whole.
std::vector<Sent> stretchesOf(std::span<const std::uint8_t> input) {
    constexpr AnswerShape kVersion{0, 2 * sizeof(std::uint32_t), 0};
    static const AnswerShape version = kVersion;
    std::vector<Sent> stretches;
    const auto token = static_cast<std::size_t>(
        std::find(input.begin(), input.end(), std::uint8_t{0}) - input.begin());
    std::size_t at = token + 1 + kOptionSize;
    if (at > input.size()) {
        return stretches;
    }
    stretches.push_back({at, &version});
    while (input.size() - at >= sizeof(MessageHeader)) {
        MessageHeader header{};
        std::memcpy(&header, input.data() + at, sizeof header);
        at += sizeof header;
        if (header.size > input.size() - at) {
            break;
        }
        at += header.size;
        const AnswerShape* const answer = findAnswerShape(header.command);
        stretches.push_back(
            {at, answer != nullptr && answer->recordSize <= header.size ? answer : nullptr});
    }
    return stretches;
}

class Client final : public ByteStream {
  public:
    explicit Client(std::span<const std::uint8_t> input)
        : input_(input), stretches_(stretchesOf(input)) {}

    std::size_t read(std::span<std::uint8_t> buffer) override {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kPatience, [this] { return closed_ || answered_ == sent_; });
        if (closed_ || answered_ != sent_) {
            return 0;
        }
        const std::size_t count = std::min(buffer.size(), input_.size() - position_);
        std::copy_n(input_.begin() + static_cast<std::ptrdiff_t>(position_), count, buffer.begin());
        position_ += count;
        if (sent_ < stretches_.size()) {
            // Nothing of the next request is read before this one has been looked at.
            holds(position_ <= stretches_[sent_].end);
            sent_ += position_ == stretches_[sent_].end ? 1 : 0;
        }
        return count;
    }

    bool write(std::span<const std::uint8_t> bytes) override {
        const std::scoped_lock lock(mutex_);
        if (closed_) {
            return false;
        }
        holds(answered_ < sent_);
        const AnswerShape* const answer = stretches_[answered_].answer;
        holds(answer != nullptr);
        if (announced_ != 0) {
            holds(bytes.size() == announced_);
            announced_ = 0;
        } else {
            holds(bytes.size() == answer->recordSize);
            announced_ = answer->dataSize(bytes);
        }
        answered_ += announced_ == 0 ? 1 : 0;
        changed_.notify_all();
        return true;
    }

    void close() override {
        const std::scoped_lock lock(mutex_);
        closed_ = true;
        changed_.notify_all();
    }

    bool isClosed() const {
        const std::scoped_lock lock(mutex_);
        return closed_;
    }

  private:
    const std::span<const std::uint8_t> input_;
    const std::vector<Sent> stretches_;
    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::size_t position_ = 0;
    std::size_t sent_ = 0;         // stretches that have been read
    std::size_t answered_ = 0;     // and those that have been answered
    std::uint64_t announced_ = 0;  // data of the answer that is being written
    bool closed_ = false;
};

/// Does not wait for another connection of a program whose last one has ended: there is none.
class HastyDaemon final : public Daemon {
  public:
    using Daemon::Daemon;

  protected:
    void closed(std::uint64_t /*connection*/) override { releaseAll(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Handles that the stored inputs know.
    SimulatedService service({0x10, 0x20});
    service.addReader("Reader A");
    service.addReader("Reader B");
    service.insertCard("Reader A", makeDemoCard("Holder", protocol::kT0 | protocol::kT1));
    HastyDaemon daemon(service);
    Client client(std::span(data, size));
    daemon.serve(client, 1, 1);
    holds(client.isClosed());
    holds(service.contextCount() == 0 && service.cardCount() == 0);
    return 0;
}
