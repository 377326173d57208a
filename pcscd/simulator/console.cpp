#include "console.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <string_view>
#include <system_error>

#include "options.h"
#include "traffic_text.h"

namespace tez::sim {
namespace {

constexpr const char* kCardHolder = "Remote User";

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

}  // namespace

struct Console::Entry {
    std::string_view name;
    std::string_view argument;  // empty: none is taken
    std::string_view purpose;
    void (*run)(Console& console, const std::string& argument);
};

const Console::Entry Console::kEntries[] = {
    {"readers", "", "list the readers and what is in them",
     [](Console& console, const std::string&) { console.listReaders(); }},
    {"insert", "READER", "put a card into a reader",
     [](Console& console, const std::string& reader) { console.insert(reader); }},
    {"remove", "READER", "take the card out of a reader",
     [](Console& console, const std::string& reader) { console.remove(reader); }},
    {"add", "READER", "attach a reader of this name",
     [](Console& console, const std::string& reader) { console.add(reader); }},
    {"remove-reader", "READER", "detach a reader",
     [](Console& console, const std::string& reader) { console.removeReader(reader); }},
    {"serve", "", "serve the pipe", [](Console& console, const std::string&) { console.serve(); }},
    {"stop-serving", "", "close every connection and the pipe",
     [](Console& console, const std::string&) { console.stopServing(); }},
    {"version", "MAJOR.MINOR", "announce this protocol version from the next handshake on",
     [](Console& console, const std::string& version) { console.setVersion(version); }},
    {"help", "", "show these commands", [](Console& /*console*/, const std::string&) { help(); }},
    {"quit", "", "end the simulator",
     [](Console& console, const std::string&) { console.quitting_ = true; }},
};

void printLine(const std::string& line) {
    static std::mutex mutex;
    const std::scoped_lock lock(mutex);
    std::puts(line.c_str());
    std::fflush(stdout);
}

void Console::run(std::istream& commands) {
    std::string line;
    while (!quitting_ && std::getline(commands, line)) {
        execute(line);
    }
}

void Console::execute(const std::string& line) {
    const std::string_view text = trimmed(line);
    if (text.empty() || text.front() == '#') {
        return;
    }
    const std::size_t blank = std::min(text.find_first_of(" \t"), text.size());
    const std::string_view name = text.substr(0, blank);
    const std::string argument(trimmed(text.substr(blank)));
    const auto* const entry = std::find_if(std::begin(kEntries), std::end(kEntries),
                                           [&](const Entry& each) { return each.name == name; });
    if (entry == std::end(kEntries)) {
        report(false, {}, R"(unknown command ")" + std::string(name) + R"("; enter "help")");
    } else if (entry->argument.empty() != argument.empty()) {
        report(false, {}, "usage: " + usageOf(*entry));
    } else {
        entry->run(*this, argument);
    }
}

std::string Console::usageOf(const Entry& entry) {
    std::string usage(entry.name);
    return entry.argument.empty() ? usage : usage.append(" ").append(entry.argument);
}

void Console::report(bool done, const std::string& success, const std::string& failure) {
    anyFailed_ = anyFailed_ || !done;
    printLine(done ? success : "error: " + failure);
}

void Console::help() {
    for (const Entry& entry : kEntries) {
        std::string usage = usageOf(entry);
        usage.resize(std::max<std::size_t>(usage.size(), 24), ' ');
        printLine(usage.append(entry.purpose));
    }
    printLine("A reader's name is the rest of its line, blanks included; it takes no quotes.");
    printLine("Lines that begin with # are left out.");
}

void Console::listReaders() const {
    const std::vector<std::string> readers = service_.readers();
    if (readers.empty()) {
        printLine("no readers");
    }
    for (const std::string& reader : readers) {
        printLine(reader + ": " + (service_.hasCard(reader) ? "card" : "empty"));
    }
}

void Console::insert(const std::string& reader) {
    report(service_.insertCard(reader, pcscd::makeDemoCard(kCardHolder)),
           "card inserted into " + reader, "no reader, or not an empty one: " + reader);
}

void Console::remove(const std::string& reader) {
    report(service_.removeCard(reader), "card removed from " + reader,
           "no reader, or an empty one: " + reader);
}

void Console::add(const std::string& reader) {
    if (!isReaderName(reader)) {
        report(false, {}, "longer than the 127 bytes that a name can have: " + reader);
        return;
    }
    report(service_.addReader(reader), "reader added: " + reader,
           "there is such a reader: " + reader);
}

void Console::removeReader(const std::string& reader) {
    report(service_.removeReader(reader), "reader removed: " + reader, "no reader: " + reader);
}

void Console::serve() {
    if (daemon_.serving()) {
        report(false, {}, "serving already");
        return;
    }
    try {
        daemon_.start();
        printLine("serving");
    } catch (const std::system_error& error) {
        report(false, {}, error.what());
    }
}

void Console::stopServing() {
    const bool served = daemon_.serving();
    daemon_.stop();
    report(served, "stopped serving", "not serving");
}

void Console::setVersion(const std::string& text) {
    const std::optional<pcscd::ProtocolVersion> version = parseVersion(text);
    if (version) {
        daemon_.setVersion(*version);
    }
    report(version.has_value(), "protocol " + text, "not of the form MAJOR.MINOR: " + text);
}

}  // namespace tez::sim
