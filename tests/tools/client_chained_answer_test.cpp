// The client and a card of T=0, which answers in parts (61xx) or names the length that it wants
// (6Cxx): what it is asked, and what a person sees.
#include <algorithm>
#include <memory>

#include "client_with_own_daemon.h"
#include "daemon_records.h"

namespace tez::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kApplication = "A000000001";

const Bytes kSelectCommand = {0x00, 0xA4, 0x04, 0x00, 0x05, 0xA0, 0x00, 0x00, 0x00, 0x01};

Bytes getResponse(std::uint8_t length) {
    return {0x00, 0xC0, 0x00, 0x00, length};
}

Bytes readBinary(unsigned offset, std::uint8_t length) {
    return {0x00, 0xB0, static_cast<std::uint8_t>(offset >> 8U), static_cast<std::uint8_t>(offset),
            length};
}

/// So many bytes of a file, and success.
Bytes filePart(std::size_t size) {
    Bytes answer(size, 0x5A);
    answer.insert(answer.end(), {0x90, 0x00});
    return answer;
}

class ClientAndAnswersInParts : public ClientWithOwnDaemon {
  protected:
    /// The card answers so, the last one again and again.
    void answerWith(const std::vector<Bytes>& answers) {
        // The client transmits on one connection after the other.
        daemon.on(
            Command::kTransmit,
            [answers, next = std::make_shared<std::size_t>(0)](
                const Request& request) -> std::optional<Reply> {
                const Bytes& answer = answers[std::min((*next)++, answers.size() - 1)];
                return Reply::of(answerBlocks(
                    request, TransmitLayout::kSize,
                    {{TransmitLayout::kReceiveProtocol, SCARD_PROTOCOL_T0},
                     {TransmitLayout::kReceiveLength, static_cast<std::uint32_t>(answer.size())}},
                    answer));
            });
    }

    /// What the card was sent.
    std::vector<Bytes> commands() const {
        std::vector<Bytes> commands;
        for (const Request& request : daemon.requests(Command::kTransmit)) {
            commands.emplace_back(request.body.begin() + TransmitLayout::kSize, request.body.end());
        }
        return commands;
    }
};

TEST_F(ClientAndAnswersInParts, FetchesWhatTheCardHasReady) {
    answerWith({{0x61, 0x02}, {0xCA, 0xFE, 0x61, 0x00}, {0xAB, 0x90, 0x00}});
    EXPECT_THAT(output(onCard("select", kApplication)),
                AllOf(HasSubstr("CA FE 61 00"), HasSubstr("AB 90 00")));
    EXPECT_THAT(commands(), ElementsAre(kSelectCommand, getResponse(2), getResponse(0)));
}

TEST_F(ClientAndAnswersInParts, AsksAnewWithTheLengthThatTheCardNamesButOnce) {
    answerWith({{0x6C, 0x05}});
    EXPECT_THAT(outputOf(onCard("read"), 1), HasSubstr("6C05"));
    EXPECT_THAT(commands(), ElementsAre(readBinary(0, 0), readBinary(0, 5)));
}

TEST_F(ClientAndAnswersInParts, EndsWithACardThatPromisesMoreAndGivesNothing) {
    answerWith({{0x61, 0x10}});
    EXPECT_THAT(outputOf(onCard("select --json", kApplication), 1),
                HasSubstr("gives nothing of what it has ready"));
    EXPECT_THAT(commands(), ElementsAre(kSelectCommand, getResponse(0x10)));
}

TEST_F(ClientAndAnswersInParts, ReadsOnBehindAPartThatIsShorterThanAskedFor) {
    answerWith({filePart(128), filePart(128), filePart(44), {0x6B, 0x00}});
    const std::string text = output(onCard("read"));
    EXPECT_THAT(commands(), ElementsAre(readBinary(0, 0), readBinary(128, 0), readBinary(256, 0),
                                        readBinary(300, 0)));
    EXPECT_THAT(text, HasSubstr("6B00"));
}

TEST_F(ClientAndAnswersInParts, TakesARefusalOfTheOffsetForTheEndOfAFile) {
    for (const Bytes& refusal : {Bytes{0x6B, 0x00}, Bytes{0x6A, 0x86}}) {
        answerWith({filePart(44), refusal});
        output(onCard("read"));
    }
    answerWith({filePart(44), {0x67, 0x00}});
    EXPECT_THAT(outputOf(onCard("read"), 1), HasSubstr("6700")) << "there may be more";
}

TEST_F(ClientAndAnswersInParts, ReadsTheLengthThatIsWantedWhateverPartsItComesIn) {
    answerWith({filePart(128), filePart(128), filePart(44)});
    output(onCard("read", "--length 300"));
    EXPECT_THAT(commands(),
                ElementsAre(readBinary(0, 0), readBinary(128, 172), readBinary(256, 44)));
}

TEST_F(ClientAndAnswersInParts, TakesAnEmptyAnswerForTheEndOfAFile) {
    answerWith({filePart(128), filePart(0)});
    output(onCard("read"));
    EXPECT_THAT(commands(), ElementsAre(readBinary(0, 0), readBinary(128, 0)));
}

TEST_F(ClientAndAnswersInParts, EndsWithACardThatNeverComesToAnEnd) {
    Bytes part(32768, 0x5A);
    part.insert(part.end(), {0x61, 0x00});
    answerWith({part});
    EXPECT_THAT(outputOf(onCard("select --json", kApplication), 1),
                HasSubstr("more to fetch than any command's answer can hold"));
    EXPECT_EQ(commands().size(), 3U);
}

}  // namespace
}  // namespace tez::test
