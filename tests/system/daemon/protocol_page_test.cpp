// What docs/daemon-protocol.md says is what the library does: it writes the bytes of the examples,
// and a daemon that knows nothing but the page's tables serves it.
#include "protocol_page.h"

#include <map>
#include <string_view>

#include "record_codec.h"
#include "system_test.h"

namespace tez::test {
namespace {

using testing::ElementsAre;

constexpr const char* kPageReader = "Reader 0";
// SELECT by name, without an answer but the status.
const Bytes kSelect{0x00, 0xA4, 0x04, 0x0C, 0x08, 0xF0, 0x54, 0x45, 0x5A, 0x44, 0x45, 0x4D, 0x4F};

ProtocolPage thePage() {
    return readProtocolPage(TEZ_PROTOCOL_PAGE);
}

class ProtocolPageTest : public SystemTest {
  protected:
    /// The calls of the page's examples, of which all must succeed.
    void makeTheCalls() {
        const SCARDCONTEXT context = establishWithDaemon();
        EXPECT_THAT(listReaders(context), ElementsAre(kPageReader));
        const ConnectedCard card = connect(context, kPageReader, SCARD_SHARE_SHARED);
        EXPECT_EQ(card.protocol, DWORD{SCARD_PROTOCOL_T1});
        DWORD state = 0;
        DWORD protocol = 0;
        BYTE atr[33] = {};
        DWORD atrLength = sizeof atr;
        EXPECT_THAT(SCardStatusA(card.handle, nullptr, nullptr, &state, &protocol, atr, &atrLength),
                    Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(Bytes(atr, atr + atrLength), makeDemoCard("").atr());
        EXPECT_THAT(transmit(card, kSelect), ElementsAre(0x90, 0x00));
        SCARD_READERSTATEA reader{};
        reader.szReader = kPageReader;
        EXPECT_THAT(SCardGetStatusChangeA(context, 0, &reader, 1), Gives(SCARD_S_SUCCESS));
        EXPECT_EQ(reader.dwEventState & (SCARD_STATE_PRESENT | SCARD_STATE_CHANGED),
                  DWORD{SCARD_STATE_PRESENT | SCARD_STATE_CHANGED});
        EXPECT_THAT(SCardDisconnect(card.handle, SCARD_LEAVE_CARD), Gives(SCARD_S_SUCCESS));
        EXPECT_THAT(SCardReleaseContext(context), Gives(SCARD_S_SUCCESS));
    }
};

TEST_F(ProtocolPageTest, TheLibraryWritesTheBytesOfTheExamples) {
    remote.removeReader(kRemoteReader);
    remote.addReader(kPageReader);
    remote.insertCard(kPageReader, makeDemoCard(kRemoteCardHolder));
    host.pcsc().removeReader(kHostReader);
    makeTheCalls();
    const ProtocolPage page = thePage();
    ASSERT_FALSE(page.examples.empty());
    Bytes handshake = daemon.handshakes().front().token;
    const Bytes option = daemon.handshakes().front().option;
    handshake.insert(handshake.end(), option.begin(), option.end());
    EXPECT_EQ(page.examples.front().sent, handshake);
    const std::vector<Request> requests = daemon.requests();
    ASSERT_EQ(requests.size() + 1, page.examples.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        Bytes sent = requests[i].header;
        sent.insert(sent.end(), requests[i].body.begin(), requests[i].body.end());
        EXPECT_EQ(page.examples[i + 1].sent, sent) << page.examples[i + 1].title;
    }
}

/// A daemon with one reader and one card, written from the page: it knows fields by their names and
/// finds them where the tables say that they are.
class DaemonFromThePage {
  public:
    DaemonFromThePage() : page_(thePage()) {}

    /// What it does about a request; a known command that it does not serve is refused.
    Reply answer(const Request& request) {
        const auto command = u32At(request.header, page_.header.fields.at("command").offset);
        const PageRecord& table = page_.records.at(command);
        Record record(table, bytesAt(request.body, 0, table.size));
        const Bytes data = bytesAt(request.body, table.size, request.body.size() - table.size);
        switch (static_cast<Command>(command)) {
            case Command::kEstablishContext:
                return record.set("hContext", kContext).succeed();
            case Command::kListReaders: {
                const Bytes names = multiString({kPageReader});
                return record.set("cchReaders", names.size()).succeed(names);
            }
            case Command::kConnect:
                return record.set("hCard", kCard).set("dwActiveProtocol", 2).succeed();
            case Command::kTransmit:
                return record.set("ioRecvPciProtocol", 2)
                    .set("pcbRecvLength", 2)
                    .succeed(Bytes{0x90, 0x00});
            case Command::kStatus: {
                const Bytes atr = makeDemoCard("").atr();
                return record.set("dwState", 0x54)
                    .set("dwProtocol", 2)
                    .put("pbAtr", atr)
                    .set("cbAtrLen", atr.size())
                    .succeed();
            }
            case Command::kGetStatusChange: {
                Record state(page_.readerState, data);
                state.set("dwEventState", SCARD_STATE_PRESENT | SCARD_STATE_CHANGED);
                return record.succeed(state.bytes());
            }
            case Command::kReleaseContext:
            case Command::kDisconnect:
            case Command::kCancel:
                return record.succeed();
            default:
                return record.set("rv", 0x80100022).answer();
        }
    }

  private:
    static constexpr std::uint64_t kContext = 0x1234567800000001;
    static constexpr std::uint64_t kCard = 0x1234567900000001;

    class Record {
      public:
        Record(const PageRecord& table, Bytes bytes) : table_(table), bytes_(std::move(bytes)) {}

        Record& set(const std::string& field, std::uint64_t value) {
            const PageField& place = table_.fields.at(field);
            for (std::size_t i = 0; i < place.width; ++i) {
                bytes_.at(place.offset + i) = static_cast<std::uint8_t>(value >> 8 * i);
            }
            return *this;
        }
        Record& put(const std::string& field, const Bytes& value) {
            putBytes(bytes_, table_.fields.at(field).offset, value);
            return *this;
        }
        Reply succeed(const Bytes& data = {}) { return set("rv", 0).answer(data); }
        Reply answer(const Bytes& data = {}) const {
            Bytes all = bytes_;  // record and data may go in one write
            all.insert(all.end(), data.begin(), data.end());
            return Reply::of({std::move(all)});
        }
        const Bytes& bytes() const { return bytes_; }

      private:
        const PageRecord& table_;
        Bytes bytes_;
    };

    const ProtocolPage page_;
};

TEST_F(ProtocolPageTest, ADaemonWrittenFromTheTablesServesTheLibrary) {
    DaemonFromThePage fromThePage;
    for (const auto& [command, record] : thePage().records) {
        daemon.on(static_cast<Command>(command),
                  [&](const Request& request) { return fromThePage.answer(request); });
    }
    host.pcsc().removeReader(kHostReader);
    makeTheCalls();
    const SCARDCONTEXT context = establish();
    const ConnectedCard card = connect(context, kPageReader);
    EXPECT_THAT(SCardBeginTransaction(card.handle), Gives(SCARD_E_UNSUPPORTED_FEATURE));
}

}  // namespace
}  // namespace tez::test
