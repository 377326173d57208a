#include "report.h"

#include <string>

#include "failure.h"
#include "output.h"

namespace tez::client {
namespace {

void printObject(const Json& object) {
    // Names come from readers and cards, which may send anything.
    printLine(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

void Report::begin() {
    isJson_ = false;
    data_ = Json::object();
}

void Report::line(std::string_view text) const {
    if (!isJson_) {
        printLine(text);
    }
}

void Report::field(std::string_view label, std::string_view value) const {
    if (!isJson_) {
        printField(label, value);
    }
}

void Report::event(const Json& object) const {
    if (isJson_) {
        printObject(object);
    }
}

void Report::finish(bool ok, const Failure* failure) {
    if (!isJson_) {
        return;
    }
    if (failure != nullptr && *failure->what() != '\0') {
        data_["error"] = failure->toJson();
    }
    data_["ok"] = ok;
    printObject(data_);
}

void Report::addJsonOption(CLI::App& command) {
    command.add_flag("--json", isJson_, "print a JSON object instead of text");
}

}  // namespace tez::client
