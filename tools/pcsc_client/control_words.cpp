#include "control_words.h"

#include <algorithm>
#include <iterator>

#include "hex.h"

namespace tez::client {
namespace {

constexpr std::uint32_t kSmartCardDevice = 0x31;

struct FunctionName {
    std::uint32_t function;
    const char* text;
};

constexpr FunctionName kFunctions[] = {
    {1, "power of the card"},
    {2, "get an attribute"},
    {3, "set an attribute"},
    {4, "confiscate the card"},
    {5, "transmit to the card"},
    {6, "eject the card"},
    {7, "swallow the card"},
    {10, "is a card present"},
    {11, "is no card present"},
    {12, "set the protocol"},
    {14, "state of the reader"},
    {15, "last error"},
    {16, "performance counters"},
    {3400, "the features that the reader has (PIN pad and others)"},
    {3500, "escape command of USB readers (CCID)"},
};

std::uint32_t deviceOf(std::uint32_t code) {
    return code >> 16U;
}

std::uint32_t functionOf(std::uint32_t code) {
    return (code >> 2U) & 0xFFFU;
}

const char* methodOf(std::uint32_t code) {
    constexpr const char* kMethods[] = {"buffered", "direct input", "direct output", "neither"};
    return kMethods[code & 3U];
}

std::string functionText(std::uint32_t function) {
    const auto* const known =
        std::find_if(std::begin(kFunctions), std::end(kFunctions),
                     [function](const FunctionName& each) { return each.function == function; });
    if (known != std::end(kFunctions)) {
        return known->text;
    }
    return function < 2048 ? "the platform's" : "the reader maker's";
}

}  // namespace

bool isReaderControlCode(std::uint32_t code) {
    return deviceOf(code) == kSmartCardDevice;
}

std::string describeControlCode(std::uint32_t code) {
    const std::uint32_t function = functionOf(code);
    const std::string device = isReaderControlCode(code)
                                   ? "smart-card reader"
                                   : "device type 0x" + formatDigits(deviceOf(code), 4);
    return device + ", function " + std::to_string(function) + ": " + functionText(function) +
           ", data " + methodOf(code);
}

}  // namespace tez::client
