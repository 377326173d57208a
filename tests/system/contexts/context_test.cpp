// SCardEstablishContext, SCardIsValidContext and SCardReleaseContext, and the daemon's contexts
// that stand behind an application's.
#include <algorithm>
#include <atomic>
#include <thread>

#include "daemon_records.h"
#include "latch.h"
#include "received_commands.h"
#include "record_codec.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::DoAll;
using testing::DoDefault;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::NotNull;
using testing::Return;
using testing::SetArgPointee;
using testing::SizeIs;

using ContextTest = SystemTest;

TEST_F(ContextTest, EstablishWithoutAPlaceForTheHandleIsRefusedAndRegistersNothing) {
    EXPECT_CALL(host, SCardEstablishContext).Times(0);
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(
        log().entries(),
        ElementsAre(LogLine('D', "SCardEstablishContext",
                            "ESTABLISH_CONTEXT IN-PARAMS: 2, 0000000000000000, 0000000000000000"),
                    LogLine('D', "SCardEstablishContext", "ESTABLISH_CONTEXT RV: 0x80100004")));
    EXPECT_EQ(transport().opens(), 0U);
}

TEST_F(ContextTest, HandlesCountUpFromOne) {
    EXPECT_EQ(establish(), 1U);
    EXPECT_EQ(establish(), 2U);
}

TEST_F(ContextTest, AReleasedHandleIsNotIssuedAgain) {
    const SCARDCONTEXT first = establish();
    ASSERT_THAT(SCardReleaseContext(first), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(establish(), first + 1);
}

TEST_F(ContextTest, KeepsHundredsOfContextsApart) {
    std::vector<SCARDCONTEXT> contexts(300);
    std::ranges::generate(contexts, [] { return establish(); });
    for (std::size_t i = 0; i < contexts.size(); i += 2) {
        EXPECT_THAT(SCardReleaseContext(contexts[i]), Gives(SCARD_S_SUCCESS));
    }
    for (std::size_t i = 0; i < contexts.size(); ++i) {
        EXPECT_CALL(host, SCardIsValidContext(kHostContext + i)).Times(i % 2 == 0 ? 0 : 1);
        EXPECT_THAT(SCardIsValidContext(contexts[i]),
                    Gives(i % 2 == 0 ? SCARD_E_INVALID_HANDLE : SCARD_S_SUCCESS));
    }
}

TEST_F(ContextTest, PassesScopeAndReservedPointersToTheHost) {
    const int first = 0;
    const int second = 0;
    EXPECT_CALL(host, SCardEstablishContext(SCARD_SCOPE_TERMINAL, &first, &second, NotNull()));
    SCARDCONTEXT context = 0;
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_TERMINAL, &first, &second, &context),
                Gives(SCARD_S_SUCCESS));
}

TEST_F(ContextTest, LogsArgumentsOutputsAndResults) {
    const SCARDCONTEXT context = establish(SCARD_SCOPE_SYSTEM);
    EXPECT_THAT(log().messages("SCardEstablishContext", 'D'),
                ElementsAre("ESTABLISH_CONTEXT IN-PARAMS: 2, 0000000000000000, 0000000000000000",
                            "ESTABLISH_CONTEXT OUT-PARAMS: 1", "ESTABLISH_CONTEXT RV: 0x00000000"));
    SCardIsValidContext(context);
    EXPECT_THAT(log().messages("SCardIsValidContext", 'D'),
                ElementsAre("IS_VALID_CONTEXT IN-PARAMS: 1", "IS_VALID_CONTEXT RV: 0x00000000"));
    SCardReleaseContext(context);
    EXPECT_THAT(log().messages("SCardReleaseContext", 'D'),
                ElementsAre("RELEASE_CONTEXT IN-PARAMS: 1", "RELEASE_CONTEXT RV: 0x00000000"));
}

TEST_F(ContextTest, LogsHandlesInHexadecimal) {
    SCardIsValidContext(0xABCDEF0123456789);
    SCardReleaseContext(0xABCDEF0123456789);
    EXPECT_THAT(
        log().entries(),
        ElementsAre(
            LogLine('D', "SCardIsValidContext", "IS_VALID_CONTEXT IN-PARAMS: abcdef0123456789"),
            LogLine('D', "SCardIsValidContext", "IS_VALID_CONTEXT RV: 0x80100003"),
            LogLine('D', "SCardReleaseContext", "RELEASE_CONTEXT IN-PARAMS: abcdef0123456789"),
            LogLine('D', "SCardReleaseContext", "RELEASE_CONTEXT RV: 0x80100003")));
}

TEST_F(ContextTest, IsServedByTheHostAloneWithoutADaemon) {
    std::atomic<int> writes = 0;
    const ImportPatch<decltype(::WriteFile)> write(
        libraryModule(), "KERNEL32.dll", "WriteFile",
        [&](HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED overlapped) {
            ++writes;
            return ::WriteFile(file, data, size, written, overlapped);
        });
    EXPECT_CALL(host, SCardIsValidContext(kHostContext));
    EXPECT_CALL(host, SCardReleaseContext(kHostContext));
    const SCARDCONTEXT context = establish();
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(host.pcsc().contextCount(), 0U);
    EXPECT_EQ(writes, 0);
}

