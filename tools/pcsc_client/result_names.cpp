#include "result_names.h"

#include <windows.h>
#include <winscard.h>

#include <algorithm>
#include <iterator>
#include <system_error>

#include "hex.h"

namespace tez::client {
namespace {

struct ResultName {
    LONG result;
    const char* name;
    const char* text;
};

#define NAMED(result) (result), #result

const ResultName kResultNames[] = {
    {NAMED(SCARD_S_SUCCESS), "success"},
    {NAMED(SCARD_F_INTERNAL_ERROR), "internal error"},
    {NAMED(SCARD_E_CANCELLED), "cancelled by the application"},
    {NAMED(SCARD_E_INVALID_HANDLE), "the handle is not valid any more"},
    {NAMED(SCARD_E_INVALID_PARAMETER), "invalid parameter"},
    {NAMED(SCARD_E_INVALID_TARGET), "start-up information is missing or invalid"},
    {NAMED(SCARD_E_NO_MEMORY), "out of memory"},
    {NAMED(SCARD_F_WAITED_TOO_LONG), "an internal timer expired"},
    {NAMED(SCARD_E_INSUFFICIENT_BUFFER), "the buffer is too small for the answer"},
    {NAMED(SCARD_E_UNKNOWN_READER), "unknown reader"},
    {NAMED(SCARD_E_TIMEOUT), "the time is over"},
    {NAMED(SCARD_E_SHARING_VIOLATION), "the card is in use by another application"},
    {NAMED(SCARD_E_NO_SMARTCARD), "no card in the reader"},
    {NAMED(SCARD_E_UNKNOWN_CARD), "unknown card"},
    {NAMED(SCARD_E_CANT_DISPOSE), "the card cannot be left in the wanted way"},
    {NAMED(SCARD_E_PROTO_MISMATCH), "the card does not speak the wanted protocol"},
    {NAMED(SCARD_E_NOT_READY), "the reader or the card is not ready"},
    {NAMED(SCARD_E_INVALID_VALUE), "invalid value of a parameter"},
    {NAMED(SCARD_E_SYSTEM_CANCELLED), "cancelled by the system"},
    {NAMED(SCARD_F_COMM_ERROR), "communication error"},
    {NAMED(SCARD_F_UNKNOWN_ERROR), "unknown error"},
    {NAMED(SCARD_E_INVALID_ATR), "the ATR is not valid"},
    {NAMED(SCARD_E_NOT_TRANSACTED), "there is no transaction to end"},
    {NAMED(SCARD_E_READER_UNAVAILABLE), "the reader is not available"},
    {NAMED(SCARD_P_SHUTDOWN), "the operation was stopped by a shutdown"},
    {NAMED(SCARD_E_PCI_TOO_SMALL), "the protocol control information is too small"},
    {NAMED(SCARD_E_READER_UNSUPPORTED), "the reader is not supported"},
    {NAMED(SCARD_E_DUPLICATE_READER), "there is a reader of that name already"},
    {NAMED(SCARD_E_CARD_UNSUPPORTED), "the card is not supported"},
    {NAMED(SCARD_E_NO_SERVICE), "the smart-card service does not run"},
    {NAMED(SCARD_E_SERVICE_STOPPED), "the smart-card service has stopped"},
    {NAMED(SCARD_E_UNEXPECTED), "unexpected card error"},
    {NAMED(SCARD_E_ICC_INSTALLATION), "no primary provider for the card"},
    {NAMED(SCARD_E_ICC_CREATEORDER), "the objects cannot be created in this order"},
    {NAMED(SCARD_E_UNSUPPORTED_FEATURE), "not supported"},
    {NAMED(SCARD_E_DIR_NOT_FOUND), "directory not found on the card"},
    {NAMED(SCARD_E_FILE_NOT_FOUND), "file not found on the card"},
    {NAMED(SCARD_E_NO_DIR), "the path is not a directory of the card"},
    {NAMED(SCARD_E_NO_FILE), "the path is not a file of the card"},
    {NAMED(SCARD_E_NO_ACCESS), "access denied"},
    {NAMED(SCARD_E_WRITE_TOO_MANY), "the card has no room for the data"},
    {NAMED(SCARD_E_BAD_SEEK), "cannot go to that place of the file"},
    {NAMED(SCARD_E_INVALID_CHV), "invalid PIN"},
    {NAMED(SCARD_E_UNKNOWN_RES_MNG), "unknown error of the resource manager"},
    {NAMED(SCARD_E_NO_SUCH_CERTIFICATE), "no such certificate"},
    {NAMED(SCARD_E_CERTIFICATE_UNAVAILABLE), "the certificate cannot be had"},
    {NAMED(SCARD_E_NO_READERS_AVAILABLE), "there are no readers"},
    {NAMED(SCARD_E_COMM_DATA_LOST), "data was lost on the way"},
    {NAMED(SCARD_E_NO_KEY_CONTAINER), "no such key container"},
    {NAMED(SCARD_E_SERVER_TOO_BUSY), "the smart-card service is too busy"},
    {NAMED(SCARD_E_PIN_CACHE_EXPIRED), "the cached PIN has expired"},
    {NAMED(SCARD_E_NO_PIN_CACHE), "the PIN cannot be cached"},
    {NAMED(SCARD_E_READ_ONLY_CARD), "the card can only be read"},
    {NAMED(SCARD_W_UNSUPPORTED_CARD), "the card's ATR asks for what the reader cannot do"},
    {NAMED(SCARD_W_UNRESPONSIVE_CARD), "the card does not answer"},
    {NAMED(SCARD_W_UNPOWERED_CARD), "the card has no power"},
    {NAMED(SCARD_W_RESET_CARD), "the card was reset"},
    {NAMED(SCARD_W_REMOVED_CARD), "the card was removed"},
    {NAMED(SCARD_W_SECURITY_VIOLATION), "access denied by a security violation"},
    {NAMED(SCARD_W_WRONG_CHV), "wrong PIN"},
    {NAMED(SCARD_W_CHV_BLOCKED), "the PIN is blocked"},
    {NAMED(SCARD_W_EOF), "end of file"},
    {NAMED(SCARD_W_CANCELLED_BY_USER), "cancelled by the user"},
    {NAMED(SCARD_W_CARD_NOT_AUTHENTICATED), "no PIN was given to the card"},
    {NAMED(SCARD_W_CACHE_ITEM_NOT_FOUND), "not in the cache"},
    {NAMED(SCARD_W_CACHE_ITEM_STALE), "the cached item is too old"},
    {NAMED(SCARD_W_CACHE_ITEM_TOO_BIG), "too big for the cache"},
    {NAMED(ERROR_FILE_NOT_FOUND), "there is no such thing"},
    {NAMED(ERROR_ALREADY_EXISTS), "there is one of that name already"},
};

#undef NAMED

template <class Predicate>
const ResultName* findName(Predicate predicate) {
    const auto* const known =
        std::find_if(std::begin(kResultNames), std::end(kResultNames), predicate);
    return known == std::end(kResultNames) ? nullptr : known;
}

const ResultName* nameOf(LONG result) {
    return findName([result](const ResultName& entry) { return entry.result == result; });
}

std::string codeOf(LONG result) {
    return "0x" + formatDigits(static_cast<std::uint32_t>(result), 8);
}

/// In the system's words.
std::string systemText(LONG result) {
    return std::system_category().message(static_cast<int>(result));
}

}  // namespace

std::string describeResult(LONG result) {
    const ResultName* const known = nameOf(result);
    if (known == nullptr) {
        return codeOf(result) + ", " + systemText(result);
    }
    return std::string(known->name) + " " + codeOf(result) + ", " + known->text;
}

Json resultToJson(LONG result) {
    Json json = {{"code", codeOf(result)}};
    const ResultName* const known = nameOf(result);
    if (known != nullptr) {
        json["name"] = known->name;
    }
    json["text"] = known == nullptr ? systemText(result) : known->text;
    return json;
}

std::optional<LONG> parseResultName(std::string_view name) {
    const ResultName* const known =
        findName([name](const ResultName& entry) { return entry.name == name; });
    return known == nullptr ? std::nullopt : std::optional(known->result);
}

bool hasResultName(LONG result) {
    return nameOf(result) != nullptr;
}

}  // namespace tez::client
