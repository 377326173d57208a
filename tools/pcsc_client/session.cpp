#include "session.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

#include "failure.h"

namespace tez::client {
namespace {

/// A list of names, each with its zero, that PC/SC allocated.
class AllocatedNames {
  public:
    explicit AllocatedNames(SCARDCONTEXT context) : context_(context) {}
    ~AllocatedNames() {
        if (names_ != nullptr) {
            SCardFreeMemory(context_, names_);
        }
    }
    AllocatedNames(const AllocatedNames&) = delete;
    AllocatedNames& operator=(const AllocatedNames&) = delete;

    /// For the parameter that is a string, and with SCARD_AUTOALLOCATE the address of one.
    LPSTR destination() { return reinterpret_cast<LPSTR>(&names_); }
    LPDWORD length() { return &length_; }

    std::vector<std::string> list() const {
        std::vector<std::string> list;
        for (const char* name = names_; name != nullptr && *name != '\0';
             name += list.back().size() + 1) {
            list.emplace_back(name);
        }
        return list;
    }

  private:
    SCARDCONTEXT context_;
    LPSTR names_ = nullptr;
    DWORD length_ = SCARD_AUTOALLOCATE;
};

}  // namespace

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
    AllocatedNames names(context());
    const LONG result = SCardListReadersA(context(), nullptr, names.destination(), names.length());
    if (result == SCARD_E_NO_READERS_AVAILABLE) {
        return {};
    }
    check("SCardListReaders", result);
    return names.list();
}

std::vector<std::string> Session::readerGroups() {
    AllocatedNames names(context());
    check("SCardListReaderGroups",
          SCardListReaderGroupsA(context(), names.destination(), names.length()));
    return names.list();
}

std::string Session::resolveReader(const std::string& nameOrIndex) {
    const std::vector<std::string> names = readers();
    if (std::find(names.begin(), names.end(), nameOrIndex) != names.end()) {
        return nameOrIndex;
    }
    const char* const end = nameOrIndex.data() + nameOrIndex.size();
    std::size_t index = 0;
    const auto [stop, error] = std::from_chars(nameOrIndex.data(), end, index);
    const bool isIndex = error == std::errc() && stop == end && index < names.size();
    return isIndex ? names[index] : nameOrIndex;
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

const Card& Session::keepCardOpen(const std::string& nameOrIndex) {
    if (keptCard_ != nullptr) {
        disconnectKeptCard();
    }
    keptCard_ = std::make_unique<Card>(context(), resolveReader(nameOrIndex));
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
