#include "agent/card_connection.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "agent/service_values.h"

namespace tez::agent {

namespace result = pcscd::result;

namespace {

constexpr std::size_t kLongestAttribute = MAX_BUFFER_SIZE;

/// Where a transaction is not what a call is about, the service has this code for whatever a reader
/// does not do.
pcscd::Result insteadOfNotTransacted(pcscd::Result answer, pcscd::Result meant) {
    return answer == result::kNotTransacted ? meant : answer;
}

SCARD_IO_REQUEST ioRequest(std::uint32_t protocol) {
    return {toServiceProtocols(protocol), sizeof(SCARD_IO_REQUEST)};
}

}  // namespace

CardConnection::~CardConnection() {
    if (context_) {
        SCardDisconnect(card_, SCARD_RESET_CARD);
    }
}

/// Whether another program's transaction goes on. Calls that the service itself lets wait for its
/// end are not to be made then.
bool CardConnection::isKeptOut() const {
    DWORD length = 0;
    DWORD state = 0;
    DWORD protocol = 0;
    DWORD atrLength = 0;
    return SCardStatus(card_, nullptr, &length, &state, &protocol, nullptr, &atrLength) ==
           SCARD_E_SHARING_VIOLATION;
}

/// Makes a call of the service, again and again while another program's transaction keeps it out.
/// The service can wait by itself, but nothing ends that.
template <typename Call>
pcscd::Result CardConnection::inTurn(Call call) {
    for (;;) {
        {
            const std::scoped_lock lock(mutex_);
            if (closing_ || !context_) {
                return result::kInvalidHandle;
            }
            const LONG code = call();
            if (code != SCARD_E_SHARING_VIOLATION) {
                return toCardResult(code);
            }
        }
        std::this_thread::sleep_for(kTurnRetry);
    }
}

pcscd::Result CardConnection::open(std::uint32_t shareMode, std::uint32_t protocols,
                                   std::uint32_t& active) {
    const std::scoped_lock lock(mutex_);
    context_.emplace();
    if (!*context_) {
        // The service, which has the reader, has none left, or has just ended. Its own code for the
        // first changes from call to call, and can be that for the second.
        context_.reset();
        return result::kNoMemory;
    }
    DWORD chosen = SCARD_PROTOCOL_UNDEFINED;
    const LONG code = SCardConnect(context_->get(), serviceName_.c_str(), shareMode,
                                   toServiceProtocols(protocols), &card_, &chosen);
    if (code != SCARD_S_SUCCESS) {
        context_.reset();
        return toCardResult(code);
    }
    active = fromServiceProtocol(chosen);
    protocol_ = active;
    return result::kSuccess;
}

bool CardConnection::tryClose(std::uint32_t disposition) {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || (disposition != pcscd::disposition::kLeave && isKeptOut())) {
        return false;
    }
    SCardDisconnect(card_, disposition);
    context_.reset();
    return true;
}

pcscd::Result CardConnection::reconnect(std::uint32_t shareMode, std::uint32_t protocols,
                                        std::uint32_t initialization, std::uint32_t& active) {
    DWORD chosen = SCARD_PROTOCOL_UNDEFINED;
    LONG last = SCARD_S_SUCCESS;
    const pcscd::Result answer = inTurn([&] {
        // A sharing violation is an answer, too: when no transaction keeps this one out.
        if (isKeptOut()) {
            return LONG{SCARD_E_SHARING_VIOLATION};
        }
        last = SCardReconnect(card_, shareMode, toServiceProtocols(protocols), initialization,
                              &chosen);
        return last == SCARD_E_SHARING_VIOLATION ? LONG{SCARD_S_SUCCESS} : last;
    });
    if (last == SCARD_E_SHARING_VIOLATION) {
        return result::kSharingViolation;
    }
    if (answer == result::kSuccess) {
        active = fromServiceProtocol(chosen);
        protocol_ = active;
    }
    return answer;
}

pcscd::Result CardConnection::beginTransaction() {
    return inTurn([&] {
        // Beginning one while another goes on blocks within the service's library.
        if (isKeptOut()) {
            return LONG{SCARD_E_SHARING_VIOLATION};
        }
        const LONG code = SCardBeginTransaction(card_);
        if (code == SCARD_S_SUCCESS && closing_) {
            // Of the connections that are closed with this one, another may wait for its end.
            SCardEndTransaction(card_, SCARD_LEAVE_CARD);
        }
        return code;
    });
}

