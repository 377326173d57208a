#include "fake_system_library.h"

#include <gtest/gtest.h>

namespace tez::test {

namespace {

// A unique name type for each entry point, so that each gets a refusing function of its own.
template <class Name, class Result, class... Parameters>
void refuse(Result(WINAPI*& entryPoint)(Parameters...)) {
    entryPoint = [](Parameters...) -> Result {
        ADD_FAILURE() << "the system library's " << Name::text() << " was called";
        return Result();
    };
}

void refuseAll(WinscardTable& table) {
#define TEZ_REFUSE_ENTRY_POINT(name)                \
    struct Name_##name {                            \
        static const char* text() { return #name; } \
    };                                              \
    refuse<Name_##name>(table.name);
    TEZ_FOR_EACH_SYSTEM_ENTRY_POINT(TEZ_REFUSE_ENTRY_POINT)
#undef TEZ_REFUSE_ENTRY_POINT
}

}  // namespace

// The library hands its table out as const; the object itself is not.
FakeSystemLibrary::FakeSystemLibrary() : table_(const_cast<WinscardTable&>(winscardTable())) {
    refuseAll(table_);
    table_.loaded = true;
}

FakeSystemLibrary::~FakeSystemLibrary() {
    table_.loaded = false;
}

}  // namespace tez::test