TEST_F(ContextTest, AFailureOfTheHostToEstablishIsReturnedWithoutFallback) {
    const SCARDCONTEXT before = establishWithDaemon();
    EXPECT_CALL(host, SCardEstablishContext)
        .WillOnce(Return(SCARD_E_NO_SERVICE))
        .WillRepeatedly(DoDefault());
    SCARDCONTEXT context = 77;
    EXPECT_THAT(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context),
                Gives(SCARD_E_NO_SERVICE));
    EXPECT_EQ(context, 77U);
    EXPECT_EQ(log().messages("SCardEstablishContext").back(), "ESTABLISH_CONTEXT RV: 0x8010001D");
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(establish(), before + 1) << "the failure must not have taken a handle";
}

TEST_F(ContextTest, EstablishingSendsNothingToTheDaemon) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ContextTest, TheFirstRemoteUseMakesADaemonContextWithTheContextsScope) {
    startDaemon();
    const SCARDCONTEXT context = establish(SCARD_SCOPE_SYSTEM);
    waitForWatch();
    connect(context, kRemoteReader);
    EXPECT_THAT(receivedCommands(daemon),
                ElementsAre(Command::kEstablishContext, Command::kConnect));
    EXPECT_THAT(daemon.requests(Command::kEstablishContext),
                ElementsAre(IsRequest(
                    Command::kEstablishContext,
                    RecordBytes(EstablishLayout::kSize).u32(EstablishLayout::kScope, 2))));
    EXPECT_THAT(log().messages("establishRemoteContext", 'D'),
                ElementsAre("ESTABLISH REMOTE CONTEXT IN-PARAMS: 2",
                            "ESTABLISH REMOTE CONTEXT OUT-PARAMS: 21474836481",
                            "ESTABLISH REMOTE CONTEXT RV: 0x00000000"));
    // The daemon's context is shown as the 32-bit number that a long is.
    EXPECT_THAT(log().messages("getRemoteContextVolatile", 'D'),
                ElementsAre("Local context 7a000001 mapped to remote context 1"));
}

TEST_F(ContextTest, ASecondRemoteUseTakesTheSameDaemonContext) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    connect(context, kRemoteReader);
    EXPECT_THAT(receivedCommands(daemon),
                ElementsAre(Command::kEstablishContext, Command::kListReaders, Command::kConnect));
    EXPECT_EQ(u64At(daemon.requests()[1].body, 0), kDaemonContext);
    EXPECT_EQ(u64At(daemon.requests()[2].body, 0), kDaemonContext);
}

TEST_F(ContextTest, EachContextHasADaemonContextOfItsOwn) {
    const SCARDCONTEXT first = establishWithDaemon();
    const SCARDCONTEXT second = establish();
    listReaders(first);
    listReaders(second);
    const auto lists = daemon.requests(Command::kListReaders);
    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_EQ(u64At(lists[0].body, 0), kDaemonContext);
    EXPECT_EQ(u64At(lists[1].body, 0), kDaemonContext + 1);
}

TEST_F(ContextTest, ReleaseAfterRemoteUseGivesTheDaemonContextBackOnce) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    daemon.clearRecords();
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(),
                ElementsAre(IsRequest(
                    Command::kReleaseContext,
                    RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonContext))));
    EXPECT_THAT(log().messages("releaseRemoteContext", 'D'),
                ElementsAre("RELEASE REMOTE CONTEXT IN-PARAMS: 0000000500000001",
                            "RELEASE REMOTE CONTEXT RV: 0x00000000"));
    EXPECT_EQ(remote.contextCount(), 0U);
}

TEST_F(ContextTest, ASecondReleaseIsRefusedAndSendsNothing) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    daemon.clearRecords();
    EXPECT_CALL(host, SCardReleaseContext).Times(0);
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ContextTest, AReleasedHandleIsNotValid) {
    const SCARDCONTEXT context = establish();
    ASSERT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_CALL(host, SCardIsValidContext).Times(0);
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(ContextTest, AFailingHostReleaseIsReturnedAndRemovesTheContextAllTheSame) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    EXPECT_CALL(host, SCardReleaseContext(kHostContext)).WillOnce(Return(SCARD_F_COMM_ERROR));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_F_COMM_ERROR));
    EXPECT_THAT(daemon.requests(Command::kReleaseContext), SizeIs(1));
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_E_INVALID_HANDLE));
}

TEST_F(ContextTest, TheHostJudgesValidityAlone) {
    const SCARDCONTEXT context = establishWithDaemon();
    EXPECT_CALL(host, SCardIsValidContext(kHostContext)).WillOnce(Return(SCARD_E_SERVICE_STOPPED));
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_E_SERVICE_STOPPED));
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ContextTest, StaysValidWhenTheDaemonGoes) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    stopDaemon();
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
}

