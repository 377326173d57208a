#include "database_calls.h"

#include <algorithm>
#include <iterator>

#include "daemon_records.h"

namespace tez::test {
namespace {

constexpr const wchar_t* kWideRemoteReader = L"Remote Reader 0";
constexpr DWORD kFreshness = 7;
constexpr GUID kDatabaseGuid = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
constexpr BYTE kDatabaseAtr[] = {0x3B, 0x02, 0x14, 0x50};

// Texts that the platform's signatures do not promise to leave alone.
char narrowItem[] = "an item";
wchar_t wideItem[] = L"an item";

Bytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

template <class Unit>
Unit* as(void* destination) {
    return static_cast<Unit*>(destination);
}

DatabaseQuery listCards(const char* name, std::size_t unit, auto call) {
    using namespace std::string_literals;
    return {name, Command::kListCards, 54, 50, 46, bytesOf("Remote Card\0Other Card\0\0"s), unit,
            call};
}

DatabaseQuery deviceType(const char* name, auto call) {
    return {name, Command::kGetDeviceTypeId, 144, 140, 0, {}, 1, call};
}

DatabaseQuery providerName(const char* name, std::size_t unit, auto call) {
    using namespace std::string_literals;
    return {name, Command::kGetCardTypeProviderName, 1044, 1040,
            1036, bytesOf("A Provider\0"s),          unit, call};
}

DatabaseQuery readCache(const char* name, auto call) {
    return {name, Command::kReadCache, 36, 32, 28, sampleBytes(20), 1, call};
}

DatabaseQuery writeCache(const char* name, auto call) {
    return {name, Command::kWriteCache, 36, 32, 0, {}, 1, call};
}

DatabaseQuery iconQuery(const char* name, auto call) {
    return {name, Command::kGetReaderIcon, 16, 12, 8, sampleBytes(300), 1, call};
}

}  // namespace

const std::vector<DatabaseQuery>& databaseQueries() {
    static const std::vector<DatabaseQuery> queries = {
        listCards("ListCardsA", sizeof(char),
                  [](SCARDCONTEXT context, void* cards, DWORD* length) {
                      return SCardListCardsA(context, kDatabaseAtr, &kDatabaseGuid, 1,
                                             as<char>(cards), length);
                  }),
        listCards("ListCardsW", sizeof(wchar_t),
                  [](SCARDCONTEXT context, void* cards, DWORD* length) {
                      return SCardListCardsW(context, kDatabaseAtr, &kDatabaseGuid, 1,
                                             as<wchar_t>(cards), length);
                  }),
        providerName("GetCardTypeProviderNameA", sizeof(char),
                     [](SCARDCONTEXT context, void* provider, DWORD* length) {
                         return SCardGetCardTypeProviderNameA(context, "Remote Card",
                                                              SCARD_PROVIDER_CSP,
                                                              as<char>(provider), length);
                     }),
        providerName("GetCardTypeProviderNameW", sizeof(wchar_t),
                     [](SCARDCONTEXT context, void* provider, DWORD* length) {
                         return SCardGetCardTypeProviderNameW(context, L"Remote Card",
                                                              SCARD_PROVIDER_CSP,
                                                              as<wchar_t>(provider), length);
                     }),
        deviceType("GetDeviceTypeIdA",
                   [](SCARDCONTEXT context, void* /*none*/, DWORD* /*none*/) {
                       DWORD type = 0;
                       return SCardGetDeviceTypeIdA(context, kRemoteReader, &type);
                   }),
        deviceType("GetDeviceTypeIdW",
                   [](SCARDCONTEXT context, void* /*none*/, DWORD* /*none*/) {
                       DWORD type = 0;
                       return SCardGetDeviceTypeIdW(context, kWideRemoteReader, &type);
                   }),
        readCache("ReadCacheA",
                  [](SCARDCONTEXT context, void* data, DWORD* length) {
                      UUID card = kDatabaseGuid;
                      return SCardReadCacheA(context, &card, kFreshness, narrowItem, as<BYTE>(data),
                                             length);
                  }),
        readCache("ReadCacheW",
                  [](SCARDCONTEXT context, void* data, DWORD* length) {
                      UUID card = kDatabaseGuid;
                      return SCardReadCacheW(context, &card, kFreshness, wideItem, as<BYTE>(data),
                                             length);
                  }),
        writeCache("WriteCacheA",
                   [](SCARDCONTEXT context, void* /*none*/, DWORD* /*none*/) {
                       UUID card = kDatabaseGuid;
                       BYTE data[] = {1, 2, 3};
                       return SCardWriteCacheA(context, &card, kFreshness, narrowItem, data, 3);
                   }),
        writeCache("WriteCacheW",
                   [](SCARDCONTEXT context, void* /*none*/, DWORD* /*none*/) {
                       UUID card = kDatabaseGuid;
                       BYTE data[] = {1, 2, 3};
                       return SCardWriteCacheW(context, &card, kFreshness, wideItem, data, 3);
                   }),
        iconQuery("GetReaderIconA",
                  [](SCARDCONTEXT context, void* icon, DWORD* length) {
                      return SCardGetReaderIconA(context, kRemoteReader, as<BYTE>(icon), length);
                  }),
        iconQuery("GetReaderIconW",
                  [](SCARDCONTEXT context, void* icon, DWORD* length) {
                      return SCardGetReaderIconW(context, kWideRemoteReader, as<BYTE>(icon),
                                                 length);
                  }),
    };
    return queries;
}

const std::vector<DatabaseQuery>& redirectedUpdates() {
    static const std::vector<DatabaseQuery> updates = [] {
        std::vector<DatabaseQuery> made;
        for (const DatabaseUpdate& update : databaseUpdates()) {
            made.push_back({update.name,
                            update.command,
                            update.recordSize,
                            update.recordSize - 4,
                            0,
                            {},
                            1,
                            [make = update.make](SCARDCONTEXT /*context*/, void* /*none*/,
                                                 DWORD* /*none*/) { return make(0); }});
        }
        return made;
    }();
    return updates;
}

std::vector<DatabaseQuery> queriesWithData() {
    std::vector<DatabaseQuery> queries;
    std::ranges::copy_if(databaseQueries(), std::back_inserter(queries), &DatabaseQuery::hasData);
    return queries;
}

void PrintTo(const DatabaseQuery& query, std::ostream* stream) {
    *stream << query.name;
}

void serveQueries(DaemonSimulator& daemon, MockSystemCalls& host) {
    // The cache is the one that takes what the host does not know.
    ON_CALL(host, SCardWriteCacheA).WillByDefault(testing::Return(SCARD_E_UNSUPPORTED_FEATURE));
    for (const DatabaseQuery& query : databaseQueries()) {
        std::vector<AnswerField> fields;
        if (query.hasData()) {
            fields.push_back({query.lengthOffset, static_cast<std::uint32_t>(query.data.size())});
        }
        daemon.on(query.command, answering(query.recordSize, fields, query.data));
    }
    for (const DatabaseUpdate& update : databaseUpdates()) {
        daemon.on(update.command, answering(update.recordSize, {}));
    }
}

const std::vector<DatabaseUpdate>& databaseUpdates() {
    static const std::vector<DatabaseUpdate> updates = {
        {"IntroduceCardTypeA", Command::kIntroduceCardType, 1129,
         [](SCARDCONTEXT context) {
             return SCardIntroduceCardTypeA(context, "A New Card", &kDatabaseGuid, &kDatabaseGuid,
                                            1, kDatabaseAtr, nullptr, sizeof kDatabaseAtr);
         }},
        {"SetCardTypeProviderNameA", Command::kSetCardTypeProviderName, 1044,
         [](SCARDCONTEXT context) {
             return SCardSetCardTypeProviderNameA(context, "A New Card", SCARD_PROVIDER_CSP,
                                                  "A Provider");
         }},
        {"ForgetCardTypeA", Command::kForgetCardType, 1036,
         [](SCARDCONTEXT context) { return SCardForgetCardTypeA(context, "A New Card"); }},
        {"IntroduceCardTypeW", Command::kIntroduceCardType, 1129,
         [](SCARDCONTEXT context) {
             return SCardIntroduceCardTypeW(context, L"A New Card", &kDatabaseGuid, &kDatabaseGuid,
                                            1, kDatabaseAtr, nullptr, sizeof kDatabaseAtr);
         }},
        {"SetCardTypeProviderNameW", Command::kSetCardTypeProviderName, 1044,
         [](SCARDCONTEXT context) {
             return SCardSetCardTypeProviderNameW(context, L"A New Card", SCARD_PROVIDER_CSP,
                                                  L"A Provider");
         }},
        {"ForgetCardTypeW", Command::kForgetCardType, 1036,
         [](SCARDCONTEXT context) { return SCardForgetCardTypeW(context, L"A New Card"); }},
        {"Audit", Command::kAudit, 16,
         [](SCARDCONTEXT context) { return SCardAudit(context, SCARD_AUDIT_CHV_SUCCESS); }},
    };
    return updates;
}

void redirectDatabaseCalls() {
    setEnvironment("TEZ_PCSC_ENABLE_ALL_CALLS_REDIRECTION", "1");
}

}  // namespace tez::test
