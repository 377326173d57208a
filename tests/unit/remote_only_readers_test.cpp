#include <string>

#include "guarded_buffer.h"
#include "remote_only_test.h"
#include "state/reader_names.h"

using namespace tez;
using namespace std::string_literals;
using test::Bytes;
using test::Command;
using test::GuardedBuffer;
using test::IsSent;
using test::ListLayout;
using test::LogLine;
using test::RecordBytes;
using test::textBytes;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kDefaultGroups = "SCard$DefaultReaders\0\0"s;

RecordBytes listRecord(std::uint64_t context, std::uint32_t length, std::uint32_t rv = 0) {
    return RecordBytes(ListLayout::kSize)
        .u64(ListLayout::kContext, context)
        .u32(ListLayout::kLength, length)
        .u32(ListLayout::kResult, rv);
}

}  // namespace

class RemoteOnlyReaders : public test::RemoteOnlyTest {};

TEST_F(RemoteOnlyReaders, AreThoseOfTheDaemonUnchanged) {
    const SCARDCONTEXT context = boundContext();
    const std::string names = "A\0Bc\0\0"s;
    daemon().answers = {listRecord(kDaemonContext, 6), textBytes(names)};
    const GuardedBuffer readers(6);
    DWORD length = 6;
    EXPECT_EQ(SCardListReadersA(context, nullptr, readers.as<char>(), &length), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kListReaders, listRecord(kDaemonContext, 0)));
    EXPECT_EQ(length, 6U);
    EXPECT_EQ(test::copyBytes(readers.data(), 6), textBytes(names));
    EXPECT_THAT(copyRemoteReaderNames(), ElementsAre("A", "Bc"));
    EXPECT_THAT(copyLocalReaderNames(), IsEmpty());
    EXPECT_TRUE(wasListReadersCalled());
}

TEST_F(RemoteOnlyReaders, AreAskedForUnderContextZeroWithoutAContext) {
    daemon().answers = {listRecord(0, 3), textBytes("A\0\0"s)};
    DWORD length = 0;
    EXPECT_EQ(SCardListReadersA(0, nullptr, nullptr, &length), SCARD_S_SUCCESS);
    EXPECT_THAT(takeRequest(), IsSent(Command::kListReaders, listRecord(0, 0)));
    EXPECT_EQ(length, 3U);
}

TEST_F(RemoteOnlyReaders, AreAllocatedAndFreedByTheLibrary) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {listRecord(0, 3), textBytes("A\0\0"s)};
    char* readers = nullptr;
    auto length = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCardListReadersA(context, nullptr, reinterpret_cast<LPSTR>(&readers), &length),
              SCARD_S_SUCCESS);
    ASSERT_NE(readers, nullptr);
    EXPECT_EQ(std::string(readers, length), "A\0\0"s);
    EXPECT_EQ(SCardFreeMemory(context, readers), SCARD_S_SUCCESS);
}

TEST_F(RemoteOnlyReaders, DoNotFitASmallBufferButAreNoted) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {listRecord(0, 3), textBytes("A\0\0"s)};
    const GuardedBuffer readers(2);
    DWORD length = 2;
    EXPECT_EQ(SCardListReadersA(context, nullptr, readers.as<char>(), &length),
              SCARD_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(length, 3U);
    EXPECT_TRUE(readers.untouched());
    EXPECT_THAT(copyRemoteReaderNames(), ElementsAre("A"));
    EXPECT_FALSE(wasListReadersCalled());
}

TEST_F(RemoteOnlyReaders, EndTheCallWithTheDaemonsFailure) {
    const SCARDCONTEXT context = boundContext();
    setRemoteReaderNames("Old\0\0"s);
    daemon().answers = {listRecord(0, 0, 0x80100004)};
    DWORD length = 0;
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &length), SCARD_E_INVALID_PARAMETER);
    EXPECT_THAT(copyRemoteReaderNames(), ElementsAre("Old"));
}

TEST_F(RemoteOnlyReaders, AreNoneWithoutAService) {
    const SCARDCONTEXT context = boundContext();  // and there is no answer to the request
    DWORD length = 0;
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &length), SCARD_E_NO_READERS_AVAILABLE);
}

TEST_F(RemoteOnlyReaders, AreInvalidForAnUnknownContext) {
    DWORD length = 0;
    EXPECT_EQ(SCardListReadersA(1, nullptr, nullptr, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyReaders, AreClosedWithTheNulsThatTheDaemonLeftOut) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {listRecord(0, 3), textBytes("A\0B"s)};
    char readers[8];
    DWORD length = sizeof(readers);
    EXPECT_EQ(SCardListReadersA(context, nullptr, readers, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(std::string(readers, length), "A\0B\0\0"s);
}

TEST_F(RemoteOnlyReaders, AreRefusedAndThePipeClosedWhenTheyAreTooMany) {
    const SCARDCONTEXT context = boundContext();
    daemon().answers = {listRecord(0, 2049)};
    DWORD length = 0;
    EXPECT_EQ(SCardListReadersA(context, nullptr, nullptr, &length), SCARD_F_INTERNAL_ERROR);
    EXPECT_EQ(daemon().timesClosed, 1);
}

TEST_F(RemoteOnlyReaders, AreInTheDefaultGroupAlone) {
    const SCARDCONTEXT context = boundContext();
    const GuardedBuffer groups(22);
    DWORD length = 22;
    EXPECT_EQ(SCardListReaderGroupsA(context, groups.as<char>(), &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 22U);
    EXPECT_EQ(std::string(groups.as<char>(), 22), kDefaultGroups);
    length = 0;
    EXPECT_EQ(SCardListReaderGroupsA(0, nullptr, &length), SCARD_S_SUCCESS);
    EXPECT_EQ(length, 22U);
    EXPECT_THAT(daemon().requests, IsEmpty());
}

TEST_F(RemoteOnlyReaders, HaveNoGroupsWithoutALengthOrAKnownContext) {
    const SCARDCONTEXT context = boundContext();
    DWORD length = 22;
    EXPECT_EQ(SCardListReaderGroupsA(context, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
    EXPECT_EQ(SCardListReaderGroupsA(context + 1, nullptr, &length), SCARD_E_INVALID_HANDLE);
    EXPECT_THAT(
        log().entries(),
        testing::IsSupersetOf({LogLine('W', "SCardListReaderGroupsA", "pcchGroups cannot be NULL"),
                               LogLine('W', "SCardListReaderGroupsA", "Invalid context handle")}));
}
