#include <string>

#include "remote_only_test.h"

using namespace tez;
using test::Bytes;
using test::Command;
using test::ConnectLayout;
using test::DispositionLayout;
using test::establishAnswer;
using test::HandleLayout;
using test::IsSent;
using test::LogLine;
using test::multiString;
using test::ReconnectLayout;
using test::RecordBytes;
using test::StatusLayout;
using testing::Contains;
using testing::IsEmpty;

namespace {

RecordBytes connectRecord(std::uint32_t protocols, std::uint64_t card, std::uint32_t activeProtocol,
                          std::uint32_t rv = 0) {
    return RecordBytes(ConnectLayout::kSize)
        .u64(ConnectLayout::kContext, 0x5000001)
        .text(ConnectLayout::kReader, "Reader A")
        .u32(ConnectLayout::kShareMode, SCARD_SHARE_SHARED)
        .u32(ConnectLayout::kProtocols, protocols)
        .u64(ConnectLayout::kCard, card)
        .u32(ConnectLayout::kActiveProtocol, activeProtocol)
        .u32(ConnectLayout::kResult, rv);
}

RecordBytes statusRecord(std::uint32_t state, std::uint32_t protocol, std::uint32_t atrLength,
                         std::uint32_t rv) {
    return RecordBytes(StatusLayout::kSize)
        .u64(StatusLayout::kCard, 0x6000001)
        .u32(StatusLayout::kState, state)
        .u32(StatusLayout::kProtocol, protocol)
        .raw(StatusLayout::kAtr, Bytes(atrLength, 0x3B))
        .u32(StatusLayout::kAtrLength, atrLength)
        .u32(StatusLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyCard : public test::RemoteOnlyTest {
  protected:
    LONG connect(SCARDCONTEXT context, const char* reader, DWORD protocols = SCARD_PROTOCOL_Tx) {
        return SCardConnectA(context, reader, SCARD_SHARE_SHARED, protocols, &card_,
                             &activeProtocol_);
    }
    SCARDHANDLE card() const { return card_; }
    DWORD activeProtocol() const { return activeProtocol_; }

  private:
    SCARDHANDLE card_ = 77;
    DWORD activeProtocol_ = 77;
};

TEST_F(RemoteOnlyCard, IsConnectedAtTheDaemon) {
    const SCARDCONTEXT context = registerContext(0, 2);
    daemon().answers = {establishAnswer(kDaemonContext), connectRecord(3, kDaemonCard, 2)};
    EXPECT_EQ(connect(context, "Reader A"), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest().command, Command::kEstablishContext);
    EXPECT_THAT(takeRequest(), IsSent(Command::kConnect, connectRecord(3, 0, 0)));
    EXPECT_EQ(activeProtocol(), static_cast<DWORD>(SCARD_PROTOCOL_T1));
    EXPECT_EQ(card(), 1U);
    const auto entry = findCardHandle(card());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->target, kDaemonCard);
    EXPECT_EQ(entry->context, context);
    EXPECT_STREQ(entry->readerName.get(), "Reader A");
    EXPECT_FALSE(entry->isLocal);
}

TEST_F(RemoteOnlyCard, HasItsProtocolsConvertedFromVersionOneOn) {
    daemon().versionMinor = 1;
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {connectRecord(6, kDaemonCard, 4)};
    EXPECT_EQ(connect(context, "Reader A", 0x10002), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kConnect, connectRecord(6, 0, 0)));
    EXPECT_EQ(activeProtocol(), 0x10000U);
}

TEST_F(RemoteOnlyCard, HasItsProtocolsRawBelowVersionOne) {
    daemon().versionMinor = 0;
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {connectRecord(0x10002, kDaemonCard, 4)};
    EXPECT_EQ(connect(context, "Reader A", 0x10002), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kConnect, connectRecord(0x10002, 0, 0)));
    EXPECT_EQ(activeProtocol(), 4U);
}

