// SCardGetDeviceTypeIdA: the host first, the daemon if the host does not know the reader.
#include "card_database_test.h"
#include "failing_writes.h"
#include "log_text.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::StrEq;

constexpr const char* kDeviceType = "SCardGetDeviceTypeIdA";
constexpr const char* kUnknownReaderFallback =
    "local call failed with 0x80100009, falling back to remote call";

class DeviceTypeTest : public CardDatabaseTest {
  protected:
    LONG get(LPCSTR reader = kRemoteReader) {
        type = kUntouched;
        return SCardGetDeviceTypeIdA(context, reader, &type);
    }

    DWORD type = kUntouched;
};

TEST_F(DeviceTypeTest, OfAHostsReaderNeverReachesTheDaemon) {
    establishRedirected();
    EXPECT_CALL(host, SCardGetDeviceTypeIdA(kHostContext, StrEq(kHostReader), &type));
    EXPECT_THAT(get(kHostReader), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(type, DWORD{SCARD_READER_TYPE_USB});
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages(kDeviceType),
        ElementsAre("GET_DEVICE_TYPE_ID IN-PARAMS: 1, Host Reader 0",
                    "GET_DEVICE_TYPE_ID OUT-PARAMS: 32", "GET_DEVICE_TYPE_ID RV: 0x00000000"));
}

TEST_F(DeviceTypeTest, OfARemoteReaderIsAskedOfTheDaemonWithoutRedirectionToo) {
    establishContext();
    daemon.on(Command::kGetDeviceTypeId,
              answering(DeviceTypeLayout::kSize, {{DeviceTypeLayout::kType, 0x1234}}));
    EXPECT_THAT(get(), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(type, 0x1234U);
    EXPECT_THAT(daemon.requests(Command::kGetDeviceTypeId),
                ElementsAre(IsRequest(Command::kGetDeviceTypeId,
                                      RecordBytes(DeviceTypeLayout::kSize)
                                          .u64(DeviceTypeLayout::kContext, kDaemonContext)
                                          .text(DeviceTypeLayout::kReader, kRemoteReader))));
    EXPECT_THAT(
        log().messages(kDeviceType, 'D'),
        ElementsAre("GET_DEVICE_TYPE_ID IN-PARAMS: 1, Remote Reader 0", kUnknownReaderFallback,
                    "GET_DEVICE_TYPE_ID OUT-PARAMS: 4660", "GET_DEVICE_TYPE_ID RV: 0x00000000"));
}

TEST_F(DeviceTypeTest, WithoutADaemonIsWhatTheHostSays) {
    context = establish();
    EXPECT_THAT(get(), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_EQ(type, kUntouched);
    EXPECT_THAT(log().messages(kDeviceType), ElementsAre(_, "GET_DEVICE_TYPE_ID RV: 0x80100009"));
}

TEST_F(DeviceTypeTest, OfAContextWithoutAHostsSideIsAskedOfTheDaemon) {
    establishRemoteContextOnly();
    EXPECT_CALL(host, SCardGetDeviceTypeIdA(_, _, _)).Times(0);
    EXPECT_THAT(get(), Gives(SCARD_S_SUCCESS));
    EXPECT_THAT(log().messages(kDeviceType, 'D'),
                Contains("local call failed with 0x80100003, falling back to remote call"));
}

TEST_F(DeviceTypeTest, OfAnUnknownContextIsRefusedByBothSides) {
    establishContext();
    EXPECT_CALL(host, SCardGetDeviceTypeIdA(_, _, _)).Times(0);
    for (const SCARDCONTEXT unknown : {kHostContext, SCARDCONTEXT{0}}) {
        context = unknown;
        EXPECT_THAT(get(), Gives(SCARD_E_INVALID_HANDLE));
    }
    EXPECT_EQ(type, kUntouched);
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kDeviceType, 'W'),
                ElementsAre("Invalid context handle", "Invalid context handle"));
}

