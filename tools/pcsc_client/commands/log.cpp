#include <algorithm>
#include <fstream>
#include <memory>

#include "commands/commands.h"
#include "failure.h"
#include "hex.h"
#include "log/call_filter.h"
#include "log/call_table.h"
#include "log/html_page.h"
#include "log/log_file.h"
#include "utf8.h"

namespace tez::client {
namespace {

struct LogOptions {
    std::vector<std::string> files;
    CallFilter filter;
    bool withLines = false;
    bool follow = false;
    std::string page;
};

void tellCall(const Report& report, const LogOptions& options, const Call& call) {
    report.line(formatCall(call));
    if (options.withLines) {
        for (const LogLine& line : call.lines) {
            report.line("    " + formatLogTime(line.prefix.time) + (line.isGuess ? " ? " : " ") +
                        line.prefix.level + " (" + line.prefix.function + "): " + line.message);
        }
    }
}

Json toJson(const LogOptions& options, const Call& call) {
    Json json = callToJson(call);
    for (const LogLine& line : call.lines) {
        if (options.withLines) {
            json["lines"].push_back(line.message);
        }
    }
    return json;
}

std::string summary(const LoadedLogs& logs, std::size_t shown) {
    const auto count = [&logs](CallOutcome outcome) {
        return std::to_string(
            std::count_if(logs.calls.begin(), logs.calls.end(),
                          [outcome](const Call& call) { return call.outcome() == outcome; }));
    };
    return std::to_string(logs.calls.size()) + " calls, " + count(CallOutcome::kFailed) +
           " failed, " + count(CallOutcome::kUnfinished) + " not finished; " +
           std::to_string(shown) + " shown; lines of no call: " + std::to_string(logs.otherLines);
}

void writePage(Client& client, const LogOptions& options, const std::vector<Call>& calls) {
    std::ofstream file(tools::toPath(options.page), std::ios::binary);
    file << makeHtmlPage(calls);
    file.close();
    if (!file) {
        throw Failure("cannot write " + options.page);
    }
    client.report.line("timeline of " + std::to_string(calls.size()) + " calls written to " +
                       options.page);
    client.report.data()["file"] = options.page;
    client.report.data()["count"] = calls.size();
}

void tellTable(Client& client, const LogOptions& options, const LoadedLogs& logs,
               const std::vector<Call>& wanted) {
    client.report.line(callTableHead());
    Json list = Json::array();
    for (const Call& call : wanted) {
        tellCall(client.report, options, call);
        list.push_back(toJson(options, call));
    }
    client.report.line(summary(logs, wanted.size()));
    client.report.data()["calls"] = std::move(list);
    client.report.data()["otherLines"] = logs.otherLines;
}

/// Tells each call when it ends, until the program is ended.
void follow(const Client& client, const LogOptions& options) {
    constexpr DWORD kPause = 100;
    const auto tell = [&](const Call& call) {
        if (options.filter.accepts(call)) {
            tellCall(client.report, options, call);
            client.report.event(toJson(options, call));
        }
    };
    std::vector<std::unique_ptr<LogFile>> files;
    for (const std::string& path : options.files) {
        files.push_back(std::make_unique<LogFile>(path, tell));
    }
    client.report.line(callTableHead());
    for (;;) {
        bool gotAny = false;
        for (const std::unique_ptr<LogFile>& file : files) {
            gotAny = file->read() || gotAny;
        }
        if (!gotAny) {
            Sleep(kPause);
        }
    }
}

void runLog(Client& client, const LogOptions& options) {
    if (options.follow) {
        follow(client, options);
    }
    LoadedLogs logs = loadLogs(options.files);
    std::vector<Call> wanted;
    std::copy_if(logs.calls.begin(), logs.calls.end(), std::back_inserter(wanted),
                 [&](const Call& call) { return options.filter.accepts(call); });
    if (options.page.empty()) {
        tellTable(client, options, logs, wanted);
    } else {
        writePage(client, options, wanted);
    }
}

}  // namespace

void addLog(CLI::App& app, Client& client) {
    CLI::App* const command =
        app.add_subcommand("log", "Show the calls of debug logs as a table or a timeline");
    const auto options = std::make_shared<LogOptions>();
    CallFilter& filter = options->filter;
    command->add_option("FILE", options->files, "logs, of one or several processes")->required();
    command->add_flag("--failures", filter.failures, "only calls that failed or did not finish");
    command->add_option("--slow", filter.slow, "only calls of so many milliseconds at least")
        ->check(CLI::NonNegativeNumber)
        ->type_name("MS");
    command->add_option("--call", filter.name, "only calls with this in their names")
        ->type_name("NAME");
    command->add_option("--thread", filter.thread, "only calls of this thread")->type_name("ID");
    command->add_flag("--lines", options->withLines, "the lines of each call, too");
    CLI::Option* const page =
        command->add_option("--html", options->page, "write a page with a timeline instead")
            ->type_name("OUT");
    command
        ->add_flag("--follow", options->follow,
                   "go on, and show calls when they end, until the program is ended")
        ->excludes(page);
    client.report.addJsonOption(*command);
    command->callback([&client, options] { runLog(client, *options); });
}

}  // namespace tez::client
