#include "session.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

#include "allocated_buffer.h"
#include "failure.h"

namespace tez::client {

Session::~Session() {
    keptCard_.reset();
    if (context_ != 0) {
        SCardReleaseContext(context_);
    }
}

SCARDCONTEXT Session::context() {
    if (context_ == 0) {
        check("SCardEstablishContext",
              SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context_));
    }
    return context_;
}

std::vector<std::string> Session::readers() {
    AllocatedBuffer names(context());
    const LONG result =
        SCardListReadersA(context(), nullptr, names.textDestination(), names.length());
    if (result == SCARD_E_NO_READERS_AVAILABLE) {
        return {};
    }
    check("SCardListReaders", result);
    return names.names();
}

std::vector<std::string> Session::readerGroups() {
    AllocatedBuffer names(context());
    check("SCardListReaderGroups",
          SCardListReaderGroupsA(context(), names.textDestination(), names.length()));
    return names.names();
}

std::string Session::resolveReader(const std::string& nameOrIndex) {
    const std::vector<std::string> names = readers();
    if (std::find(names.begin(), names.end(), nameOrIndex) != names.end()) {
        return nameOrIndex;
    }
    const char* const end = nameOrIndex.data() + nameOrIndex.size();
    std::size_t index = 0;
    const auto [stop, error] = std::from_chars(nameOrIndex.data(), end, index);
    if (error == std::errc::invalid_argument || stop != end) {
        return nameOrIndex;
    }
    if (error != std::errc() || index >= names.size()) {
        throw Failure("there is no reader " + nameOrIndex + ", " +
                      (names.empty() ? "there are none"
                                     : "they are 0 to " + std::to_string(names.size() - 1)));
    }
    return names[index];
}

void Session::useCard(const std::string& nameOrIndex, const std::function<void(const Card&)>& use,
                      Access access) {
    const std::string reader = resolveReader(nameOrIndex);
    if (keptCard_ != nullptr && keptCard_->reader() == reader) {
        use(*keptCard_);
        return;
    }
    Card card(context(), reader, access);
    use(card);
    card.disconnect();
}

const Card& Session::keepCardOpen(const std::string& nameOrIndex, Access access) {
    // The one kept before goes without a word: its handle may be dead, as its daemon or its reader
    // may have gone.
    keptCard_ = std::make_unique<Card>(context(), resolveReader(nameOrIndex), access);
    return *keptCard_;
}

void Session::disconnectKeptCard() {
    if (keptCard_ == nullptr) {
        throw Failure("no card is connected");
    }
    std::exchange(keptCard_, nullptr)->disconnect();
}

void Session::close() {
    if (keptCard_ != nullptr) {
        disconnectKeptCard();
    }
    if (context_ != 0) {
        check("SCardReleaseContext", SCardReleaseContext(std::exchange(context_, 0)));
    }
}

}  // namespace tez::client
