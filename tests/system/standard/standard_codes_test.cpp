// With standard answers a wait gives 0x8010000A when its time is over and 0x80100002 after
// SCardCancel, for every mix of sides.
#include "standard_calls.h"
#include "wide_text.h"

namespace tez::test {
namespace {

struct Mix {
    const char* name;
    std::vector<const char*> readers;
    DWORD flags = 0;
};

void PrintTo(const Mix& mix, std::ostream* stream) {
    *stream << mix.name;
}

class WaitCodes : public StandardTest, public testing::WithParamInterface<Mix> {
  protected:
    /// Entries that have nothing to tell.
    static std::vector<SCARD_READERSTATEA> entries() {
        std::vector<SCARD_READERSTATEA> entries;
        for (const char* const reader : GetParam().readers) {
            const bool isPnp = std::string(reader) == kPnpReader;
            entries.push_back(readerState(
                reader, (isPnp ? count(2) : DWORD{SCARD_STATE_PRESENT}) | GetParam().flags));
        }
        return entries;
    }
};

TEST_P(WaitCodes, TellATimeout) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, 120, entries());
    EXPECT_THAT(wait.result(), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(wait.duration(), 95U);
}

TEST_P(WaitCodes, TellATimeoutAtOnceToWhoAsksOnly) {
    const SCARDCONTEXT context = establishAndList();
    std::vector<SCARD_READERSTATEA> states = entries();
    EXPECT_THAT(SCardGetStatusChangeA(context, 0, states.data(), static_cast<DWORD>(states.size())),
                Gives(SCARD_E_TIMEOUT));
}

TEST_P(WaitCodes, TellACancel) {
    const SCARDCONTEXT context = establishAndList();
    const BackgroundWait wait(context, INFINITE, entries());
    ASSERT_TRUE(waitForCalls(1));
    EXPECT_FALSE(wait.isOver(std::chrono::milliseconds(150)));
    EXPECT_THAT(SCardCancel(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(wait.result(), Gives(SCARD_E_CANCELLED));
}

INSTANTIATE_TEST_SUITE_P(
    Mixes, WaitCodes,
    testing::Values(Mix{"HostAlone", {kHostReader}}, Mix{"RemoteAlone", {kRemoteReader}},
                    Mix{"BothSides", {kHostReader, kRemoteReader}},
                    Mix{"PseudoReader", {kPnpReader}},
                    Mix{"All", {kPnpReader, kHostReader, kRemoteReader}},
                    Mix{"Ignored", {kHostReader, kRemoteReader}, SCARD_STATE_IGNORE},
                    Mix{"Awaited", {"No Reader"}, SCARD_STATE_UNKNOWN}, Mix{"NoEntries", {}}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(StandardTest, AWideCallWithoutEntriesSleepsItsTimeAndEndsAtACancel) {
    const SCARDCONTEXT context = establish();
    const ULONGLONG start = GetTickCount64();
    EXPECT_THAT(SCardGetStatusChangeW(context, 120, nullptr, 0), Gives(SCARD_E_TIMEOUT));
    EXPECT_GE(GetTickCount64() - start, 95U);
    std::thread canceller([this, context] {
        EXPECT_TRUE(waitForCalls(2));
        Sleep(100);
        SCardCancel(context);
    });
    EXPECT_THAT(SCardGetStatusChangeW(context, INFINITE, nullptr, 0), Gives(SCARD_E_CANCELLED));
    canceller.join();
}

}  // namespace
}  // namespace tez::test
