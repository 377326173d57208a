// How a log's lines become calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log/call_assembler.h"
#include "log/call_filter.h"
#include "log/call_table.h"
#include "log/html_page.h"
#include "log/line_parser.h"

namespace tez::client {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

/// Lines, a microsecond apart.
class LogText {
  public:
    LogText& line(int thread, const std::string& function, const std::string& message) {
        char time[16];
        std::snprintf(time, sizeof time, "%06d", ++time_);
        text_ += "D Nov 15 23:13:00:" + std::string(time) + " 4120:" + std::to_string(thread) +
                 " TEZ (" + function + "): " + message + "\n";
        return *this;
    }
    LogText& connect(const std::string& reader, const std::string& handle, bool isRemote) {
        line(1, "SCardConnectA", "SCARD_CONNECT IN-PARAMS: 1, " + reader + ", 2, 3, 00A0, 00B0");
        if (isRemote) {
            line(1, "SCardConnectA",
                 "local call failed with 0x80100009, falling back to remote call");
        }
        line(1, "SCardConnectA", "SCARD_CONNECT OUT-PARAMS: " + handle + ", 2");
        return line(1, "SCardConnectA", "SCARD_CONNECT RV: 0x00000000");
    }
    LogText& transmit(int thread, const std::string& handle, const std::string& result) {
        line(thread, "SCardTransmit", "TRANSMIT IN-PARAMS: " + handle + ", 00C0, 0000 (65538)");
        return line(thread, "SCardTransmit", "TRANSMIT RV: " + result);
    }
    LogText& wait(int time) {
        time_ += time;
        return *this;
    }

    std::vector<Call> calls() const {
        std::vector<Call> list;
        LineParser parser;
        CallAssembler assembler([&list](Call call) { list.push_back(std::move(call)); });
        for (const LogLine& each : parser.take(text_)) {
            assembler.take(each);
        }
        assembler.finish();
        others_ = assembler.otherLineCount();
        return list;
    }

    /// Of the calls before.
    std::size_t others() const { return others_; }