TEST_F(RemoteOnlyCard, IsNotConnectedWhenTheDaemonRefuses) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {connectRecord(3, kDaemonCard, 2, 0x80100009)};
    EXPECT_EQ(connect(context, "Reader A"), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(card(), 0U);
    EXPECT_EQ(activeProtocol(), 77U);
    EXPECT_EQ(findCardHandle(1), nullptr);
}

TEST_F(RemoteOnlyCard, IsNotConnectedWithoutItsArguments) {
    const SCARDCONTEXT context = boundContext();
    SCARDHANDLE handle = 77;
    DWORD protocol = 0;
    EXPECT_EQ(SCardConnectA(context, "Reader A", 2, 3, nullptr, &protocol),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardConnectA(context, "Reader A", 2, 3, &handle, nullptr),
              SCARD_E_INVALID_PARAMETER);
    EXPECT_THAT(log().entries(), Contains(LogLine('W', "SCardConnectA", "phCard cannot be NULL")));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', "SCardConnectA", "pdwActiveProtocol cannot be NULL")));
    EXPECT_EQ(connect(context, nullptr), SCARD_E_UNKNOWN_READER);
    EXPECT_EQ(connect(context + 1, "Reader A"), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyCard, IsConnectedByANameThatFitsWithItsEndOnly) {
    const SCARDCONTEXT context = boundContext();
    EXPECT_EQ(connect(context, std::string(129, 'r').c_str()), SCARD_E_INVALID_VALUE);
    EXPECT_EQ(connect(context, std::string(128, 'r').c_str()), SCARD_E_INVALID_VALUE);
    EXPECT_THAT(daemon().requests, IsEmpty());
    daemon().answers = {connectRecord(3, kDaemonCard, 1)};
    EXPECT_EQ(connect(context, std::string(127, 'r').c_str()), SCARD_S_SUCCESS);
    EXPECT_EQ(takeRequest().body[ConnectLayout::kReader + 127], 0);
}

TEST_F(RemoteOnlyCard, IsReconnected) {
    const SCARDHANDLE handle = remoteCard();
    daemon().answers = {RecordBytes(ReconnectLayout::kSize)
                            .u64(ReconnectLayout::kCard, kDaemonCard)
                            .u32(ReconnectLayout::kShareMode, 2)
                            .u32(ReconnectLayout::kProtocols, 6)
                            .u32(ReconnectLayout::kInitialization, 1)
                            .u32(ReconnectLayout::kActiveProtocol, 4)};
    DWORD protocol = 0;
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, 0x10002, SCARD_RESET_CARD, &protocol),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kReconnect, RecordBytes(ReconnectLayout::kSize)
                                                .u64(ReconnectLayout::kCard, kDaemonCard)
                                                .u32(ReconnectLayout::kShareMode, 2)
                                                .u32(ReconnectLayout::kProtocols, 6)
                                                .u32(ReconnectLayout::kInitialization, 1)));
    EXPECT_EQ(protocol, 0x10000U);
    EXPECT_EQ(SCardReconnect(handle, SCARD_SHARE_SHARED, 3, SCARD_RESET_CARD, nullptr),
              SCARD_E_INVALID_PARAMETER);
}

TEST_F(RemoteOnlyCard, IsForgottenWhenTheDaemonHasDisconnectedIt) {
    const SCARDHANDLE handle = remoteCard();
    const Bytes record = RecordBytes(DispositionLayout::kSize)
                             .u64(DispositionLayout::kCard, kDaemonCard)
                             .u32(DispositionLayout::kDisposition, SCARD_RESET_CARD)
                             .bytes();
    daemon().answers = {RecordBytes(DispositionLayout::kSize)
                            .u64(DispositionLayout::kCard, kDaemonCard)
                            .u32(DispositionLayout::kDisposition, 1)
                            .u32(DispositionLayout::kResult, 0x80100069),
                        record};
    EXPECT_EQ(SCardDisconnect(handle, SCARD_RESET_CARD), SCARD_W_REMOVED_CARD);
    EXPECT_NE(findCardHandle(handle), nullptr);
    EXPECT_EQ(SCardDisconnect(handle, SCARD_RESET_CARD), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kDisconnect, record));
    EXPECT_EQ(SCardDisconnect(handle, SCARD_RESET_CARD), SCARD_E_INVALID_HANDLE);
}

