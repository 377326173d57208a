#include "context/context_registry.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake_daemon.h"
#include "fake_system_library.h"
#include "log_matchers.h"

using namespace tez;
using test::establishAnswer;
using test::FakeSystemLibrary;
using test::FreshLog;
using test::IsSentEstablish;
using test::LogLine;
using test::RemoteOnlyService;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

constexpr SCARDCONTEXT kSystemContext = 0x7A000001;
constexpr std::uint64_t kDaemonContext = 0x5000001;

}  // namespace

TEST(ContextRegistry, NumbersContextsFromOneAndNeverAgain) {
    EXPECT_EQ(registerContext(kSystemContext, 2), 1U);
    EXPECT_EQ(registerContext(kSystemContext, 2), 2U);
    EXPECT_TRUE(unregisterContext(2));
    EXPECT_EQ(registerContext(kSystemContext, 2), 3U);
}

TEST(ContextRegistry, KnowsAContextUntilItIsUnregistered) {
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    EXPECT_TRUE(isContextKnown(context));
    EXPECT_EQ(getLocalContext(context), kSystemContext);
    EXPECT_TRUE(unregisterContext(context));
    EXPECT_FALSE(isContextKnown(context));
    EXPECT_EQ(getLocalContext(context), 0U);
    EXPECT_FALSE(unregisterContext(context));
}

TEST(ContextRegistry, KnowsNothingOfOtherHandles) {
    registerContext(kSystemContext, 2);
    for (const SCARDCONTEXT unknown : {SCARDCONTEXT{0}, SCARDCONTEXT{2}, kSystemContext}) {
        EXPECT_FALSE(isContextKnown(unknown));
        EXPECT_EQ(getLocalContext(unknown), 0U);
        EXPECT_FALSE(unregisterContext(unknown));
    }
}

TEST(ContextRegistry, HandsTheWholeEntryBack) {
    const auto entry = unregisterContext(registerContext(kSystemContext, 2));
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->systemHandle, kSystemContext);
    EXPECT_EQ(entry->remote, 0xFFFFFFFFU);
    EXPECT_EQ(entry->remoteLocal, 0xFFFFFFFFU);
    EXPECT_EQ(entry->scope, 2U);
    EXPECT_FALSE(entry->cancelled);
}

TEST(ContextRegistry, TellsEachChangeOfTheCancelledMark) {
    const FreshLog log;
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    setContextCancelled(context, false);
    setContextCancelled(context, true);
    setContextCancelled(context, true);
    setContextCancelled(context, false);
    setContextCancelled(context, true);
    setContextCancelled(context + 1, true);
    EXPECT_THAT(
        log.entries(),
        ElementsAre(LogLine('D', "setContextCancelled", "Setting ContextCancelled 7a000001 to 1"),
                    LogLine('D', "setContextCancelled", "Setting ContextCancelled 7a000001 to 0"),
                    LogLine('D', "setContextCancelled", "Setting ContextCancelled 7a000001 to 1")));
    EXPECT_TRUE(unregisterContext(context)->cancelled);
}

TEST(RemoteContext, OfAnUnknownHandleIsNone) {
    std::uint64_t remoteContext = 5;
    EXPECT_EQ(getRemoteContextVolatile(1, remoteContext, true), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(remoteContext, 0xFFFFFFFFU);
}

TEST(RemoteContext, IsNoneWithoutAService) {
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    std::uint64_t remoteContext = 5;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_E_NO_SERVICE);
    EXPECT_EQ(remoteContext, 0xFFFFFFFFU);
}

TEST(RemoteContext, IsMadeOnFirstUseOnlyWithTheScopeOfTheContext) {
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(kDaemonContext)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 0x11223344);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, kDaemonContext);
    EXPECT_THAT(service.daemon().requests, ElementsAre(IsSentEstablish(0x11223344, true)));

    remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, kDaemonContext);
    EXPECT_THAT(service.daemon().requests, SizeIs(1));
}

