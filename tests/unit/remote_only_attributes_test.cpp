#include <string>

#include "guarded_buffer.h"
#include "remote_only_test.h"

using namespace tez;
using namespace std::string_literals;
using test::AttributeLayout;
using test::Bytes;
using test::Command;
using test::GuardedBuffer;
using test::IsSent;
using test::RecordBytes;
using test::TransmitCountLayout;
using testing::IsEmpty;

namespace {

RecordBytes attribRecord(std::uint32_t attribute, std::uint32_t length, std::uint32_t rv = 0) {
    return RecordBytes(AttributeLayout::kSize)
        .u64(AttributeLayout::kCard, 0x6000001)
        .u32(AttributeLayout::kId, attribute)
        .u32(AttributeLayout::kLength, length)
        .u32(AttributeLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyAttributes : public test::RemoteOnlyTest {
  protected:
    /// Lets the daemon answer an attribute with these bytes behind the record.
    void answerWith(std::uint32_t attribute, const std::string& value) {
        daemon().answers.push_back(
            attribRecord(attribute, static_cast<std::uint32_t>(value.size())));
        daemon().answers.emplace_back(value.begin(), value.end());
    }

    /// Asks for a friendly name that the daemon tells as this text.
    LONG friendlyName(const std::string& told, const GuardedBuffer& buffer, DWORD& length) {
        const SCARDHANDLE card = remoteCard();
        answerWith(SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, told);
        return SCardGetAttrib(card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, buffer.data(), &length);
    }
};

TEST_F(RemoteOnlyAttributes, AreAskedForInTheNewerFormWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDHANDLE card = remoteCard();
    answerWith(SCARD_ATTR_VENDOR_NAME, "Maker");
    const GuardedBuffer value(300);
    DWORD length = 300;  // more than the fixed form could carry
    EXPECT_EQ(SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, value.data(), &length), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kGetAttribute, attribRecord(SCARD_ATTR_VENDOR_NAME, 300)));
    EXPECT_EQ(std::string(value.as<char>(), length), "Maker");
}

TEST_F(RemoteOnlyAttributes, HaveAFriendlyNameInUtf16) {
    const GuardedBuffer name(18);
    DWORD length = 18;
    EXPECT_EQ(friendlyName("Reader A\0"s, name, length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 18U);
    EXPECT_EQ(std::wstring(name.as<wchar_t>()), L"Reader A");
}

TEST_F(RemoteOnlyAttributes, HaveAFriendlyNameAsLongAsTheConvertedText) {
    const GuardedBuffer name(64);
    // e with acute, a CJK character, and one outside the basic plane: 2, 3 and 4 bytes of UTF-8.
    DWORD length = 64;
    EXPECT_EQ(friendlyName("\xC3\xA9\xE8\xAF\xBB\xF0\x9F\x92\xB3\0"s, name, length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(length, 10U);
    EXPECT_EQ(std::wstring(name.as<wchar_t>()), L"\u00E9\u8BFB\U0001F4B3");
}

TEST_F(RemoteOnlyAttributes, HaveAFriendlyNameThatMayNotFit) {
    const GuardedBuffer name(17);
    DWORD length = 17;
    EXPECT_EQ(friendlyName("Reader A\0"s, name, length), SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, 18U);
    EXPECT_TRUE(name.untouched());
}

TEST_F(RemoteOnlyAttributes, CloseAFriendlyNameThatTheDaemonLeftOpen) {
    const GuardedBuffer name(8);
    DWORD length = 8;
    EXPECT_EQ(friendlyName("abc", name, length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::wstring(name.as<wchar_t>()), L"abc");
}

TEST_F(RemoteOnlyAttributes, LeaveTheFriendlyNameOfAnOldDaemonAsItCame) {
    daemon().versionMinor = 1;
    const GuardedBuffer name(9);
    DWORD length = 9;
    EXPECT_EQ(friendlyName("Reader A\0"s, name, length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(name.as<char>(), length), "Reader A\0"s);
}

TEST_F(RemoteOnlyAttributes, AreThoseThatWereAskedForWhateverTheDaemonEchoes) {
    const SCARDHANDLE card = remoteCard();
    const GuardedBuffer value(18);
    DWORD length = 18;
    answerWith(SCARD_ATTR_VENDOR_NAME, "Reader A\0"s);
    EXPECT_EQ(SCardGetAttrib(card, SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, value.data(), &length),
              SCARD_S_SUCCESS);
    EXPECT_EQ(length, 18U) << "converted";
    answerWith(SCARD_ATTR_DEVICE_FRIENDLY_NAME_W, "Reader A\0"s);
    EXPECT_EQ(SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, value.data(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 9U) << "as it came";
}

TEST_F(RemoteOnlyAttributes, AreSetInTheNewerFormWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDHANDLE card = remoteCard();
    const Bytes value(300, 0x5A);
    daemon().answers = {attribRecord(SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, 300)};
    EXPECT_EQ(SCardSetAttrib(card, SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, value.data(), 300),
              SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kSetAttribute,
                       attribRecord(SCARD_ATTR_SUPRESS_T1_IFS_REQUEST, 300).append(value)));
}

TEST_F(RemoteOnlyAttributes, IncludeTheTransmitCountWhateverTheVersion) {
    daemon().versionMinor = 0;
    const SCARDHANDLE card = remoteCard();
    daemon().answers = {RecordBytes(TransmitCountLayout::kSize)
                            .u64(TransmitCountLayout::kCard, 0x6000001)
                            .u32(TransmitCountLayout::kCount, 41)};
    DWORD count = 7;
    EXPECT_EQ(SCardGetTransmitCount(card, &count), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(),
                IsSent(Command::kGetTransmitCount, RecordBytes(TransmitCountLayout::kSize)
                                                       .u64(TransmitCountLayout::kCard, 0x6000001)
                                                       .u32(TransmitCountLayout::kCount, 7)));
    EXPECT_EQ(count, 41U);
}

TEST_F(RemoteOnlyAttributes, AreNotThoseOfACardOfTheHost) {
    const SCARDHANDLE card = registerCardHandle(1, boundContext(), "Reader A", true);
    BYTE value[4] = {};
    DWORD length = sizeof(value);
    EXPECT_EQ(SCardGetAttrib(card, SCARD_ATTR_VENDOR_NAME, value, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardSetAttrib(card, SCARD_ATTR_VENDOR_NAME, value, length), SCARD_E_INVALID_HANDLE);
    EXPECT_EQ(SCardGetTransmitCount(card, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}
