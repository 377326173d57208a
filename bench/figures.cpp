#include "figures.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

namespace tez::bench {
namespace {

struct Spread {
    double lower;
    double median;
    double upper;
};

Spread spreadOf(std::vector<double> blocks) {
    std::sort(blocks.begin(), blocks.end());
    const auto at = [&](double part) {
        return blocks[static_cast<std::size_t>(
            std::llround(part * static_cast<double>(blocks.size() - 1)))];
    };
    return {at(0.25), at(0.5), at(0.75)};
}

/// Of each block of the library and the block of the limit beside it.
std::vector<double> ratiosOf(const Figure& figure) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(figure.limit.size(), figure.library.size()); ++i) {
        ratios.push_back(figure.library[i] / figure.limit[i]);
    }
    return ratios;
}

nlohmann::json toJson(const std::vector<double>& blocks) {
    const Spread spread = spreadOf(blocks);
    return {{"lower", spread.lower},
            {"median", spread.median},
            {"upper", spread.upper},
            {"blocks", blocks}};
}

std::string microseconds(double nanoseconds) {
    char text[32];
    std::snprintf(text, sizeof text, nanoseconds < 10'000 ? "%.3f" : "%.1f", nanoseconds / 1000);
    return text;
}

}  // namespace

Figure& Figures::operator[](const std::string& name) {
    const auto [place, isNew] = figures_.try_emplace(name);
    if (isNew) {
        order_.push_back(name);
    }
    return place->second;
}

void Figures::print(std::ostream& out) const {
    out << std::left << std::setw(58) << "microseconds a call" << std::right << std::setw(11)
        << "limit" << std::setw(11) << "library" << std::setw(22) << "quartiles" << std::setw(8)
        << "ratio" << '\n';
    for (const std::string& name : order_) {
        const Figure& figure = figures_.at(name);
        const Spread library = spreadOf(figure.library);
        out << std::left << std::setw(58) << name << std::right << std::setw(11)
            << (figure.limit.empty() ? "" : microseconds(spreadOf(figure.limit).median))
            << std::setw(11) << microseconds(library.median) << std::setw(22)
            << microseconds(library.lower) + " - " + microseconds(library.upper) << std::setw(8);
        if (figure.limit.empty()) {
            out << "";
        } else {
            out << std::fixed << std::setprecision(2) << spreadOf(ratiosOf(figure)).median;
        }
        out << '\n';
    }
}

void Figures::write(const std::filesystem::path& path) const {
    nlohmann::json all = nlohmann::json::array();
    for (const std::string& name : order_) {
        const Figure& figure = figures_.at(name);
        nlohmann::json entry = {
            {"name", name}, {"unit", "ns"}, {"library", toJson(figure.library)}};
        if (!figure.limit.empty()) {
            entry["limit"] = toJson(figure.limit);
            entry["ratio"] = spreadOf(ratiosOf(figure)).median;
        }
        all.push_back(std::move(entry));
    }
    std::ofstream(path) << all.dump(2) << '\n';
    std::filesystem::path table = path;
    std::ofstream rows(table.replace_extension(".dat"));
    for (const std::string& name : order_) {
        const Figure& figure = figures_.at(name);
        if (!figure.limit.empty()) {
            const Spread ratio = spreadOf(ratiosOf(figure));
            rows << '"' << name << "\" " << ratio.lower << ' ' << ratio.median << ' ' << ratio.upper
                 << '\n';
        }
    }
}

Figures& figures() {
    static Figures all;
    return all;
}

}  // namespace tez::bench
