#include "status_words.h"

#include <algorithm>
#include <iterator>

#include "hex.h"

namespace tez::client {
namespace {

struct StatusWordText {
    StatusWord word;
    const char* text;
};

constexpr StatusWordText kTexts[] = {
    {0x9000, "success"},
    {0x6200, "warning: nothing changed on the card"},
    {0x6281, "warning: part of the data may be corrupted"},
    {0x6282, "warning: end of file or record reached before Le bytes were read"},
    {0x6283, "warning: the selected file is deactivated"},
    {0x6284, "warning: the file's control information has another format"},
    {0x6285, "warning: the selected file is in termination state"},
    {0x6286, "warning: no input from a sensor of the card"},
    {0x6300, "warning: the card's memory was changed"},
    {0x6381, "warning: the file was filled up by the last write"},
    {0x6400, "execution error, nothing changed on the card"},
    {0x6401, "the card needs an immediate response"},
    {0x6500, "execution error, the card's memory was changed"},
    {0x6581, "memory failure"},
    {0x6700, "wrong length"},
    {0x6800, "function in the class byte not supported"},
    {0x6881, "logical channel not supported"},
    {0x6882, "secure messaging not supported"},
    {0x6883, "last command of the chain expected"},
    {0x6884, "command chaining not supported"},
    {0x6900, "command not allowed"},
    {0x6981, "command incompatible with the file's structure"},
    {0x6982, "security status not satisfied"},
    {0x6983, "authentication method blocked"},
    {0x6984, "reference data not usable"},
    {0x6985, "conditions of use not satisfied"},
    {0x6986, "command not allowed, no current file"},
    {0x6987, "secure-messaging data objects missing"},
    {0x6988, "secure-messaging data objects incorrect"},
    {0x6A00, "wrong parameters P1 P2"},
    {0x6A80, "incorrect parameters in the command data"},
    {0x6A81, "function not supported"},
    {0x6A82, "file or application not found"},
    {0x6A83, "record not found"},
    {0x6A84, "not enough memory in the file"},
    {0x6A85, "Lc does not fit the structure"},
    {0x6A86, "incorrect parameters P1 P2"},
    {0x6A87, "Lc does not fit P1 P2"},
    {0x6A88, "referenced data not found"},
    {0x6A89, "file exists already"},
    {0x6A8A, "application name exists already"},
    {0x6B00, "wrong parameters P1 P2, offset outside of the file"},
    {0x6D00, "instruction not supported"},
    {0x6E00, "class not supported"},
    {0x6F00, "no precise diagnosis"},
};

// Status words whose second byte is a number; empty for all others.
std::string countingText(StatusWord word) {
    const unsigned low = word & 0xFFU;
    const std::string bytes = std::to_string(low == 0 ? 256 : low);
    if (word >> 8U == 0x61) {
        return "success, bytes still to fetch: " + bytes;
    }
    if (word >> 8U == 0x6C) {
        return "wrong Le, bytes to be had: " + bytes;
    }
    if (word >> 4U == 0x63C) {
        return "warning: verification failed, tries left: " + std::to_string(low & 0xFU);
    }
    return "";
}

// What the first byte alone says about a word that no table has.
std::string classText(StatusWord word) {
    switch (word >> 8U) {
        case 0x62:
        case 0x63:
            return "warning";
        case 0x64:
        case 0x65:
        case 0x66:
            return "execution error";
        default:
            return word >> 12U == 0x6 ? "checking error" : "the card's own status";
    }
}

}  // namespace

std::string statusWordText(StatusWord word) {
    const auto* const known =
        std::find_if(std::begin(kTexts), std::end(kTexts),
                     [word](const StatusWordText& entry) { return entry.word == word; });
    if (known != std::end(kTexts)) {
        return known->text;
    }
    const std::string text = countingText(word);
    return text.empty() ? classText(word) : text;
}

bool isNormal(StatusWord word) {
    return word == kSuccess || word >> 8U == 0x61;
}

std::string describeStatusWord(StatusWord word) {
    return formatDigits(word, 4) + " " + statusWordText(word);
}

}  // namespace tez::client
