#include "call_catalogue.h"

namespace tez::test {

Bytes Answer::bytesFor(const Request& request) const {
    std::vector<AnswerField> all = fields;
    if (unit != 0) {
        all.push_back({announcingOffset(), static_cast<std::uint32_t>(data.size() / unit)});
    }
    all.push_back({resultOffset(), SCARD_S_SUCCESS});
    Bytes whole;
    for (const Bytes& block : answerBlocks(request, recordSize, all, data)) {
        whole.insert(whole.end(), block.begin(), block.end());
    }
    return whole;
}

DaemonSimulator::Handler Answer::handler() const {
    return [answer = *this](const Request& request) {
        return request.complete ? Reply::of({answer.bytesFor(request)}) : Reply::closePipe();
    };
}

const std::vector<ExportedCall>& callCatalogue() {
    static const std::vector<ExportedCall> catalogue = [] {
        std::vector<ExportedCall> all;
        for (const auto& part :
             {contextCalls, readerCalls, cardCalls, databaseCalls, refusedCalls}) {
            std::ranges::move(part(), std::back_inserter(all));
        }
        return all;
    }();
    return catalogue;
}

std::vector<ExportedCall> refusedCalls() {
    std::vector<ExportedCall> calls;
    const auto add = [&calls](std::initializer_list<const char*> stems, LONG result) {
        for (const std::string stem : stems) {
            for (const char* const form : {"A", "W"}) {
                calls.push_back({.name = "SCard" + stem + form, .refusal = result});
            }
        }
    };
    add({"AddReaderToGroup", "ForgetReader", "ForgetReaderGroup", "GetProviderId",
         "IntroduceReader", "IntroduceReaderGroup", "ListInterfaces", "LocateCards",
         "LocateCardsByATR", "RemoveReaderFromGroup"},
        SCARD_F_INTERNAL_ERROR);
    calls.push_back({.name = "SCardState", .refusal = SCARD_F_INTERNAL_ERROR});
    add({"GetReaderDeviceInstanceId", "ListReadersWithDeviceInstanceId"},
        SCARD_E_READER_UNAVAILABLE);
    return calls;
}

void closeHostsCache(MockSystemCalls& host) {
    ON_CALL(host, SCardWriteCacheA).WillByDefault(testing::Return(SCARD_E_UNSUPPORTED_FEATURE));
}

void serveAnswers(DaemonSimulator& daemon, const std::vector<ExportedCall>& calls) {
    for (const ExportedCall& call : calls) {
        daemon.on(call.answer->command, call.answer->handler());
    }
}

void redirectDatabaseCalls() {
    setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
}

void PrintTo(const ExportedCall& call, std::ostream* stream) {
    *stream << call.name;
}

std::string nameOfCall(const testing::TestParamInfo<ExportedCall>& given) {
    return given.param.name.substr(std::string("SCard").size());
}

}  // namespace tez::test