TEST_F(ContextTest, ADaemonThatRefusesAContextIsAskedAgainByTheNextCall) {
    const SCARDCONTEXT context = establishWithDaemon();
    daemon.on(
        Command::kEstablishContext,
        answering(EstablishLayout::kSize, {{EstablishLayout::kContext, 99},
                                           {EstablishLayout::kResult,
                                            static_cast<std::uint32_t>(SCARD_E_SERVER_TOO_BUSY)}}));
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    EXPECT_THAT(SCardConnectA(context, kRemoteReader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_Tx, &card,
                              &protocol),
                Gives(SCARD_E_SERVER_TOO_BUSY));
    EXPECT_THAT(log().messages("establishRemoteContext", 'D'),
                ElementsAre("ESTABLISH REMOTE CONTEXT IN-PARAMS: 0",
                            "ESTABLISH REMOTE CONTEXT RV: 0x80100031"));
    EXPECT_THAT(log().messages("getRemoteContextVolatile"), IsEmpty());
    daemon.restore(Command::kEstablishContext);
    connect(context, kRemoteReader);
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), SizeIs(2));
}

TEST_F(ContextTest, AResultOfTheDaemonsReleaseIsLoggedOnly) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    daemon.on(Command::kReleaseContext, refusing<HandleLayout>(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(log().messages("releaseRemoteContext").back(),
              "RELEASE REMOTE CONTEXT RV: 0x80100003");
}

TEST_F(ContextTest, APipeThatBreaksDuringTheDaemonsReleaseIsLoggedOnly) {
    const SCARDCONTEXT context = establishWithDaemon();
    listReaders(context);
    daemon.on(Command::kReleaseContext, closing());
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages("releaseRemoteContext", 'W'), ElementsAre("Failed to receive data"));
    EXPECT_EQ(log().messages("releaseRemoteContext").back(),
              "RELEASE REMOTE CONTEXT RV: 0x8010001D");
}

TEST_F(ContextTest, WithoutACounterpartAtTheHostItIsInvalidUntilTheDaemonComes) {
    EXPECT_CALL(host, SCardEstablishContext)
        .WillOnce(DoAll(SetArgPointee<3>(SCARDCONTEXT{0}), Return(SCARD_S_SUCCESS)));
    const SCARDCONTEXT context = establish(SCARD_SCOPE_SYSTEM);
    EXPECT_CALL(host, SCardIsValidContext).Times(0);
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_E_INVALID_HANDLE));
    testing::Mock::VerifyAndClearExpectations(&host);

    EXPECT_CALL(host, SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, NotNull()));
    startDaemon();
    waitForWatch();
    EXPECT_CALL(host, SCardIsValidContext(kHostContext));
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_S_SUCCESS));
}

TEST_F(ContextTest, WithoutACounterpartAtTheHostNothingIsReleasedThere) {
    EXPECT_CALL(host, SCardEstablishContext)
        .WillOnce(DoAll(SetArgPointee<3>(SCARDCONTEXT{0}), Return(SCARD_S_SUCCESS)));
    const SCARDCONTEXT context = establish();
    EXPECT_CALL(host, SCardReleaseContext).Times(0);
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
}

// The entry goes back as it was read when the daemon has answered, so a context that was released
// meanwhile stands again.
TEST_F(ContextTest, ReleasedWhileItsDaemonContextIsMadeItStandsAgain) {
    const SCARDCONTEXT context = establishWithDaemon();
    Latch released(1);
    daemon.on(Command::kEstablishContext, [&](const Request&) -> std::optional<Reply> {
        released.wait();
        return std::nullopt;
    });
    std::thread caller([&] {
        DWORD length = 0;
        SCardListReadersA(context, nullptr, nullptr, &length);
    });
    EXPECT_TRUE(daemon.waitForRequest(Command::kEstablishContext, 1, kPatience));
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    released.countDown();
    caller.join();
    EXPECT_THAT(daemon.requests(Command::kReleaseContext), IsEmpty());
    EXPECT_CALL(host, SCardIsValidContext(kHostContext));
    EXPECT_THAT(SCardIsValidContext(context), Gives(SCARD_E_INVALID_HANDLE)) << "as the host says";
}

TEST_F(ContextTest, TwoFirstRemoteUsesAtOnceMakeADaemonContextEachAndOneStays) {
    const SCARDCONTEXT context = establishWithDaemon();
    Latch bothAsked(2);
    daemon.on(Command::kEstablishContext, [&](const Request&) -> std::optional<Reply> {
        bothAsked.arriveAndWait();
        return std::nullopt;
    });
    const auto list = [&] {
        DWORD length = 0;
        EXPECT_THAT(SCardListReadersA(context, nullptr, nullptr, &length), Gives(SCARD_S_SUCCESS));
    };
    std::thread first(list);
    std::thread second(list);
    first.join();
    second.join();
    list();
    EXPECT_THAT(daemon.requests(Command::kEstablishContext), SizeIs(2));
    EXPECT_EQ(remote.contextCount(), 2U);
    EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(daemon.requests(Command::kReleaseContext), SizeIs(1));
    EXPECT_EQ(remote.contextCount(), 1U);
}

}  // namespace
}  // namespace tez::test
