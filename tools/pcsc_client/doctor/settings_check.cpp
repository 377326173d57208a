#include "doctor/settings_check.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "suggestion.h"
#include "utf8.h"

namespace tez::client {
namespace {

constexpr const char* kFolder = "TEZ_PCSC_LOG_DIR";
constexpr const char* kLevel = "TEZ_PCSC_LOG_LEVEL";
constexpr const char* kCache = "TEZ_PCSC_ENABLE_CACHE";
constexpr const char* kRedirection = "TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION";
constexpr const char* kStandardCalls = "TEZ_PCSC_STANDARD_CALLS";
constexpr const char* kPrefix = "TEZ_PCSC_";

struct Variable {
    std::string name;
    std::wstring wide;
    std::string value;
};

/// The variables of this process whose names begin as the library's do, in any case.
std::vector<Variable> libraryVariables() {
    std::vector<Variable> variables;
    wchar_t* const block = GetEnvironmentStringsW();
    for (const wchar_t* entry = block; entry != nullptr && *entry != L'\0';
         entry += wcslen(entry) + 1) {
        const std::wstring text = entry;
        const std::size_t separator = text.find(L'=', 1);
        const std::wstring prefix(kPrefix, kPrefix + std::char_traits<char>::length(kPrefix));
        if (separator != std::wstring::npos &&
            _wcsnicmp(text.c_str(), prefix.c_str(), prefix.size()) == 0) {
            const std::wstring value = text.substr(separator + 1);
            variables.push_back(
                {tools::toUtf8(text.substr(0, separator)), value, tools::toUtf8(value)});
        }
    }
    FreeEnvironmentStringsW(block);
    return variables;
}

std::string assignment(const Variable& variable) {
    return variable.name + "=" + variable.value;
}

/// The values end where the library's rooms for them do.
Finding tooLong(const Variable& variable, std::size_t most) {
    return wrong("settings",
                 variable.name + " is longer than " + std::to_string(most) +
                     " characters and counts as not set",
                 "shorten it");
}

/// Whether a file can be made in the folder.
bool isWritable(const std::wstring& folder) {
    const HANDLE handle =
        CreateFileW(folder.c_str(), FILE_ADD_FILE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    CloseHandle(handle);
    return true;
}

Finding checkFolder(const Variable& variable) {
    constexpr std::size_t kMost = 255;
    constexpr const char* kConsequence = ": the log goes to standard error";
    if (variable.value.size() > kMost) {
        return tooLong(variable, kMost);
    }
    if (variable.value.find('"') != std::string::npos) {
        return wrong("settings", assignment(variable) + " holds quotes" + kConsequence,
                     "set it without quotes, also when the folder's name has spaces");
    }
    const DWORD attributes = GetFileAttributesW(variable.wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        return wrong("settings", assignment(variable) + " is no folder" + kConsequence,
                     "make the folder, for every user whose programs are to write to it");
    }
    return isWritable(variable.wide)
               ? right("settings", assignment(variable))
               : wrong("settings",
                       assignment(variable) + " does not let this user make files" + kConsequence,
                       "give the program's user the right to make files in the folder");
}

Finding checkLevel(const Variable& variable) {
    constexpr std::array kLevels = {"error", "warning", "info", "debug"};
    constexpr std::size_t kMost = 31;
    if (variable.value.size() > kMost) {
        return tooLong(variable, kMost);
    }
    const bool isKnown = std::any_of(kLevels.begin(), kLevels.end(), [&](const char* level) {
        return _stricmp(variable.value.c_str(), level) == 0;
    });
    return isKnown ? right("settings", assignment(variable))
                   : wrong("settings", assignment(variable) + " is no level: warning is used",
                           "set it to error, warning, info or debug, without quotes or spaces");
}

Finding checkSwitch(const Variable& variable) {
    constexpr std::size_t kMost = 127;
    if (variable.value.size() > kMost) {
        return tooLong(variable, kMost);
    }
    const bool isOff = _stricmp(variable.value.c_str(), "false") == 0 || variable.value == "0";
    const bool isOn = _stricmp(variable.value.c_str(), "true") == 0 || variable.value == "1";
    return isOff || isOn ? right("settings", assignment(variable))
                         : wrong("settings",
                                 assignment(variable) + " is taken for on, as all but 0 and false",
                                 "set it to 1 or 0");
}

Finding unknownVariable(const Variable& variable) {
    const std::string meant =
        suggest(variable.name, {kFolder, kLevel, kCache, kRedirection, kStandardCalls});
    return wrong("settings", variable.name + " is none of the library's settings",
                 meant.empty() ? "remove it" : "if " + meant + " is meant, set that");
}

}  // namespace

bool areStandardCallsSet() {
    char value[128] = {};
    const DWORD length = GetEnvironmentVariableA(kStandardCalls, value, sizeof value);
    return length != 0 && length < sizeof value && _stricmp(value, "FALSE") != 0 &&
           std::strcmp(value, "0") != 0;
}

Findings checkSettings() {
    static constexpr struct {
        const char* name;
        Finding (*check)(const Variable& variable);
    } kChecks[] = {{kFolder, checkFolder},
                   {kLevel, checkLevel},
                   {kCache, checkSwitch},
                   {kRedirection, checkSwitch},
                   {kStandardCalls, checkSwitch}};
    Findings findings;
    for (const Variable& variable : libraryVariables()) {
        // The library reads an empty value as one that is not set.
        const auto* const known = std::find_if(
            std::begin(kChecks), std::end(kChecks),
            [&](const auto& each) { return _stricmp(variable.name.c_str(), each.name) == 0; });
        if (known == std::end(kChecks)) {
            findings.push_back(unknownVariable(variable));
        } else if (!variable.value.empty()) {
            findings.push_back(known->check(variable));
        }
    }
    if (findings.empty()) {
        findings.push_back(right("settings", "none are set: warnings go to standard error"));
    }
    return findings;
}

}  // namespace tez::client