TEST_F(DeviceTypeTest, NeedsAReadersName) {
    establishContext();
    EXPECT_CALL(host, SCardGetDeviceTypeIdA(kHostContext, nullptr, &type));
    EXPECT_THAT(get(nullptr), Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(
        log().messages(kDeviceType, 'D'),
        ElementsAre("GET_DEVICE_TYPE_ID IN-PARAMS: 1, ", kUnknownReaderFallback,
                    "Reader name pointer cannot be NULL", "GET_DEVICE_TYPE_ID RV: 0x80100004"));
}

TEST_F(DeviceTypeTest, NeedsAPlaceForTheType) {
    establishContext();
    EXPECT_THAT(SCardGetDeviceTypeIdA(context, kRemoteReader, nullptr),
                Gives(SCARD_E_INVALID_PARAMETER));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_THAT(log().messages(kDeviceType, 'D'),
                Contains("Device type ID pointer cannot be NULL"));
}

TEST_F(DeviceTypeTest, IsAskedForAReadersNameThatFillsItsField) {
    establishContext();
    const std::string reader(127, 'R');
    remote.addReader(reader);
    EXPECT_THAT(get(reader.c_str()), Gives(SCARD_S_SUCCESS));
}

TEST_F(DeviceTypeTest, IsNotAskedForAReadersNameThatDoesNotFitItsField) {
    establishContext();
    EXPECT_THAT(get(std::string(128, 'R').c_str()), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(daemon.requests(), IsEmpty());
    EXPECT_EQ(type, kUntouched);
}

TEST_F(DeviceTypeTest, IsNotAskedOfADaemonOlderThan12) {
    establishContext({1, 1});
    EXPECT_THAT(get(), Gives(SCARD_F_INTERNAL_ERROR));
    EXPECT_EQ(type, kUntouched);
    EXPECT_THAT(daemon.requests(Command::kGetDeviceTypeId), IsEmpty());
    EXPECT_THAT(log().messages(kDeviceType, 'D'),
                ElementsAre(_, kUnknownReaderFallback, gateLine(kDeviceType),
                            "GET_DEVICE_TYPE_ID RV: 0x80100001"));
}

TEST_F(DeviceTypeTest, IsAskedOfADaemonOfVersion12) {
    establishContext({1, 2});
    EXPECT_THAT(get(), Gives(SCARD_S_SUCCESS));
}

TEST_F(DeviceTypeTest, IsLeftAloneWhenTheDaemonRefuses) {
    establishContext();
    daemon.on(Command::kGetDeviceTypeId,
              answering(DeviceTypeLayout::kSize,
                        {{DeviceTypeLayout::kType, 5}, {DeviceTypeLayout::kResult, 0x80100009}}));
    EXPECT_THAT(get(), Gives(SCARD_E_UNKNOWN_READER));
    EXPECT_EQ(type, kUntouched);
    EXPECT_THAT(log().messages(kDeviceType, 'W'), IsEmpty());
}

TEST_F(DeviceTypeTest, WithoutAConnectionIsNoService) {
    establishContext();
    ASSERT_THAT(get(), Gives(SCARD_S_SUCCESS)) << "the daemon's context is made";
    daemon.on(Command::kGetDeviceTypeId, closing());
    ASSERT_THAT(get(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages(kDeviceType, 'W'), ElementsAre("Failed to receive data"));
    const FailingWrites broken([](DWORD /*size*/) { return true; });
    EXPECT_THAT(get(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages(kDeviceType, 'W'), ElementsAre("Failed to receive data"));
    EXPECT_EQ(type, kUntouched);
}

TEST_F(DeviceTypeTest, WithoutADaemonsContextIsWhatItsEstablishmentGave) {
    establishContext();
    daemon.on(Command::kEstablishContext, refusing<EstablishLayout>(SCARD_E_PCI_TOO_SMALL));
    EXPECT_THAT(get(), Gives(static_cast<LONG>(0x80100019)));
    EXPECT_THAT(daemon.requests(Command::kGetDeviceTypeId), IsEmpty());
}

TEST_F(DeviceTypeTest, WarnsWhenTheRequestCannotBeSent) {
    establishContext();
    const FailingWrites broken([](DWORD size) { return size == DeviceTypeLayout::kSize; });
    EXPECT_THAT(get(), Gives(SCARD_E_NO_SERVICE));
    EXPECT_THAT(log().messages(kDeviceType, 'W'), ElementsAre("Failed to send header"));
}

}  // namespace
}  // namespace tez::test