TEST(RemoteContext, HasTwoBindingsApartFromEachOther) {
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(0x5000001), establishAnswer(0x5000002)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    std::uint64_t remote = 0;
    std::uint64_t remoteLocal = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteLocal, false), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(context, remote, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteLocal, 0x5000001U);
    EXPECT_EQ(remote, 0x5000002U);
    EXPECT_THAT(service.daemon().requests,
                ElementsAre(IsSentEstablish(2, false), IsSentEstablish(2, true)));
    const auto entry = unregisterContext(context);
    EXPECT_EQ(entry->remote, 0x5000002U);
    EXPECT_EQ(entry->remoteLocal, 0x5000001U);
}

TEST(RemoteContext, TellsWhatItIsMappedToWhenItIsMade) {
    const FreshLog log;
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(77), establishAnswer(78)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, false), SCARD_S_SUCCESS);
    EXPECT_THAT(
        log.entries(),
        ElementsAre(
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT IN-PARAMS: 2"),
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT OUT-PARAMS: 77"),
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT RV: 0x00000000"),
            LogLine('D', "getRemoteContextVolatile",
                    "Local context 7a000001 mapped to remote context 77"),
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT IN-PARAMS: 2"),
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT OUT-PARAMS: 78"),
            LogLine('D', "establishRemoteContext", "ESTABLISH REMOTE CONTEXT RV: 0x00000000"),
            LogLine('D', "getRemoteContextVolatile",
                    "Local context 7a000001 mapped to remote-local context 78")));
}

TEST(RemoteContext, IsTriedAgainAfterAFailure) {
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(kDaemonContext, 0x80100006),
                                establishAnswer(kDaemonContext)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_E_NO_MEMORY);
    EXPECT_EQ(remoteContext, 0xFFFFFFFFU);
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, kDaemonContext);
}

TEST(RemoteContext, WithTheValueOfNoneCountsAsUnboundButWideOnesDoNot) {
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(0xFFFFFFFF), establishAnswer(0xFFFFFFFFFFFFFFFF)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, 0xFFFFFFFFFFFFFFFFU);
    EXPECT_THAT(service.daemon().requests, SizeIs(2));
}

TEST(RemoteContext, IsMadeAnewWithTheSameScopeAfterInvalidation) {
    RemoteOnlyService service;
    service.daemon().answers = {establishAnswer(0x5000001), establishAnswer(0x5000002)};
    const SCARDCONTEXT context = registerContext(kSystemContext, 1);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    invalidateRemoteContexts();
    EXPECT_THAT(service.daemon().requests, SizeIs(1)) << "the old one is not released";
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, 0x5000002U);
    EXPECT_THAT(service.daemon().requests.back(), IsSentEstablish(1, true));
}

