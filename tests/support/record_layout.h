// The daemon's records as they stand on the pipe: the size of each, and where its fields begin. By
// hand, for the tests must not share a mistake with the library's own record types.
#pragma once

#include <cstddef>

namespace tez::test {

/// What stands in front of every record.
struct HeaderLayout {
    static constexpr std::size_t kBodySize = 0, kCommand = 4, kSize = 12;
};

struct EstablishLayout {
    static constexpr std::size_t kScope = 0, kContext = 4, kResult = 12, kSize = 16;
};

/// Of RELEASE_CONTEXT and CANCEL, and of BEGIN_TRANSACTION.
struct HandleLayout {
    static constexpr std::size_t kHandle = 0, kResult = 8, kSize = 12;
};

/// Of LIST_READERS and GET_READER_ICON, whose data is behind it.
struct ListLayout {
    static constexpr std::size_t kContext = 0, kLength = 8, kResult = 12, kSize = 16;
};

struct ConnectLayout {
    static constexpr std::size_t kContext = 0, kReader = 8, kShareMode = 136, kProtocols = 140,
                                 kCard = 144, kActiveProtocol = 152, kResult = 156, kSize = 160;
};

struct ReconnectLayout {
    static constexpr std::size_t kCard = 0, kShareMode = 8, kProtocols = 12, kInitialization = 16,
                                 kActiveProtocol = 20, kResult = 24, kSize = 28;
};

/// Of DISCONNECT and END_TRANSACTION.
struct DispositionLayout {
    static constexpr std::size_t kCard = 0, kDisposition = 8, kResult = 12, kSize = 16;
};

struct StatusLayout {
    static constexpr std::size_t kCard = 0, kState = 8, kProtocol = 12, kAtr = 16, kAtrLength = 280,
                                 kResult = 284, kSize = 288;
};

struct TransmitLayout {
    static constexpr std::size_t kCard = 0, kSendProtocol = 8, kSendLength = 12,
                                 kReceiveProtocol = 16, kReceiveLength = 20, kResult = 24,
                                 kSize = 28;
};

struct ControlLayout {
    static constexpr std::size_t kCard = 0, kFunction = 8, kInLength = 12, kOutLength = 16,
                                 kReturned = 20, kResult = 24, kSize = 28;
};

/// Behind it the reader states.
struct StatusChangeLayout {
    static constexpr std::size_t kContext = 0, kTimeout = 8, kReaders = 12, kResult = 16,
                                 kSize = 20;
};

struct ReaderStateLayout {
    static constexpr std::size_t kReader = 0, kCurrent = 128, kEvent = 132, kAtrLength = 136,
                                 kAtr = 140, kSize = 173;
};

/// Of GET_ATTRIB and SET_ATTRIB.
struct AttributeLayout {
    static constexpr std::size_t kCard = 0, kId = 8, kValue = 12, kLength = 276, kResult = 280,
                                 kSize = 284;
};

struct TransmitCountLayout {
    static constexpr std::size_t kCard = 0, kCount = 8, kResult = 12, kSize = 16;
};

struct ListCardsLayout {
    static constexpr std::size_t kContext = 0, kHasAtr = 8, kAtr = 9, kInterfaces = 42,
                                 kLength = 46, kResult = 50, kSize = 54;
};

struct DeviceTypeLayout {
    static constexpr std::size_t kContext = 0, kReader = 8, kType = 136, kResult = 140, kSize = 144;
};

/// Of GET_CARD_TYPE_PROVIDER_NAME and SET_CARD_TYPE_PROVIDER_NAME.
struct ProviderNameLayout {
    static constexpr std::size_t kContext = 0, kCard = 8, kProvider = 1032, kLength = 1036,
                                 kResult = 1040, kSize = 1044;
};

struct IntroduceLayout {
    static constexpr std::size_t kContext = 0, kCard = 8, kHasProvider = 1032, kProvider = 1033,
                                 kInterfaces = 1049, kHasAtr = 1053, kAtr = 1054, kHasMask = 1087,
                                 kMask = 1088, kAtrLength = 1121, kResult = 1125, kSize = 1129;
};

struct ForgetLayout {
    static constexpr std::size_t kContext = 0, kCard = 8, kResult = 1032, kSize = 1036;
};

/// Of READ_CACHE and WRITE_CACHE.
struct CacheLayout {
    static constexpr std::size_t kContext = 0, kCard = 8, kFreshness = 24, kLength = 28,
                                 kResult = 32, kSize = 36;
};

struct AuditLayout {
    static constexpr std::size_t kContext = 0, kEvent = 8, kResult = 12, kSize = 16;
};

}  // namespace tez::test