  private:
    int time_ = 0;
    std::string text_;
    mutable std::size_t others_ = 0;
};

/// "SCardTransmit remote Reader 0x80100069" for each.
std::vector<std::string> described(const std::vector<Call>& calls) {
    std::vector<std::string> list;
    for (const Call& call : calls) {
        char result[16] = "-";
        if (call.result) {
            std::snprintf(result, sizeof result, "0x%08X", static_cast<unsigned>(*call.result));
        }
        const std::string side = answeringSideName(call.side);
        list.push_back(call.function + (side.empty() ? "" : " " + side) +
                       (call.subject.empty() ? "" : " " + call.subject) + " " +
                       (call.isFinished ? result : "unfinished"));
    }
    return list;
}

TEST(LogCallsTest, KnowsTheSideAndTheReaderOfACard) {
    LogText log;
    log.connect("Remote, with a comma", "7", true).connect("Host", "8", false);
    log.transmit(1, "7", "0x00000000")
        .transmit(2, "8", "0x80100069")
        .transmit(2, "9", "0x80100003");
    log.line(1, "SCardStatusA",
             "STATUS IN-PARAMS: hCard:7 mszReaderName:0000, pcchReaderLen:0000(0)");
    log.line(1, "SCardStatusA", "STATUS RV: 0x00000000");
    EXPECT_THAT(described(log.calls()),
                ElementsAre("SCardConnectA remote Remote, with a comma 0x00000000",
                            "SCardConnectA host Host 0x00000000",
                            "SCardTransmit remote Remote, with a comma 0x00000000",
                            "SCardTransmit host Host 0x80100069", "SCardTransmit 0x80100003",
                            "SCardStatusA remote Remote, with a comma 0x00000000"));
}

TEST(LogCallsTest, PutsTheLinesOfInterleavedThreadsTogether) {
    LogText log;
    log.line(1, "SCardTransmit", "TRANSMIT IN-PARAMS: 1, 0, 0 (1)");
    log.line(2, "SCardTransmit", "TRANSMIT IN-PARAMS: 2, 0, 0 (2)");
    log.line(1, "SCardTransmit", "of one");
    log.line(2, "Exchange", "of two");
    log.line(2, "SCardTransmit", "TRANSMIT RV: 0x80100016");
    log.line(1, "SCardTransmit", "TRANSMIT RV: 0x00000000");
    const std::vector<Call> calls = log.calls();
    ASSERT_THAT(calls, SizeIs(2));
    EXPECT_EQ(calls[0].thread, 2U);
    EXPECT_EQ(calls[0].duration(), 3);
    ASSERT_THAT(calls[0].lines, SizeIs(3));
    EXPECT_EQ(calls[0].lines[1].message, "of two");
    EXPECT_EQ(calls[1].duration(), 5);
    ASSERT_THAT(calls[1].lines, SizeIs(3));
    EXPECT_EQ(calls[1].lines[1].message, "of one");
}

TEST(LogCallsTest, LastsNoLessThanNothingWhenTheClockIsSetBack) {
    LogText log;
    log.line(1, "SCardTransmit", "TRANSMIT IN-PARAMS: 1, 00C0, 0000 (65538)");
    log.wait(10).line(1, "SCardTransmit", "Used receive protocol 2").wait(-5);
    log.line(1, "SCardTransmit", "TRANSMIT RV: 0x00000000");
    const std::vector<Call> calls = log.calls();
    ASSERT_THAT(calls, SizeIs(1));
    EXPECT_EQ(calls[0].duration(), 11);
    log.wait(100).line(1, "SCardTransmit", "TRANSMIT IN-PARAMS: 1, 00C0, 0000 (65538)").wait(-50);
    EXPECT_EQ(log.line(1, "SCardTransmit", "TRANSMIT RV: 0x00000000").calls()[1].duration(), 0);
}

TEST(LogCallsTest, SeesCallsInsideOfCallsAndThoseThatNeverEnd) {
    LogText log;
    log.line(1, "SCardGetStatusChangeA", "GET_STATUS_CHANGE IN-PARAMS: 1, 0, 00A0, 1");
    log.line(1, "SCardListReadersA", "LIST_READERS IN-PARAMS: 1, 0, 0");
    log.line(1, "establishRemoteContext", "ESTABLISH REMOTE CONTEXT IN-PARAMS: 0");
    log.line(1, "establishRemoteContext", "ESTABLISH REMOTE CONTEXT RV: 0x00000000");
    log.line(1, "SCardListReadersA", "LIST_READERS RV: 0x00000000");
    const std::vector<Call> calls = log.calls();
    EXPECT_THAT(described(calls), ElementsAre("SCardListReadersA both 0x00000000",
                                              "SCardGetStatusChangeA unfinished"));
    EXPECT_EQ(calls[0].depth, 1U);
    EXPECT_THAT(calls[0].lines, SizeIs(4));
    EXPECT_EQ(calls[1].depth, 0U);
    EXPECT_EQ(calls[1].outcome(), CallOutcome::kUnfinished);
}

TEST(LogCallsTest, KnowsTheReadersAndSidesOfAWait) {
    LogText log;
    log.line(1, "SCardGetStatusChangeA", "GET_STATUS_CHANGE IN-PARAMS: 1, 250, 00A0, 3");
    log.line(9, "LocalSCardGetStatusChange",
             "LOCAL READER STATE 0: Host: one, curr::0 (0x0), event::0 (0x0), 0");
    log.line(1, "SCardGetStatusChangeA",
             "REMOTE READER STATE 1: Remote, curr::0 (0x0), event::0 (0x0), 0");
    log.line(1, "SCardGetStatusChangeA",
             R"(REMOTE READER STATE 2: \\?PnP?\Notification, curr::0 (0x0), event::0 (0x0), 0)");
    log.line(1, "SCardGetStatusChangeA", "GET_STATUS_CHANGE RV: 0x8010000A");
    const std::vector<Call> calls = log.calls();
    EXPECT_THAT(described(calls),
                ElementsAre("SCardGetStatusChangeA both Host: one, Remote 0x8010000A"));
    EXPECT_EQ(calls[0].outcome(), CallOutcome::kOver);
    EXPECT_THAT(calls[0].lines, SizeIs(5));
    EXPECT_EQ(log.others(), 0U);
}

TEST(LogCallsTest, LeavesTheHostsHalfAloneWhenSeveralWaitsAreOpen) {
    LogText log;
    log.line(1, "SCardGetStatusChangeA", "GET_STATUS_CHANGE IN-PARAMS: 1, 250, 00A0, 3");
    log.line(2, "SCardGetStatusChangeA", "GET_STATUS_CHANGE IN-PARAMS: 1, 250, 00A0, 3");
    log.line(9, "LocalSCardGetStatusChange", "LOCAL READER STATE 0: Host, curr::0 (0x0), ...");
    log.line(9, "pollServiceAvailability", "Started poll thread for protocol pipe");
    log.calls();
    EXPECT_EQ(log.others(), 2U);
}

TEST(LogCallsTest, KnowsCallsWithoutAFrame) {
    LogText log;
    log.line(1, "SCardAccessStartedEvent", "ACCESS_STARTED_EVENT CALLED");
    log.line(1, "SCardListReaderGroupsA", "LIST_READER_GROUPS RV: 0x80100004");
    log.line(1, "SCardLocateCardsA", "SCardLocateCardsA not implemented");
    log.line(1, "SCardForgetCardTypeA", "FORGET CARD TYPE IN-PARAMS: 1, X");
    log.line(1, "SCardForgetCardTypeA", "FORGET CARD TYPE RV: -2146435069");
    EXPECT_THAT(described(log.calls()),
                ElementsAre("SCardAccessStartedEvent -", "SCardListReaderGroupsA 0x80100004",
                            "SCardLocateCardsA 0x80100001", "SCardForgetCardTypeA 0x80100003"));
}

TEST(LogCallsTest, KeepsTheSecondLineOfAMessageWithItsCall) {
    LogText log;
    log.line(1, "SCardListReaderGroupsA",
             "LIST_READER_GROUPS IN-PARAMS: 1, 0, 0\n    pcchGroups is 5");
    log.line(1, "SCardListReaderGroupsA", "LIST_READER_GROUPS RV: 0x00000000");
    EXPECT_THAT(log.calls().at(0).lines.at(0).message, HasSubstr("\n    pcchGroups is 5"));
}

TEST(LogCallsTest, FiltersByWhatIsWanted) {
    LogText log;
    log.transmit(1, "1", "0x00000000").transmit(2, "1", "0x80100069");
    log.line(3, "SCardCancel", "CANCEL IN-PARAMS: 1").wait(2000);
    log.line(3, "SCardCancel", "CANCEL RV: 0x00000000");
    const std::vector<Call> calls = log.calls();
    const auto accepted = [&calls](const CallFilter& filter) {
        std::vector<std::uint32_t> threads;
        for (const Call& call : calls) {
            if (filter.accepts(call)) {
                threads.push_back(call.thread);
            }
        }
        return threads;
    };
    EXPECT_THAT(accepted({}), ElementsAre(1, 2, 3));
    EXPECT_THAT(accepted({.failures = true, .slow = {}, .name = "", .thread = {}}), ElementsAre(2));
    EXPECT_THAT(accepted({.failures = false, .slow = 2.0, .name = "", .thread = {}}),
                ElementsAre(3));
    EXPECT_THAT(accepted({.failures = false, .slow = {}, .name = "transMIT", .thread = {}}),
                ElementsAre(1, 2));
    EXPECT_THAT(accepted({.failures = false, .slow = {}, .name = "transmit", .thread = 1}),
                ElementsAre(1));
}

TEST(LogCallsTest, WritesACallAsALineOfATable) {
    LogText log;
    log.connect("Reader", "7", true).transmit(1, "7", "0x80100069");
    const std::string line = formatCall(log.calls().at(1));
    EXPECT_EQ(
        line,
        "Nov 15 23:13:00.000005  4120:1             0.001  SCardTransmit                  "
        "remote  Reader                SCARD_W_REMOVED_CARD 0x80100069, the card was removed");
    EXPECT_EQ(callTableHead().find("result"), line.find("SCARD_W"));
}

TEST(LogCallsTest, MakesAPageThatNoTextCanBreak) {
    LogText log;
    log.connect("</script><script>alert(1)</script>", "7", true);
    const std::string page = makeHtmlPage(log.calls());
    EXPECT_THAT(page, AllOf(HasSubstr("\\u003c/script>\\u003cscript>alert(1)"),
                            Not(HasSubstr("<script>alert"))));
    EXPECT_THAT(page, AllOf(HasSubstr("id=\"timeline\""), HasSubstr("--failed: #"),
                            HasSubstr("'use strict'"), Not(HasSubstr("/*SCRIPT*/"))));
    EXPECT_THAT(page, Not(HasSubstr("http")));
    EXPECT_THAT(makeHtmlPage(LogText().connect("LINES", "7", true).calls()),
                AllOf(HasSubstr("[\"LINES\"]"), HasSubstr("id=\"lines\">[")));
    EXPECT_THAT(makeHtmlPage({}), HasSubstr("\"threads\":[]"));
}

}  // namespace
}  // namespace tez::client
