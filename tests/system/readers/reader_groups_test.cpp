// SCardListReaderGroupsA
#include "guarded_buffer.h"
#include "heap_spy.h"
#include "log_text.h"
#include "remote_card_test.h"

namespace tez::test {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using namespace std::string_literals;

class ReaderGroupsTest : public RemoteCardTest {
  protected:
    /// Lets the host have these groups.
    void setHostGroups(const std::string& groups) {
        EXPECT_CALL(host, SCardListReaderGroupsA(_, _, _))
            .WillRepeatedly([this, groups](SCARDCONTEXT, LPSTR destination, LPDWORD size) {
                const Bytes bytes(groups.begin(), groups.end());
                return host.heap().deliver(bytes, destination, size);
            });
    }

    /// The whole list, out of a buffer that has exactly the room for it.
    std::string groups() {
        EXPECT_THAT(SCardListReaderGroupsA(context, nullptr, &length), Gives(SCARD_S_SUCCESS));
        const GuardedBuffer buffer(length);
        EXPECT_THAT(SCardListReaderGroupsA(context, buffer.as<char>(), &length),
                    Gives(SCARD_S_SUCCESS));
        return {buffer.as<char>(), length};
    }

    DWORD length = 0;
};

TEST_F(ReaderGroupsTest, AreTheHostsWhenTheDefaultGroupIsAmongThem) {
    establishContext();
    setHostGroups("Mine\0SCard$DefaultReaders\0\0"s);
    EXPECT_EQ(groups(), "Mine\0SCard$DefaultReaders\0\0"s);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(ReaderGroupsTest, BeginWithTheDefaultGroupWhenTheHostLacksIt) {
    establishContext();
    setHostGroups("Mine\0scard$defaultreaders\0SCard$DefaultReaders2\0\0"s);
    EXPECT_EQ(groups(),
              "SCard$DefaultReaders\0Mine\0scard$defaultreaders\0SCard$DefaultReaders2\0\0"s);
    setHostGroups("\0"s);
    EXPECT_EQ(groups(), "SCard$DefaultReaders\0\0"s);
    EXPECT_EQ(host.heap().outstanding(), 0U);
}

TEST_F(ReaderGroupsTest, AreTheDefaultGroupAloneWhenTheHostFails) {
    establishContext();
    EXPECT_CALL(host, SCardListReaderGroupsA(kHostContext, _, _))
        .WillRepeatedly(Return(SCARD_E_NO_SERVICE));
    EXPECT_EQ(groups(), "SCard$DefaultReaders\0\0"s);
    EXPECT_EQ(length, 22U);
}

TEST_F(ReaderGroupsTest, ThatLackTheirEndAreGivenOne) {
    context = establish();
    const std::string first = "SCard$DefaultReaders\0"s;
    setHostGroups("");
    EXPECT_EQ(groups(), first + "\0"s);
    for (const std::string& told : {"G"s, "G\0"s}) {
        setHostGroups(told);
        EXPECT_EQ(groups(), first + "G\0\0"s);
    }
}

TEST_F(ReaderGroupsTest, AreNeverAskedOfTheDaemon) {
    establishContext();
    EXPECT_EQ(groups(), "SCard$DefaultReaders\0\0"s);
    EXPECT_THAT(daemon.requests(), IsEmpty());
}

TEST_F(ReaderGroupsTest, AreThereWithoutADaemon) {
    context = establish();
    setHostGroups("Mine\0\0"s);
    EXPECT_EQ(groups(), "SCard$DefaultReaders\0Mine\0\0"s);
}

TEST_F(ReaderGroupsTest, AreThereWithoutAContext) {
    establishContext();
    EXPECT_CALL(host, SCardListReaderGroupsA(0, _, _));
    EXPECT_THAT(SCardListReaderGroupsA(0, nullptr, &length), Gives(SCARD_S_SUCCESS));
    EXPECT_EQ(length, 22U);
}

TEST_F(ReaderGroupsTest, AreLoggedWithTheirLength) {
    establishContext();
    const GuardedBuffer buffer(30);
    length = 30;
    ASSERT_THAT(SCardListReaderGroupsA(context, buffer.as<char>(), &length),
                Gives(SCARD_S_SUCCESS));
    EXPECT_TRUE(buffer.untouchedFrom(22));
    EXPECT_THAT(
        log().messages("SCardListReaderGroupsA", 'D'),
        ElementsAre("LIST_READER_GROUPS IN-PARAMS: 1, " + logged(buffer.data()) + ", " +
                        logged(&length) + "\n    pcchGroups is 30",
                    "LIST_READER_GROUPS OUT-PARAMS: 22", "LIST_READER_GROUPS RV: 0x00000000"));
}

TEST_F(ReaderGroupsTest, OfAnUnknownContextAreRefused) {
    establishContext();
    EXPECT_CALL(host, SCardListReaderGroupsA(_, _, _)).Times(0);
    EXPECT_THAT(SCardListReaderGroupsA(kHostContext, nullptr, &length),
                Gives(SCARD_E_INVALID_HANDLE));
    EXPECT_THAT(log().entries(),
                Contains(LogLine('W', "SCardListReaderGroupsA", "Invalid context handle")));
    EXPECT_THAT(log().messages("SCardListReaderGroupsA", 'D'),
                ElementsAre(_, "LIST_READER_GROUPS RV: 0x80100003"));
}

TEST_F(ReaderGroupsTest, WithoutALengthAreLeftToTheHostsJudgement) {
    establishContext();
    const GuardedBuffer buffer(30);
    EXPECT_CALL(host, SCardListReaderGroupsA(kHostContext, buffer.as<char>(), nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardListReaderGroupsA(context, buffer.as<char>(), nullptr),
                Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(log().messages("SCardListReaderGroupsA"),
                ElementsAre("pcchGroups cannot be NULL", "LIST_READER_GROUPS RV: 0x80100011"));
    EXPECT_CALL(host, SCardListReaderGroupsA(0, nullptr, nullptr))
        .WillOnce(Return(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(SCardListReaderGroupsA(0, nullptr, nullptr), Gives(SCARD_E_INVALID_VALUE));
    EXPECT_THAT(log().messages("SCardListReaderGroupsA", 'W'),
                ElementsAre("pcchGroups cannot be NULL", "pcchGroups cannot be NULL"));
}

TEST_F(ReaderGroupsTest, WithoutALengthAreRefusedForAnUnknownContext) {
    establishContext();
    EXPECT_CALL(host, SCardListReaderGroupsA(_, _, _)).Times(0);
    EXPECT_THAT(SCardListReaderGroupsA(kHostContext, nullptr, nullptr),
                Gives(SCARD_E_INVALID_HANDLE));
}

}  // namespace
}  // namespace tez::test