TEST(ContextRegistry, UnbindsBothBindingsOfEveryContextAndTellsIt) {
    RemoteOnlyService service;
    const FreshLog log;
    service.daemon().answers = {establishAnswer(1), establishAnswer(2), establishAnswer(3)};
    const SCARDCONTEXT first = registerContext(kSystemContext, 1);
    const SCARDCONTEXT second = registerContext(kSystemContext, 1);
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(first, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(first, remoteContext, false), SCARD_S_SUCCESS);
    EXPECT_EQ(getRemoteContextVolatile(second, remoteContext, false), SCARD_S_SUCCESS);
    const std::size_t before = log.entries().size();
    invalidateRemoteContexts();
    std::vector<test::LogEntry> told = log.entries();
    told.erase(told.begin(), told.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_THAT(
        told, UnorderedElementsAre(
                  LogLine('D', "invalidateRemoteContexts", "Removed mapping of local context 1"),
                  LogLine('D', "invalidateRemoteContexts", "Removed mapping of local context 2")));
    for (const SCARDCONTEXT context : {first, second}) {
        const auto entry = unregisterContext(context);
        EXPECT_EQ(entry->remote, NO_REMOTE_CONTEXT);
        EXPECT_EQ(entry->remoteLocal, NO_REMOTE_CONTEXT);
        EXPECT_EQ(entry->systemHandle, kSystemContext);
    }
}

namespace {

/// Lets something happen while the daemon is being asked for a context.
class InterruptingConnection : public test::FakeDaemonConnection {
  public:
    InterruptingConnection(test::FakeDaemonState& state, std::function<void()> meanwhile)
        : FakeDaemonConnection(state), meanwhile_(std::move(meanwhile)) {}

    LONG readMessage(void* buffer, std::uint64_t size) override {
        if (meanwhile_ != nullptr) {
            std::exchange(meanwhile_, nullptr)();
        }
        return FakeDaemonConnection::readMessage(buffer, size);
    }

  private:
    std::function<void()> meanwhile_;
};

/// Binds a context's remote slot, with something happening meanwhile.
void bindRemote(SCARDCONTEXT context, std::function<void()> meanwhile) {
    static test::FakeDaemonState daemon;
    daemon.answers = {establishAnswer(kDaemonContext)};
    setServiceState(ServiceState::RemoteOnly);
    releaseConnection(std::make_unique<InterruptingConnection>(daemon, std::move(meanwhile)));
    std::uint64_t remoteContext = 0;
    EXPECT_EQ(getRemoteContextVolatile(context, remoteContext, true), SCARD_S_SUCCESS);
    EXPECT_EQ(remoteContext, kDaemonContext);
    clearConnectionPool();
}

}  // namespace

TEST(RemoteContext, BringsAContextBackThatWasReleasedMeanwhile) {
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    bindRemote(context, [&] { EXPECT_TRUE(unregisterContext(context)); });
    EXPECT_TRUE(isContextKnown(context));
    const auto entry = unregisterContext(context);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->systemHandle, kSystemContext);
    EXPECT_EQ(entry->remote, kDaemonContext);
}

TEST(RemoteContext, OverwritesTheWholeEntryWithWhatItHadRead) {
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    bindRemote(context, [&] { setContextCancelled(context, true); });
    EXPECT_FALSE(unregisterContext(context)->cancelled);
}

TEST(RemoteContext, HoldsNoLockWhileTheDaemonIsAsked) {
    const SCARDCONTEXT context = registerContext(kSystemContext, 2);
    bindRemote(context, [&] { EXPECT_EQ(registerContext(0, 0), context + 1); });
    EXPECT_TRUE(isContextKnown(context + 1));
}

TEST(ContextRegistry, GivesASystemContextToEachThatLacksOne) {
    FakeSystemLibrary system;
    static std::vector<DWORD> scopes;
    system.table().SCardEstablishContext = [](DWORD scope, LPCVOID reserved1, LPCVOID reserved2,
                                              LPSCARDCONTEXT context) -> LONG {
        EXPECT_EQ(reserved1, nullptr);
        EXPECT_EQ(reserved2, nullptr);
        scopes.push_back(scope);
        *context = 0x7B000000 + scope;
        return SCARD_S_SUCCESS;
    };
    const SCARDCONTEXT complete = registerContext(kSystemContext, 2);
    const SCARDCONTEXT first = registerContext(0, 1);
    const SCARDCONTEXT second = registerContext(0, 5);
    establishMissingLocalContexts();
    EXPECT_THAT(scopes, UnorderedElementsAre(1, 5));
    EXPECT_EQ(getLocalContext(complete), kSystemContext);
    EXPECT_EQ(getLocalContext(first), 0x7B000001U);
    EXPECT_EQ(getLocalContext(second), 0x7B000005U);

    establishMissingLocalContexts();
    EXPECT_THAT(scopes, SizeIs(2)) << "each is made once";
}

TEST(ContextRegistry, LeavesAContextWithoutASystemContextThatCannotBeMade) {
    FakeSystemLibrary system;
    system.table().SCardEstablishContext = [](DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT) -> LONG {
        return SCARD_E_NO_SERVICE;
    };
    const SCARDCONTEXT context = registerContext(0, 2);
    establishMissingLocalContexts();
    EXPECT_TRUE(isContextKnown(context));
    EXPECT_EQ(getLocalContext(context), 0U);
}
