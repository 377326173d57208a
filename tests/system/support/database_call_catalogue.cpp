// The calls on the card database, the cache and the reader icon.
#include <bit>

#include "catalogue_arguments.h"

namespace tez::test {
namespace {

constexpr DWORD kFreshness = 7;
constexpr GUID kGuid = {0x01020304, 0x0506, 0x0708, {9, 10, 11, 12, 13, 14, 15, 16}};
constexpr BYTE kAtr[] = {0x3B, 0x02, 0x14, 0x50};
constexpr const char* kNewCard = "A New Card";

/// An answer with data behind its record.
Answer announcing(Command command, std::size_t recordSize, Bytes data,
                  LONG beyondMost = SCARD_S_SUCCESS) {
    return {.command = command,
            .recordSize = recordSize,
            .unit = 1,
            .data = std::move(data),
            .mostAnnounced = kLargestBlock,
            .beyondMost = beyondMost};
}

template <class Char, class ListCards>
ExportedCall listCards(const char* name, ListCards call) {
    using namespace std::string_literals;
    return handingOut({.name = name,
                       .takes = Takes::kAnyContext,
                       .answer = announcing(Command::kListCards, ListCardsLayout::kSize,
                                            textBytes("Remote Card\0Other Card\0\0"s)),
                       .withoutDaemon = SCARD_S_SUCCESS},
                      output<Char>([call](const Target& on, Char* cards, DWORD* length) {
                          return on.side == Side::kHost
                                     ? call(on.handle, nullptr, nullptr, 0, cards, length)
                                     : call(on.handle, kAtr, &kGuid, 1, cards, length);
                      }));
}

template <class Char, class GetProvider>
ExportedCall getProvider(const char* name, GetProvider call) {
    using namespace std::string_literals;
    return handingOut(
        {.name = name,
         .takes = Takes::kAnyContext,
         .answer = announcing(Command::kGetCardTypeProviderName, ProviderNameLayout::kSize,
                              textBytes("A Provider\0"s), SCARD_E_UNKNOWN_CARD),
         .withoutDaemon = SCARD_E_UNKNOWN_CARD,
         .unknownHandle = SCARD_E_INVALID_PARAMETER},
        output<Char>([call](const Target& on, Char* provider, DWORD* length) {
            const char* const card = on.side == Side::kHost ? kHostCardType : "Remote Card";
            return call(on.handle, text<Char>(card).c_str(), SCARD_PROVIDER_CSP, provider, length);
        }));
}

template <class Char, class GetDeviceType>
ExportedCall deviceType(const char* name, GetDeviceType call) {
    return {.name = name,
            .takes = Takes::kContext,
            .answer =
                Answer{.command = Command::kGetDeviceTypeId, .recordSize = DeviceTypeLayout::kSize},
            .make = [call](const Target& on) {
                DWORD type = 0;
                return call(on.handle, text<Char>(readerOf(on.side)).c_str(), &type);
            }};
}

template <class Char>
std::basic_string<Char> cacheItem(Side side) {
    return text<Char>(side == Side::kHost ? "the host's item" : "an item");
}

template <class Char, class ReadCache>
ExportedCall readCache(const char* name, ReadCache call) {
    return handingOut(
        {.name = name,
         .takes = Takes::kContext,
         .answer = announcing(Command::kReadCache, CacheLayout::kSize, sampleBytes(20))},
        output<BYTE>([call](const Target& on, BYTE* data, DWORD* length) {
            UUID card = kGuid;
            auto item = cacheItem<Char>(on.side);
            return call(on.handle, &card, kFreshness, item.data(), data, length);
        }));
}

template <class Char, class WriteCache>
ExportedCall writeCache(const char* name, WriteCache call) {
    return {.name = name,
            .takes = Takes::kContext,
            .answer = Answer{.command = Command::kWriteCache, .recordSize = CacheLayout::kSize},
            .make = [call](const Target& on) {
                UUID card = kGuid;
                BYTE data[] = {1, 2, 3};
                auto item = cacheItem<Char>(on.side);
                return call(on.handle, &card, kFreshness, item.data(), data, sizeof data);
            }};
}

template <class Char, class GetIcon>
ExportedCall getIcon(const char* name, GetIcon call) {
    return handingOut(
        {.name = name,
         .takes = Takes::kContext,
         .answer = announcing(Command::kGetReaderIcon, ListLayout::kSize, sampleBytes(300))},
        output<BYTE>([call](const Target& on, BYTE* icon, DWORD* length) {
            return call(on.handle, text<Char>(readerOf(on.side)).c_str(), icon, length);
        }));
}

void introduceNewCard(const Target& on) {
    SCardIntroduceCardTypeA(on.handle, kNewCard, &kGuid, &kGuid, 1, kAtr, nullptr, sizeof kAtr);
}

void forgetNewCard(const Target& on) {
    SCardForgetCardTypeA(on.handle, kNewCard);
}

/// What is needed on the host alone, which remembers.
std::function<void(const Target&)> onTheHost(void (*prepare)(const Target&)) {
    return [prepare](const Target& on) {
        if (on.side == Side::kHost) {
            prepare(on);
        }
    };
}

template <class Char, class Introduce>
ExportedCall introduce(const char* name, Introduce call) {
    return {.name = name,
            .takes = Takes::kUpdateContext,
            .answer = Answer{.command = Command::kIntroduceCardType,
                             .recordSize = IntroduceLayout::kSize},
            .make =
                [call](const Target& on) {
                    return call(on.handle, text<Char>(kNewCard).c_str(), &kGuid, &kGuid, 1, kAtr,
                                nullptr, sizeof kAtr);
                },
            .prepare = onTheHost(forgetNewCard)};
}

template <class Char, class SetProvider>
ExportedCall setProvider(const char* name, SetProvider call) {
    return {.name = name,
            .takes = Takes::kUpdateContext,
            .answer = Answer{.command = Command::kSetCardTypeProviderName,
                             .recordSize = ProviderNameLayout::kSize},
            .make =
                [call](const Target& on) {
                    return call(on.handle, text<Char>(kHostCardType).c_str(), SCARD_PROVIDER_CSP,
                                text<Char>("A Provider").c_str());
                },
            .withoutDaemon = SCARD_E_INVALID_HANDLE};  // the host takes no null context
}

template <class Char, class Forget>
ExportedCall forget(const char* name, Forget call) {
    return {
        .name = name,
        .takes = Takes::kUpdateContext,
        .answer = Answer{.command = Command::kForgetCardType, .recordSize = ForgetLayout::kSize},
        .make = [call](const Target& on) { return call(on.handle, text<Char>(kNewCard).c_str()); },
        .prepare = onTheHost(introduceNewCard),
        .withoutDaemon = SCARD_E_INVALID_HANDLE};
}

}  // namespace

std::vector<ExportedCall> databaseCalls() {
    return {
        listCards<char>("SCardListCardsA", SCardListCardsA),
        listCards<wchar_t>("SCardListCardsW", SCardListCardsW),
        getProvider<char>("SCardGetCardTypeProviderNameA", SCardGetCardTypeProviderNameA),
        getProvider<wchar_t>("SCardGetCardTypeProviderNameW", SCardGetCardTypeProviderNameW),
        deviceType<char>("SCardGetDeviceTypeIdA", SCardGetDeviceTypeIdA),
        deviceType<wchar_t>("SCardGetDeviceTypeIdW", SCardGetDeviceTypeIdW),
        readCache<char>("SCardReadCacheA", SCardReadCacheA),
        readCache<wchar_t>("SCardReadCacheW", SCardReadCacheW),
        writeCache<char>("SCardWriteCacheA", SCardWriteCacheA),
        writeCache<wchar_t>("SCardWriteCacheW", SCardWriteCacheW),
        getIcon<char>("SCardGetReaderIconA", SCardGetReaderIconA),
        getIcon<wchar_t>("SCardGetReaderIconW", SCardGetReaderIconW),
        introduce<char>("SCardIntroduceCardTypeA", SCardIntroduceCardTypeA),
        introduce<wchar_t>("SCardIntroduceCardTypeW", SCardIntroduceCardTypeW),
        setProvider<char>("SCardSetCardTypeProviderNameA", SCardSetCardTypeProviderNameA),
        setProvider<wchar_t>("SCardSetCardTypeProviderNameW", SCardSetCardTypeProviderNameW),
        forget<char>("SCardForgetCardTypeA", SCardForgetCardTypeA),
        forget<wchar_t>("SCardForgetCardTypeW", SCardForgetCardTypeW),
        {.name = "SCardAudit",
         .takes = Takes::kUpdateContext,
         .answer = Answer{.command = Command::kAudit, .recordSize = AuditLayout::kSize},
         .make = [](const Target& on) { return SCardAudit(on.handle, SCARD_AUDIT_CHV_SUCCESS); }},
    };
}

void teachHost(MockSystemCalls& host) {
    CardStore& store = host.pcsc().cardStore();
    store.setProvider(kHostCardType, SCARD_PROVIDER_CSP, "A Provider");
    store.writeCache(std::bit_cast<Guid>(kGuid), cacheItem<char>(Side::kHost), kFreshness,
                     sampleBytes(7));
}

}  // namespace tez::test