TEST_F(RemoteOnlyCard, HasItsTransactionsAtTheDaemon) {
    const SCARDHANDLE handle = remoteCard();
    const Bytes begin =
        RecordBytes(HandleLayout::kSize).u64(HandleLayout::kHandle, kDaemonCard).bytes();
    const Bytes end = RecordBytes(DispositionLayout::kSize)
                          .u64(DispositionLayout::kCard, kDaemonCard)
                          .u32(DispositionLayout::kDisposition, SCARD_LEAVE_CARD)
                          .bytes();
    daemon().answers = {begin, end};
    EXPECT_EQ(SCardBeginTransaction(handle), SCARD_S_SUCCESS);
    EXPECT_EQ(SCardEndTransaction(handle, SCARD_LEAVE_CARD), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kBeginTransaction, begin));
    EXPECT_THAT(takeRequest(), IsSent(Command::kEndTransaction, end));
}

TEST_F(RemoteOnlyCard, IsInvalidWhenTheHostServesIt) {
    const SCARDHANDLE handle = registerCardHandle(0x7B000001, boundContext(), "Host", true);
    DWORD protocol = 0;
    EXPECT_EQ(SCardBeginTransaction(handle), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardEndTransaction(handle, 0), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardDisconnect(handle, 0), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardReconnect(handle, 2, 3, 0, &protocol), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardStatusA(handle, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyCard, IsInvalidOnceItsContextIsReleased) {
    const SCARDHANDLE handle = remoteCard();
    unregisterContext(findCardHandle(handle)->context);
    EXPECT_EQ(SCardBeginTransaction(handle), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyCard, TellsItsStatus) {
    const SCARDHANDLE handle = remoteCard();
    daemon().answers = {statusRecord(0x34, 4, 11, 0)};
    char names[32];
    DWORD namesLength = sizeof(names);
    DWORD state = 0;
    DWORD protocol = 0;
    BYTE atr[32];
    DWORD atrLength = sizeof(atr);
    EXPECT_EQ(SCardStatusA(handle, names, &namesLength, &state, &protocol, atr, &atrLength),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kStatus, RecordBytes(StatusLayout::kSize)
                                             .u64(StatusLayout::kCard, kDaemonCard)
                                             .u32(StatusLayout::kAtrLength, 264)
                                             .u32(StatusLayout::kResult, 0x8010001D)));
    EXPECT_EQ(test::copyBytes(names, namesLength), multiString({"Reader A"}));
    EXPECT_EQ(state, static_cast<DWORD>(SCARD_NEGOTIABLE));
    EXPECT_EQ(protocol, 0x10000U);
    EXPECT_EQ(test::copyBytes(atr, atrLength), Bytes(11, 0x3B));
}

TEST_F(RemoteOnlyCard, HasTheProtocolOfItsStatusRawBelowVersionOne) {
    daemon().versionMinor = 0;
    const SCARDHANDLE handle = remoteCard();
    daemon().answers = {statusRecord(0x04, 4, 0, 0)};
    DWORD state = 0;
    DWORD protocol = 0;
    EXPECT_EQ(SCardStatusA(handle, nullptr, nullptr, &state, &protocol, nullptr, nullptr),
              SCARD_S_SUCCESS);
    EXPECT_EQ(state, static_cast<DWORD>(SCARD_PRESENT));
    EXPECT_EQ(protocol, 4U);
}

TEST_F(RemoteOnlyCard, HasNoStatusThatADaemonLeftUntouched) {
    const SCARDHANDLE handle = remoteCard();
    daemon().answers = {statusRecord(0, 0, 264, 0x8010001D)};
    DWORD state = 77;
    DWORD protocol = 77;
    EXPECT_EQ(SCardStatusA(handle, nullptr, nullptr, &state, &protocol, nullptr, nullptr),
              SCARD_E_NO_SERVICE);
    EXPECT_EQ(state, 0U);
    EXPECT_EQ(protocol, 0U);
}
