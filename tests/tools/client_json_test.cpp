// What the client writes for programs: one JSON object a line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

#include "client_fixture.h"

namespace tez::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Optional;

class ClientJsonTest : public ClientTest {
  protected:
    /// The objects that a command writes, one a line; anything else does not parse.
    static std::vector<json> objects(const std::string& command, DWORD exitCode = 0) {
        std::istringstream lines(outputOf(command + " --json", exitCode));
        std::vector<json> list;
        for (std::string line; std::getline(lines, line);) {
            list.push_back(json::parse(line));
        }
        return list;
    }

    static json object(const std::string& command, DWORD exitCode = 0) {
        const std::vector<json> list = objects(command, exitCode);
        EXPECT_EQ(list.size(), 1U) << command;
        EXPECT_EQ(list.at(0).at("ok"), exitCode == 0) << command;
        return list.at(0);
    }
};

TEST_F(ClientJsonTest, ListsReadersWithTheirSides) {
    EXPECT_EQ(object("readers --groups"), json::parse(R"({"readers": [
                  {"index": 0, "name": "Remote Reader 0", "side": "remote"},
                  {"index": 1, "name": "Remote Reader 1", "side": "remote"},
                  {"index": 2, "name": "Host Reader 0", "side": "host"}],
                  "groups": ["SCard$DefaultReaders"], "ok": true})"));
}

TEST_F(ClientJsonTest, TellsTheStateOfEachCard) {
    const json readers = object("status").at("readers");
    EXPECT_EQ(readers.at(0).at("atr"), kDemoAtrText);
    EXPECT_EQ(readers.at(0).at("protocol"), "T=1");
    EXPECT_EQ(readers.at(1).at("noCard").at("result").at("name"), "SCARD_E_NO_SMARTCARD");
    EXPECT_EQ(readers.at(2).at("side"), "host");
}

TEST_F(ClientJsonTest, TellsOfAFailureInTheObject) {
    EXPECT_EQ(object("apdu Nope 00A40400", 1), json::parse(R"({"error": {
                  "text": "SCardConnect: SCARD_E_UNKNOWN_READER 0x80100009, unknown reader",
                  "call": "SCardConnect",
                  "result": {"code": "0x80100009", "name": "SCARD_E_UNKNOWN_READER",
                             "text": "unknown reader"}}, "ok": false})"));
    EXPECT_EQ(object("status 7", 1).at("error"),
              json::parse(R"({"text": "there is no reader 7, they are 0 to 2"})"));
}

TEST_F(ClientJsonTest, TellsOfAContextThatCannotBeReleased) {
    setEnvironment("TEZ_STAND_IN_NO_RELEASE", "1");
    const json readers = object("readers", 1);
    EXPECT_EQ(readers.at("readers").size(), 3U);
    EXPECT_EQ(readers.at("error").at("call"), "SCardReleaseContext");
}

TEST_F(ClientJsonTest, TellsTheExchangesWithACard) {
    EXPECT_EQ(object("apdu 0 00A4040008F054455A44454D4F 00A4040001FF", 1),
              json::parse(R"({"exchanges": [
                  {"command": "00 A4 04 00 08 F0 54 45 5A 44 45 4D 4F", "answer": "6F 0A 84 08 F0 54 45 5A 44 45 4D 4F 90 00",
                   "status": "9000", "text": "success"},
                  {"command": "00 A4 04 00 01 FF", "answer": "6A 82",
                   "status": "6A82", "text": "file or application not found"}], "ok": false})"));
    EXPECT_EQ(object("select 0 F054455A44454D4F").at("exchanges").at(0).at("status"), "9000");
    const json file = object("read 0 --aid F054455A44454D4F --file 0101");
    EXPECT_THAT(file.at("content").get<std::string>(), testing::StartsWith("43 61 72 64"));
}

TEST_F(ClientJsonTest, TellsAttributesAndControls) {
    EXPECT_EQ(object("attributes 0 --name ATR_STRING").at("attributes"),
              json::parse(R"([{"name": "ATR_STRING", "id": "0x00090303",
                               "bytes": "3B 89 01 44 45 4D 4F 20 43 41 52 44 BF"}])"));
    EXPECT_EQ(object("attributes --list").at("attributes").at(0),
              json::parse(R"({"name": "VENDOR_NAME", "id": "0x00010100"})"));
    EXPECT_EQ(object("control 0 0x00312000 0102").at("code"), "0x00312000");
}

TEST_F(ClientJsonTest, TellsOfTheCardDatabaseAndTheCache) {
    EXPECT_EQ(object("cards --atr 3B00"),
              json::parse(R"({"atr": "3B 00", "cards": [], "ok": true})"));
    EXPECT_EQ(object("introduce \"A Card\" --atr 3B01FF").at("introduced"), "A Card");
    EXPECT_EQ(object("introduce \"A Card\" --reader \"Remote Reader 0\"").at("atr"), kDemoAtrText);
    EXPECT_EQ(object("forget \"A Card\"", 1).at("error").at("call"), "SCardForgetCardType");
    EXPECT_EQ(object("provider \"Demo Card\" --set \"A Provider\"").at("provider"), "A Provider");
    const std::string item = "00112233-4455-6677-8899-AABBCCDDEEFF item";
    EXPECT_EQ(object("cache put " + item + " 44656D6F").at("bytes"), 4);
    EXPECT_EQ(object("cache get " + item, 1).at("error").at("result").at("code"), "0x80100070");
    EXPECT_EQ(object("started"), json::parse(R"({"atOnce": true, "then": true, "ok": true})"));
}

TEST_F(ClientJsonTest, TellsOfAnIconAndOfAnOpenCard) {
    const std::filesystem::path file = cardFile().replace_extension(".ico");
    const json icon = object("icon 0 --file " + file.string());
    EXPECT_EQ(icon.at("bytes"), std::filesystem::file_size(file));
    EXPECT_EQ(icon.at("file"), file.string());
    std::filesystem::remove(file);
    EXPECT_THAT(shellOutput({"connect 0 --json"}, 0),
                HasSubstr(R"({"reader":"Remote Reader 0","protocol":"T=1","ok":true})"));
}

TEST_F(ClientJsonTest, WritesAnObjectForEachEventOfAWatch) {
    ChildProcess watch("pcsc-client.exe", "watch \"Remote Reader 1\" --once --json");
    EXPECT_EQ(json::parse(watch.readLine().value()),
              json::parse(R"({"event": "state", "reader": "Remote Reader 1", "state": "no card",
                              "bits": "0x00000012", "atr": ""})"));
    waitUntilItWaits(watch);
    simulator.tell("insert Remote Reader 1");
    EXPECT_EQ(json::parse(watch.readLine().value()).at("atr"), kDemoAtrText);
    EXPECT_EQ(json::parse(watch.readLine().value()), json::parse(R"({"ok": true})"));
    EXPECT_THAT(watch.waitForEnd(kPatience), Optional(0U));
}

TEST_F(ClientJsonTest, ExplainsACode) {
    EXPECT_EQ(object("explain 3B00"),
              json::parse(R"({"explanations": [{"kind": "atr", "text": "T=0",
        "details": [{"label": "coding", "text": "direct"}, {"label": "protocols", "text": "T=0"}]}],
        "ok": true})"));
}

}  // namespace
}  // namespace tez::test
