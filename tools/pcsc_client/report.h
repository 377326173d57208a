#pragma once

#include <CLI/CLI.hpp>
#include <string_view>

#include "json.h"

namespace tez::client {

class Failure;

/// What a command says: to people as lines, or, with --json, to programs as one JSON object on one
/// line. A command gives both; the one that is not wanted is dropped:
///
///     report.field("ATR", formatHex(atr));
///     report.data()["atr"] = formatHex(atr);
class Report {
  public:
    /// Starts anew, for people.
    void begin();

    bool isJson() const { return isJson_; }
    /// As with --json.
    void useJson() { isJson_ = true; }

    /// A line of text.
    void line(std::string_view text) const;
    /// An indented line "label  value" with all values in one column.
    void field(std::string_view label, std::string_view value) const;

    /// The object that finish() writes.
    Json& data() { return data_; }
    /// An object of its own, written at once: for commands that tell of what happens meanwhile.
    void event(const Json& object) const;

    /// Writes the object, with the failure and whether all went well.
    void finish(bool ok, const Failure* failure = nullptr);

    /// The option --json.
    void addJsonOption(CLI::App& command);

  private:
    bool isJson_ = false;
    Json data_ = Json::object();
};

}  // namespace tez::client
