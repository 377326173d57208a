// What docs/daemon-protocol.md says is what the core does, and what the records are.
#include "protocol_page.h"

#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon_client.h"
#include "simulated/simulated_service.h"
#include "wire/attribute_records.h"
#include "wire/database_records.h"

namespace tez::pcscd {
namespace {

using test::PageField;
using test::PageRecord;
using test::ProtocolPage;

ProtocolPage thePage() {
    return test::readProtocolPage(TEZ_PROTOCOL_PAGE);
}

TEST(ProtocolPageTest, ItsExamplesAreWhatTheDaemonAnswers) {
    SimulatedService service({.context = 0x500000001, .card = 0x600000001});
    service.addReader("Reader 0");
    service.insertCard("Reader 0", makeDemoCard("Remote User"));
    Daemon daemon(service);
    DaemonClient client(daemon, 1);
    const ProtocolPage page = thePage();
    EXPECT_EQ(page.examples.size(), 9U);
    for (const test::PageExample& example : page.examples) {
        client.stream().send(example.sent);
        ASSERT_FALSE(example.answered.empty()) << example.title;
        for (const Bytes& piece : example.answered) {
            EXPECT_EQ(client.stream().takePiece(), piece) << example.title;
        }
    }
}

/// Compares a record's table with the record, field by field.
class RecordTable {
  public:
    RecordTable(const PageRecord& table, std::size_t size) : left_(table.fields) {
        EXPECT_EQ(table.size, size);
    }
    ~RecordTable() { EXPECT_TRUE(left_.empty()) << left_.begin()->first; }
    RecordTable(const RecordTable&) = delete;
    RecordTable& operator=(const RecordTable&) = delete;

    RecordTable& has(const char* name, std::size_t offset, std::size_t width) {
        const auto found = left_.find(name);
        if (found == left_.end()) {
            ADD_FAILURE() << "no row: " << name;
        } else {
            EXPECT_EQ(found->second, (PageField{offset, width})) << name;
            left_.erase(found);
        }
        return *this;
    }

