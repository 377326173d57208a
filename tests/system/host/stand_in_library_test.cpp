// The library that stands in for the host's own, called through its exports.
#include "system_library/stand_in_library.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "patience.h"
#include "system_library/mock_system_calls.h"

namespace tez::test {
namespace {

using testing::NiceMock;
using testing::Return;

constexpr const char* kEntryPoints[] = {
#define TEZ_NAME(Result, name, parameters, arguments) #name,
    TEZ_FOR_EACH_SYSTEM_CALL(TEZ_NAME)
#undef TEZ_NAME
};

class StandInLibraryTest : public testing::Test {
  protected:
    void TearDown() override { library.setCalls(nullptr); }

    template <class Function>
    Function* entry(const char* name) const {
        return exportedFunction<Function>(library.module(), name);
    }

    SCARDCONTEXT establish() const {
        SCARDCONTEXT context = 0;
        EXPECT_EQ(entry<decltype(SCardEstablishContext)>("SCardEstablishContext")(
                      SCARD_SCOPE_USER, nullptr, nullptr, &context),
                  SCARD_S_SUCCESS);
        return context;
    }

    StandInLibrary library;
};

TEST_F(StandInLibraryTest, HasTheEntryPointsOfASystemLibrary) {
    EXPECT_EQ(std::size(kEntryPoints), 31U);
    for (const char* name : kEntryPoints) {
        EXPECT_NE(GetProcAddress(library.module(), name), nullptr) << name;
    }
}

TEST_F(StandInLibraryTest, ComesInAVariantThatLacksOneEntryPoint) {
    const StandInLibrary incomplete(incompleteStandInPath());
    for (const std::string name : kEntryPoints) {
        EXPECT_EQ(GetProcAddress(incomplete.module(), name.c_str()) == nullptr,
                  name == "SCardReleaseStartedEvent")
            << name;
    }
}

TEST_F(StandInLibraryTest, IssuesHandlesThatNobodyElseWould) {
    const SCARDCONTEXT context = establish();
    EXPECT_EQ(context, 0x7A000001U);
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    EXPECT_EQ(entry<decltype(SCardConnectA)>("SCardConnectA")(
                  context, kHostReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card, &protocol),
              SCARD_S_SUCCESS);
    EXPECT_EQ(card, 0x7B000001U);
}

TEST_F(StandInLibraryTest, HoldsACardWhileTheCardFileIsThere) {
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("card-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::remove(file);
    setEnvironment(kCardFileVariable, file.string());
    const SCARDCONTEXT context = establish();
    SCARD_READERSTATEA reader = {};
    reader.szReader = kHostReader;
    const auto waitForChange = [&] {
        reader.dwCurrentState = reader.dwEventState & ~DWORD{SCARD_STATE_CHANGED};
        EXPECT_EQ(entry<decltype(SCardGetStatusChangeA)>("SCardGetStatusChangeA")(
                      context, DWORD{kPatience / std::chrono::milliseconds(1)}, &reader, 1),
                  SCARD_S_SUCCESS);
    };
    waitForChange();
    EXPECT_NE(reader.dwEventState & SCARD_STATE_EMPTY, 0U);

    std::ofstream(file).close();
    waitForChange();
    EXPECT_NE(reader.dwEventState & SCARD_STATE_PRESENT, 0U);
    EXPECT_GT(reader.cbAtr, 0U);

    std::filesystem::remove(file);
    waitForChange();
    EXPECT_NE(reader.dwEventState & SCARD_STATE_EMPTY, 0U);
}

TEST_F(StandInLibraryTest, CountsItsBuffersAndTheFreesOfOthers) {
    auto* const freeMemory = entry<decltype(SCardFreeMemory)>("SCardFreeMemory");
    const SCARDCONTEXT context = establish();
    char* readers = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(entry<decltype(SCardListReadersA)>("SCardListReadersA")(
                  context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
              SCARD_S_SUCCESS);
    EXPECT_STREQ(readers, kHostReader);
    EXPECT_EQ(length, std::string(kHostReader).size() + 2);
    EXPECT_EQ(library.counters().outstanding, 1U);

    EXPECT_EQ(freeMemory(context, &length), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(library.counters().outstanding, 1U);
    EXPECT_EQ(library.counters().foreignFrees, 1U);

    EXPECT_EQ(freeMemory(context, readers), SCARD_S_SUCCESS);
    EXPECT_EQ(library.counters().outstanding, 0U);
    EXPECT_EQ(freeMemory(context, readers), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(library.counters().foreignFrees, 2U);
}

TEST_F(StandInLibraryTest, LetsATestAnswerTheCalls) {
    auto* const cancel = entry<decltype(SCardCancel)>("SCardCancel");
    NiceMock<MockSystemCalls> calls;
    library.setCalls(&calls);
    EXPECT_CALL(calls, SCardCancel(0x123)).WillOnce(Return(SCARD_E_NO_SERVICE));
    EXPECT_EQ(cancel(0x123), SCARD_E_NO_SERVICE);
    EXPECT_EQ(establish(), 0x7A000001U);
    EXPECT_EQ(calls.pcsc().contextCount(), 1U);

    library.setCalls(nullptr);
    EXPECT_EQ(cancel(0x123), SCARD_E_INVALID_HANDLE);
}

TEST_F(StandInLibraryTest, TakesATestAwayOnlyWhenNoCallIsInsideIt) {
    NiceMock<MockSystemCalls> calls;
    std::atomic<bool> left = false;
    std::promise<void> inside;
    std::promise<void> leaving;
    ON_CALL(calls, SCardCancel).WillByDefault([&](SCARDCONTEXT) -> LONG {
        inside.set_value();
        leaving.get_future().wait();
        // Long enough for a library that does not wait to have forgotten the test.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        left = true;
        return SCARD_S_SUCCESS;
    });
    library.setCalls(&calls);
    std::thread caller([&] { entry<decltype(SCardCancel)>("SCardCancel")(1); });
    inside.get_future().wait();
    leaving.set_value();
    library.setCalls(nullptr);
    EXPECT_TRUE(left);
    caller.join();
}

}  // namespace
}  // namespace tez::test
