#include "doctor/call_check.h"

#include <algorithm>
#include <initializer_list>

#include "allocated_buffer.h"
#include "atr_words.h"
#include "doctor/library_check.h"
#include "failure.h"
#include "reader_sides.h"

// The toolchain's <winscard.h> lacks it.
extern "C" LONG WINAPI SCardGetReaderIconA(SCARDCONTEXT hContext, LPCSTR szReaderName,
                                           LPBYTE pbIcon, LPDWORD pcbIcon);

namespace tez::client {
namespace {

class CallCheck {
  public:
    CallCheck(Session& session, const CallObserver& observer)
        : session_(session), observer_(observer) {}

    void run() {
        if (!establish()) {
            return;
        }
        observer_.begins("listing the host's readers");
        for (const Finding& finding : checkHostLibrary()) {
            observer_.finds(finding);
        }
        checkReaders();
        checkFamilies();
    }

  private:
    /// Makes a call whose result is expected to be 0 or one of the others.
    template <class Call>
    LONG make(const char* name, const char* next, std::initializer_list<LONG> expected, Call call) {
        observer_.begins(name);
        const LONG result = call();
        const bool isExpected =
            result == SCARD_S_SUCCESS ||
            std::find(expected.begin(), expected.end(), result) != expected.end();
        const std::string text = std::string(name) + ": " + describeResult(result);
        observer_.finds(isExpected ? right("call", text) : wrong("call", text, next));
        return result;
    }

    bool establish() {
        const char* const next =
            "0x80100001 means that the host has no smart-card library: see the log";
        return make("SCardEstablishContext", next, {}, [this]() -> LONG {
                   try {
                       session_.context();
                       return SCARD_S_SUCCESS;
                   } catch (const ScardFailure& failure) {
                       return failure.result();
                   }
               }) == SCARD_S_SUCCESS;
    }

    void checkReaders() {
        observer_.begins("SCardListReaders");
        try {
            readers_ = session_.readers();
        } catch (const ScardFailure& failure) {
            observer_.finds(wrong("call", failure.what(), "look at the log"));
            return;
        }
        observer_.finds(right("call", "SCardListReaders: " + describeResult(SCARD_S_SUCCESS)));
        observer_.begins("asking both sides for their readers");
        const ReaderSides sides = ReaderSides::ask();
        for (const std::string& name : readers_) {
            checkSide(name, sides.of(name));
        }
        if (readers_.empty()) {
            observer_.finds(wrong("readers", "there are no readers on either side",
                                  "see what is said about the daemon and the host"));
        }
        for (const std::string& name : readers_) {
            checkCard(name);
        }
    }

    void checkSide(const std::string& name, ReaderSide side) const {
        const std::string text = name + " (" + sideName(side) + ")";
        switch (side) {
            case ReaderSide::kBoth:
                observer_.finds(wrong("readers",
                                      text + ": both sides have a reader of this name, "
                                             "calls go to the host's",
                                      "rename one of them, or take the host's away"));
                break;
            case ReaderSide::kUnknown:
                observer_.finds(wrong("readers", text + ": neither side has it any more",
                                      "run this again; readers may be coming and going"));
                break;
            default:
                observer_.finds(right("readers", text));
        }
    }

    void checkCard(const std::string& reader) {
        observer_.begins("SCardConnect to " + reader);
        const std::string lead = reader + ": ";
        try {
            session_.useCard(reader, [&](const Card& card) {
                observer_.begins("SCardStatus of " + reader);
                observer_.finds(right("card", lead + summarizeAtr(card.status().atr)));
                checkCardCalls(card);
            });
        } catch (const ScardFailure& failure) {
            const bool isEmpty = failure.result() == SCARD_E_NO_SMARTCARD;
            observer_.finds(isEmpty ? right("card", lead + "no card")
                                    : wrong("card", lead + failure.what(),
                                            "take the card out, clean it and put it in again; a "
                                            "sharing violation means that another program has it "
                                            "for itself"));
        }
    }

    void checkCardCalls(const Card& card) const {
        observer_.begins("SCardGetAttrib of " + card.reader());
        const bool hasAtr = card.attribute(SCARD_ATTR_ATR_STRING).has_value();
        observer_.finds(right("call", std::string("SCardGetAttrib: the reader ") +
                                          (hasAtr ? "tells" : "does not tell") +
                                          " its card's ATR"));
    }

    void checkFamilies() {
        const SCARDCONTEXT context = session_.context();
        const char* const next = "look at the log for the side that answers";
        make("SCardIsValidContext", next, {}, [&] { return SCardIsValidContext(context); });
        make("SCardListReaderGroups", next, {SCARD_E_NO_READERS_AVAILABLE}, [&] {
            AllocatedBuffer groups(context);
            return SCardListReaderGroupsA(context, groups.textDestination(), groups.length());
        });
        make("SCardGetStatusChange", next, {SCARD_E_TIMEOUT},
             [&] { return lookAtReaders(context); });
        make("SCardListCards", next, {}, [&] {
            AllocatedBuffer cards(context);
            return SCardListCardsA(context, nullptr, nullptr, 0, cards.textDestination(),
                                   cards.length());
        });
        make("SCardReadCache", next, {SCARD_W_CACHE_ITEM_NOT_FOUND}, [&] {
            UUID card = {};
            char item[] = "pcsc-client doctor";
            AllocatedBuffer data(context);
            return SCardReadCacheA(context, &card, 0, item, data.byteDestination(), data.length());
        });
        if (!readers_.empty()) {
            make("SCardGetReaderIcon", next, {SCARD_E_UNSUPPORTED_FEATURE, ERROR_FILE_NOT_FOUND},
                 [&] {
                     AllocatedBuffer icon(context);
                     return SCardGetReaderIconA(context, readers_.front().c_str(),
                                                icon.byteDestination(), icon.length());
                 });
        }
        make("SCardAccessStartedEvent", next, {}, []() -> LONG {
            const bool isThere = SCardAccessStartedEvent() != nullptr;
            const auto error = static_cast<LONG>(GetLastError());
            if (isThere) {
                SCardReleaseStartedEvent();
                return SCARD_S_SUCCESS;
            }
            return error == ERROR_SUCCESS ? SCARD_F_UNKNOWN_ERROR : error;
        });
    }

    LONG lookAtReaders(SCARDCONTEXT context) const {
        std::vector<SCARD_READERSTATEA> states(std::min(readers_.size(), kMostWaitEntries));
        for (std::size_t index = 0; index < states.size(); ++index) {
            states[index].szReader = readers_[index].c_str();
        }
        return SCardGetStatusChangeA(context, 0, states.data(), static_cast<DWORD>(states.size()));
    }

    Session& session_;
    const CallObserver& observer_;
    std::vector<std::string> readers_;
};

}  // namespace

void checkCalls(Session& session, const CallObserver& observer) {
    CallCheck(session, observer).run();
}

}  // namespace tez::client
