// The values of the Windows PC/SC interface, which the protocol carries. They are written down
// here, as the core is built for platforms whose own headers give other values to some of these
// names.
#pragma once

#include <cstdint>

namespace tez::pcscd {

/// A result code of the Windows PC/SC interface.
using Result = std::int32_t;

namespace result {

constexpr Result code(std::uint32_t value) {
    return static_cast<Result>(value);
}

inline constexpr Result kSuccess = 0;
inline constexpr Result kFileNotFound = 2;     // the platform's ERROR_FILE_NOT_FOUND
inline constexpr Result kAlreadyExists = 183;  // the platform's ERROR_ALREADY_EXISTS
inline constexpr Result kInternalError = code(0x80100001);
inline constexpr Result kCancelled = code(0x80100002);
inline constexpr Result kInvalidHandle = code(0x80100003);
inline constexpr Result kInvalidParameter = code(0x80100004);
inline constexpr Result kNoMemory = code(0x80100006);
inline constexpr Result kInsufficientBuffer = code(0x80100008);
inline constexpr Result kUnknownReader = code(0x80100009);
inline constexpr Result kTimeout = code(0x8010000A);
inline constexpr Result kSharingViolation = code(0x8010000B);
inline constexpr Result kNoSmartcard = code(0x8010000C);
inline constexpr Result kUnknownCard = code(0x8010000D);
inline constexpr Result kProtocolMismatch = code(0x8010000F);
inline constexpr Result kInvalidValue = code(0x80100011);
inline constexpr Result kNotTransacted = code(0x80100016);
inline constexpr Result kReaderUnavailable = code(0x80100017);
inline constexpr Result kNoService = code(0x8010001D);
inline constexpr Result kUnsupportedFeature = code(0x80100022);
inline constexpr Result kCommunicationLost = code(0x8010002F);
inline constexpr Result kResetCard = code(0x80100068);
inline constexpr Result kRemovedCard = code(0x80100069);
inline constexpr Result kCacheItemNotFound = code(0x80100070);
inline constexpr Result kCacheItemStale = code(0x80100071);

}  // namespace result

namespace scope {
inline constexpr std::uint32_t kUser = 0;
inline constexpr std::uint32_t kSystem = 2;  // the last of three
}  // namespace scope

namespace share {
inline constexpr std::uint32_t kExclusive = 1;
inline constexpr std::uint32_t kShared = 2;
inline constexpr std::uint32_t kDirect = 3;
}  // namespace share

namespace disposition {
inline constexpr std::uint32_t kLeave = 0;
inline constexpr std::uint32_t kReset = 1;
inline constexpr std::uint32_t kUnpower = 2;
inline constexpr std::uint32_t kEject = 3;
}  // namespace disposition

namespace protocol {
inline constexpr std::uint32_t kUndefined = 0;
inline constexpr std::uint32_t kT0 = 1;
inline constexpr std::uint32_t kT1 = 2;
inline constexpr std::uint32_t kRaw = 0x10000;  // the pipe has another value for it
}  // namespace protocol

/// Bits of a reader's state; the upper 16 bits count the cards that came and went.
namespace state {
inline constexpr std::uint32_t kUnaware = 0;
inline constexpr std::uint32_t kIgnore = 0x1;
inline constexpr std::uint32_t kChanged = 0x2;
inline constexpr std::uint32_t kUnknown = 0x4;
inline constexpr std::uint32_t kUnavailable = 0x8;
inline constexpr std::uint32_t kEmpty = 0x10;
inline constexpr std::uint32_t kPresent = 0x20;
inline constexpr std::uint32_t kExclusive = 0x80;
inline constexpr std::uint32_t kInUse = 0x100;
inline constexpr std::uint32_t kMute = 0x200;
inline constexpr std::uint32_t kUnpowered = 0x400;
inline constexpr unsigned kCounterShift = 16;
}  // namespace state

namespace attribute {
inline constexpr std::uint32_t kVendorName = 0x00010100;
inline constexpr std::uint32_t kVendorIfdType = 0x00010101;
inline constexpr std::uint32_t kMaxInput = 0x0007A007;
inline constexpr std::uint32_t kCurrentProtocolType = 0x00080201;
inline constexpr std::uint32_t kIccPresence = 0x00090300;
inline constexpr std::uint32_t kAtrString = 0x00090303;
inline constexpr std::uint32_t kDeviceUnit = 0x7FFF0001;
inline constexpr std::uint32_t kDeviceFriendlyNameA = 0x7FFF0003;
inline constexpr std::uint32_t kDeviceSystemNameA = 0x7FFF0004;
inline constexpr std::uint32_t kDeviceFriendlyNameW = 0x7FFF0005;
inline constexpr std::uint32_t kDeviceSystemNameW = 0x7FFF0006;
}  // namespace attribute

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFF;  ///< a time-out without end
inline constexpr std::uint32_t kReaderTypeUsb = 0x20;   ///< a reader's device type
inline constexpr std::uint32_t kAuditFailure = 0;       ///< events of an audit
inline constexpr std::uint32_t kAuditSuccess = 1;
/// The pseudo-reader of a status change that stands for the arrival and removal of readers.
inline constexpr const char* kPnpReader = R"(\\?PnP?\Notification)";

}  // namespace tez::pcscd