pcscd::Result CardConnection::endTransaction(std::uint32_t disposition) {
    const std::scoped_lock lock(mutex_);
    return closing_ || !context_ ? result::kInvalidHandle
                                 : toCardResult(SCardEndTransaction(card_, disposition));
}

pcscd::Result CardConnection::status(pcscd::CardStatus& status) {
    const std::scoped_lock lock(mutex_);
    if (closing_ || !context_) {
        return result::kInvalidHandle;
    }
    char name[MAX_READERNAME];
    DWORD nameLength = sizeof name;
    DWORD state = 0;
    DWORD chosen = 0;
    BYTE atr[MAX_ATR_SIZE];
    DWORD atrLength = sizeof atr;
    const LONG code = SCardStatus(card_, name, &nameLength, &state, &chosen, atr, &atrLength);
    if (code != SCARD_S_SUCCESS) {
        return toCardResult(code);
    }
    status.present = (state & SCARD_PRESENT) != 0;
    status.swallowed = (state & SCARD_SWALLOWED) != 0;
    status.powered = (state & SCARD_POWERED) != 0;
    status.negotiable = (state & SCARD_NEGOTIABLE) != 0;
    status.protocol = fromServiceProtocol(chosen);
    status.atr.assign(atr, atr + atrLength);
    return result::kSuccess;
}

pcscd::Result CardConnection::transmit(std::uint32_t protocol,
                                       std::span<const std::uint8_t> command, std::size_t capacity,
                                       pcscd::Bytes& response) {
    const SCARD_IO_REQUEST request = ioRequest(protocol);
    const pcscd::Result answer = inTurn([&] {
        response.resize(std::min<std::size_t>(capacity, MAX_BUFFER_SIZE_EXTENDED));
        DWORD length = response.size();
        const LONG code = SCardTransmit(card_, &request, command.data(), command.size(), nullptr,
                                        response.data(), &length);
        response.resize(code == SCARD_S_SUCCESS ? length : 0);
        return code;
    });
    if (answer == result::kSuccess) {
        ++transmits_;
    }
    return insteadOfNotTransacted(answer, result::kCommunicationLost);
}

/// The service's answer; empty after a failure.
pcscd::Bytes CardConnection::requestFeatures() const {
    pcscd::Bytes features(kLongestAttribute);
    DWORD length = 0;
    const LONG code = SCardControl(card_, toControlCode(kFeatureRequest), nullptr, 0,
                                   features.data(), features.size(), &length);
    features.resize(code == SCARD_S_SUCCESS ? length : 0);
    return features;
}

pcscd::Result CardConnection::control(std::uint32_t function, std::span<const std::uint8_t> input,
                                      std::size_t capacity, pcscd::Bytes& output) {
    const pcscd::Result answer = inTurn([&] {
        output.resize(std::min<std::size_t>(capacity, MAX_BUFFER_SIZE_EXTENDED));
        DWORD length = 0;
        const DWORD serviceCode =
            features_.serviceCode(function, [this] { return requestFeatures(); });
        const LONG code = SCardControl(card_, serviceCode, input.data(), input.size(),
                                       output.data(), output.size(), &length);
        output.resize(code == SCARD_S_SUCCESS ? length : 0);
        if (code == SCARD_S_SUCCESS && function == kFeatureRequest) {
            features_.translate(output);
        }
        return code;
    });
    return insteadOfNotTransacted(answer, result::kCommunicationLost);
}

pcscd::Result CardConnection::getAttribute(std::uint32_t id, pcscd::Bytes& value) {
    const pcscd::Result answer = inTurn([&] {
        value.resize(kLongestAttribute);
        DWORD length = value.size();
        const LONG code = SCardGetAttrib(card_, id, value.data(), &length);
        value.resize(code == SCARD_S_SUCCESS ? length : 0);
        return code;
    });
    return insteadOfNotTransacted(answer, result::kUnsupportedFeature);
}

pcscd::Result CardConnection::setAttribute(std::uint32_t id, std::span<const std::uint8_t> value) {
    const pcscd::Result answer =
        inTurn([&] { return SCardSetAttrib(card_, id, value.data(), value.size()); });
    return insteadOfNotTransacted(answer, result::kUnsupportedFeature);
}

}  // namespace tez::agent
