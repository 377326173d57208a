#include "system_library/card_file.h"

#include <windows.h>

#include <utility>

#include "detached_thread.h"

namespace tez::test {
namespace {

constexpr DWORD kLookInterval = 20;  // milliseconds

}  // namespace

void followCardFile(SimulatedService& service, std::string reader, std::string cardHolder,
                    std::string path) {
    const auto look = [&service, reader = std::move(reader), cardHolder = std::move(cardHolder),
                       path = std::move(path)] {
        const bool isWanted = GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
        if (isWanted && !service.hasCard(reader)) {
            service.insertCard(reader, makeDemoCard(cardHolder));
        } else if (!isWanted) {
            service.removeCard(reader);
        }
    };
    look();
    runDetached([look] {
        for (;;) {
            Sleep(kLookInterval);
            look();
        }
    });
}

}  // namespace tez::test
