// Lists of names as a daemon sends them: any bytes, which end anywhere.
#include "common/multi_string.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/holds.h"

using namespace tez;
using fuzz::holds;

namespace {

std::vector<std::string> namesOf(std::string_view multiString) {
    std::vector<std::string> names;
    forEachName(multiString, [&](std::string_view name) {
        holds(!name.empty() && name.find('\0') == std::string_view::npos);
        holds(name.data() >= multiString.data());
        holds(name.data() + name.size() <= multiString.data() + multiString.size());
        names.emplace_back(name);
    });
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::make_unique<char[]>(size);  // a block with nothing behind it
    std::copy_n(data, size, bytes.get());
    const std::string_view sent(bytes.get(), size);
    const std::vector<std::string> names = namesOf(sent);

    std::string expected;
    for (const std::string& name : names) {
        expected.append(name).push_back('\0');
    }
    expected.push_back('\0');

    std::string closed(sent);
    closeMultiString(closed);
    holds(closed == expected);
    holds(namesOf(closed) == names);
    // What has its closing NULs stays as it is, but for what is behind them.
    holds(!sent.starts_with(expected) || closed == sent.substr(0, closed.size()));
    holds(closed.size() <= sent.size() + 2);

    std::string twice = closed;
    closeMultiString(twice);
    holds(twice == closed);
    return 0;
}
