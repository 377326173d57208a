#include "report.h"

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

namespace tez::soak {
namespace {

using Json = nlohmann::ordered_json;

template <class Member>
std::uint64_t sumOf(const BoardContent& board, Member member) {
    std::uint64_t sum = 0;
    for (const ClientBoard& client : board.clients) {
        sum += (client.*member).load();
    }
    return sum;
}

Milliseconds longestOf(const BoardContent& board, Longest ClientBoard::*member) {
    Milliseconds longest = 0;
    for (const ClientBoard& client : board.clients) {
        longest = std::max(longest, (client.*member).value());
    }
    return longest;
}

std::uint64_t callsOf(const BoardContent& board, Call call) {
    std::uint64_t sum = 0;
    for (const ClientBoard& client : board.clients) {
        sum += client.calls[static_cast<std::size_t>(call)];
    }
    return sum;
}

std::uint64_t allCalls(const BoardContent& board) {
    std::uint64_t sum = 0;
    for (std::size_t call = 0; call < static_cast<std::size_t>(Call::kCount); ++call) {
        sum += callsOf(board, static_cast<Call>(call));
    }
    return sum;
}

/// All figures, in the order in which people read them.
Json figuresOf(const BoardContent& board, const Results& results) {
    return {
        {"seed", board.seed.load()},
        {"seconds", results.seconds},
        {"calls", allCalls(board)},
        {"waits", callsOf(board, Call::kGetStatusChange)},
        {"events told", sumOf(board, &ClientBoard::eventsTold)},
        {"events lost", results.lost},
        {"answers compared", sumOf(board, &ClientBoard::answers)},
        {"answers crossed", sumOf(board, &ClientBoard::crossed)},
        {"cancels", sumOf(board, &ClientBoard::cancels)},
        {"contexts released under waits", sumOf(board, &ClientBoard::releases)},
        {"daemon killed", results.daemonsKilled},
        {"daemon restarted", results.daemonsRestarted},
        {"daemon made to hang", results.daemonsHung},
        {"connections lost", results.connectionsLost},
        {"clients killed", results.clientsKilled},
        {"clients ended in the middle", results.clientsExited},
        {"longest from an event at the host to its return, ms",
         longestOf(board, &ClientBoard::toldOfHost)},
        {"longest from an event at the daemon to its return, ms",
         longestOf(board, &ClientBoard::toldOfRemote)},
        {"longest from a cancel to its return, ms", longestOf(board, &ClientBoard::toldOfCancel)}};
}

Json seriesOf(const Results& results, std::size_t client, double Holdings::*what) {
    Json series = Json::array();
    for (const Sample& sample : results.samples) {
        series.push_back(sample.clients[client].*what);
    }
    return series;
}

std::string clockTime(double seconds) {
    const auto whole = static_cast<unsigned>(seconds);
    const std::string rest = std::to_string(whole % 60);
    return std::to_string(whole / 60) + (rest.size() < 2 ? ":0" : ":") + rest;
}

}  // namespace

std::string progressLine(const BoardContent& board, const Results& results) {
    return clockTime(results.seconds) + ": " + std::to_string(allCalls(board)) + " calls, " +
           std::to_string(sumOf(board, &ClientBoard::eventsTold)) + " events told, daemon gone " +
           std::to_string(results.daemonsKilled + results.daemonsRestarted) +
           " times, clients ended " +
           std::to_string(results.clientsKilled + results.clientsExited) + ", answers crossed " +
           std::to_string(sumOf(board, &ClientBoard::crossed));
}

void print(std::ostream& out, const BoardContent& board, const Results& results) {
    const Json figures = figuresOf(board, results);
    for (const auto& [name, value] : figures.items()) {
        out << std::left << std::setw(58) << name << value << "\n";
    }
    if (!results.samples.empty()) {
        const Sample& last = results.samples.back();
        for (std::size_t i = 0; i < kClients; ++i) {
            if (last.clients[i].threads == 0) {
                continue;  // it was just being started
            }
            out << "client " << i << " at the end: " << std::fixed << std::setprecision(1)
                << last.clients[i].memory << " MB, " << std::setprecision(0)
                << last.clients[i].handles << " handles, " << last.clients[i].threads
                << " threads\n";
        }
    }
    for (const std::string& failure : results.failures) {
        out << "FAILED: " << failure << "\n";
    }
}

void write(const std::filesystem::path& path, const BoardContent& board, const Results& results) {
    Json json = figuresOf(board, results);
    for (std::size_t call = 0; call < static_cast<std::size_t>(Call::kCount); ++call) {
        json["calls by name"][nameOf(static_cast<Call>(call))] =
            callsOf(board, static_cast<Call>(call));
    }
    for (const Sample& sample : results.samples) {
        json["sampled at"].push_back(sample.seconds);
    }
    for (std::size_t i = 0; i < kClients; ++i) {
        json["clients"].push_back({{"memory, MB", seriesOf(results, i, &Holdings::memory)},
                                   {"handles", seriesOf(results, i, &Holdings::handles)},
                                   {"threads", seriesOf(results, i, &Holdings::threads)}});
    }
    json["failures"] = results.failures;
    std::ofstream(path) << json.dump(1) << "\n";

    std::ofstream data(std::filesystem::path(path).replace_extension(".dat"));
    data << "# minutes, then memory, handles and threads of each client\n";
    for (const Sample& sample : results.samples) {
        data << sample.seconds / 60;
        for (const Holdings& client : sample.clients) {
            data << ' ' << client.memory << ' ' << client.handles << ' ' << client.threads;
        }
        data << "\n";
    }
}

}  // namespace tez::soak