  private:
    std::map<std::string, PageField> left_;
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): names a field, and its offset and width
#define TEZ_FIELD(Record, field) \
    has(#field, offsetof(Record, field), sizeof(std::declval<Record>().field))

TEST(ProtocolPageTest, ItsTablesAreTheRecords) {
    ProtocolPage page = thePage();
    EXPECT_EQ(page.records.size(), 26U);
    const auto table = [&](std::uint32_t command, std::size_t size) {
        SCOPED_TRACE(command);
        return RecordTable(page.records[command], size);
    };
    RecordTable(page.header, 0)
        .TEZ_FIELD(MessageHeader, size)
        .TEZ_FIELD(MessageHeader, command)
        .TEZ_FIELD(MessageHeader, reserved);
    table(CMD_ESTABLISH_CONTEXT, sizeof(EstablishRecord))
        .TEZ_FIELD(EstablishRecord, dwScope)
        .TEZ_FIELD(EstablishRecord, hContext)
        .TEZ_FIELD(EstablishRecord, rv);
    table(CMD_RELEASE_CONTEXT, sizeof(ReleaseRecord))
        .TEZ_FIELD(ReleaseRecord, hContext)
        .TEZ_FIELD(ReleaseRecord, rv);
    table(CMD_LIST_READERS, sizeof(ListReadersRecord))
        .TEZ_FIELD(ListReadersRecord, hContext)
        .TEZ_FIELD(ListReadersRecord, cchReaders)
        .TEZ_FIELD(ListReadersRecord, rv);
    table(CMD_SCARD_CONNECT, sizeof(ConnectRecord))
        .TEZ_FIELD(ConnectRecord, hContext)
        .TEZ_FIELD(ConnectRecord, szReader)
        .TEZ_FIELD(ConnectRecord, dwShareMode)
        .TEZ_FIELD(ConnectRecord, dwPreferredProtocols)
        .TEZ_FIELD(ConnectRecord, hCard)
        .TEZ_FIELD(ConnectRecord, dwActiveProtocol)
        .TEZ_FIELD(ConnectRecord, rv);
    table(CMD_RECONNECT, sizeof(ReconnectRecord))
        .TEZ_FIELD(ReconnectRecord, hCard)
        .TEZ_FIELD(ReconnectRecord, dwShareMode)
        .TEZ_FIELD(ReconnectRecord, dwPreferredProtocols)
        .TEZ_FIELD(ReconnectRecord, dwInitialization)
        .TEZ_FIELD(ReconnectRecord, dwActiveProtocol)
        .TEZ_FIELD(ReconnectRecord, rv);
    for (const std::uint32_t command : {CMD_DISCONNECT, CMD_END_TRANSACTION}) {
        table(command, sizeof(DisconnectRecord))
            .TEZ_FIELD(DisconnectRecord, hCard)
            .TEZ_FIELD(DisconnectRecord, dwDisposition)
            .TEZ_FIELD(DisconnectRecord, rv);
    }
    for (const std::uint32_t command : {CMD_BEGIN_TRANSACTION, CMD_CANCEL}) {
        table(command, sizeof(HandleRecord))
            .TEZ_FIELD(HandleRecord, handle)
            .TEZ_FIELD(HandleRecord, rv);
    }
    table(CMD_TRANSMIT, sizeof(TransmitRecord))
        .TEZ_FIELD(TransmitRecord, hCard)
        .TEZ_FIELD(TransmitRecord, ioSendPciProtocol)
        .TEZ_FIELD(TransmitRecord, cbSendLength)
        .TEZ_FIELD(TransmitRecord, ioRecvPciProtocol)
        .TEZ_FIELD(TransmitRecord, pcbRecvLength)
        .TEZ_FIELD(TransmitRecord, rv);
    table(CMD_CONTROL, sizeof(ControlRecord))
        .TEZ_FIELD(ControlRecord, hCard)
        .TEZ_FIELD(ControlRecord, dwControlCode)
        .TEZ_FIELD(ControlRecord, cbInBufferSize)
        .TEZ_FIELD(ControlRecord, cbOutBufferSize)
        .TEZ_FIELD(ControlRecord, dwBytesReturned)
        .TEZ_FIELD(ControlRecord, rv);
    table(CMD_STATUS, sizeof(StatusRecord))
        .TEZ_FIELD(StatusRecord, hCard)
        .TEZ_FIELD(StatusRecord, dwState)
        .TEZ_FIELD(StatusRecord, dwProtocol)
        .TEZ_FIELD(StatusRecord, pbAtr)
        .TEZ_FIELD(StatusRecord, cbAtrLen)
        .TEZ_FIELD(StatusRecord, rv);
    table(CMD_GET_STATUS_CHANGE, sizeof(StatusChangeRecord))
        .TEZ_FIELD(StatusChangeRecord, hContext)
        .TEZ_FIELD(StatusChangeRecord, dwTimeout)
        .TEZ_FIELD(StatusChangeRecord, cReaders)
        .TEZ_FIELD(StatusChangeRecord, rv);
    RecordTable(page.readerState, sizeof(ReaderStateRecord))
        .TEZ_FIELD(ReaderStateRecord, szReader)
        .TEZ_FIELD(ReaderStateRecord, dwCurrentState)
        .TEZ_FIELD(ReaderStateRecord, dwEventState)
        .TEZ_FIELD(ReaderStateRecord, cbAtr)
        .TEZ_FIELD(ReaderStateRecord, rgbAtr);
    for (const std::uint32_t command : {CMD_GET_ATTRIB, CMD_SET_ATTRIB}) {
        table(command, sizeof(AttribRecord))
            .TEZ_FIELD(AttribRecord, hCard)
            .TEZ_FIELD(AttribRecord, dwAttrId)
            .TEZ_FIELD(AttribRecord, pbAttr)
            .TEZ_FIELD(AttribRecord, cbAttrLen)
            .TEZ_FIELD(AttribRecord, rv);
    }
    table(CMD_GET_TRANSMIT_COUNT, sizeof(TransmitCountRecord))
        .TEZ_FIELD(TransmitCountRecord, hCard)
        .TEZ_FIELD(TransmitCountRecord, dwTransmitCount)
        .TEZ_FIELD(TransmitCountRecord, rv);
    table(CMD_LIST_CARDS, sizeof(ListCardsRecord))
        .TEZ_FIELD(ListCardsRecord, hContext)
        .TEZ_FIELD(ListCardsRecord, isAtrPresent)
        .TEZ_FIELD(ListCardsRecord, rgbAtr)
        .TEZ_FIELD(ListCardsRecord, cguidInterfaceCount)
        .TEZ_FIELD(ListCardsRecord, cchCards)
        .TEZ_FIELD(ListCardsRecord, rv);
    table(CMD_GET_DEVICE_TYPE_ID, sizeof(DeviceTypeIdRecord))
        .TEZ_FIELD(DeviceTypeIdRecord, hContext)
        .TEZ_FIELD(DeviceTypeIdRecord, szReaderName)
        .TEZ_FIELD(DeviceTypeIdRecord, dwDeviceTypeId)
        .TEZ_FIELD(DeviceTypeIdRecord, rv);
    for (const std::uint32_t command :
         {CMD_GET_CARD_TYPE_PROVIDER_NAME, CMD_SET_CARD_TYPE_PROVIDER_NAME}) {
        table(command, sizeof(ProviderNameRecord))
            .TEZ_FIELD(ProviderNameRecord, hContext)
            .TEZ_FIELD(ProviderNameRecord, szCardName)
            .TEZ_FIELD(ProviderNameRecord, dwProviderId)
            .TEZ_FIELD(ProviderNameRecord, cchProvider)
            .TEZ_FIELD(ProviderNameRecord, rv);
    }
    for (const std::uint32_t command : {CMD_READ_CACHE, CMD_WRITE_CACHE}) {
        table(command, sizeof(CacheRecord))
            .TEZ_FIELD(CacheRecord, hContext)
            .TEZ_FIELD(CacheRecord, cardIdentifier)
            .TEZ_FIELD(CacheRecord, freshnessCounter)
            .TEZ_FIELD(CacheRecord, cbData)
            .TEZ_FIELD(CacheRecord, rv);
    }
    table(CMD_GET_READER_ICON, sizeof(ReaderIconRecord))
        .TEZ_FIELD(ReaderIconRecord, hContext)
        .TEZ_FIELD(ReaderIconRecord, cbIcon)
        .TEZ_FIELD(ReaderIconRecord, rv);
    table(CMD_AUDIT, sizeof(AuditRecord))
        .TEZ_FIELD(AuditRecord, hContext)
        .TEZ_FIELD(AuditRecord, dwEvent)
        .TEZ_FIELD(AuditRecord, rv);
    table(CMD_INTRODUCE_CARD_TYPE, sizeof(IntroduceCardTypeRecord))
        .TEZ_FIELD(IntroduceCardTypeRecord, hContext)
        .TEZ_FIELD(IntroduceCardTypeRecord, szCardName)
        .TEZ_FIELD(IntroduceCardTypeRecord, isPrimaryProviderPresent)
        .TEZ_FIELD(IntroduceCardTypeRecord, guidPrimaryProvider)
        .TEZ_FIELD(IntroduceCardTypeRecord, dwInterfaceCount)
        .TEZ_FIELD(IntroduceCardTypeRecord, isAtrPresent)
        .TEZ_FIELD(IntroduceCardTypeRecord, rgbAtr)
        .TEZ_FIELD(IntroduceCardTypeRecord, isMaskPresent)
        .TEZ_FIELD(IntroduceCardTypeRecord, rgbAtrMask)
        .TEZ_FIELD(IntroduceCardTypeRecord, cbAtrLen)
        .TEZ_FIELD(IntroduceCardTypeRecord, rv);
    table(CMD_FORGET_CARD_TYPE, sizeof(ForgetCardTypeRecord))
        .TEZ_FIELD(ForgetCardTypeRecord, hContext)
        .TEZ_FIELD(ForgetCardTypeRecord, szCardName)
        .TEZ_FIELD(ForgetCardTypeRecord, rv);
}

#undef TEZ_FIELD

}  // namespace
}  // namespace tez::pcscd
