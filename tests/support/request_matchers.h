// GoogleMock matchers for what a daemon has received.
#pragma once

#include <gmock/gmock.h>

#include "core/traffic.h"
#include "record_codec.h"
#include "record_layout.h"

namespace tez::test {

/// The header of a request: the body's size, the command and zero.
inline Bytes requestHeader(Command command, std::size_t size) {
    return RecordBytes(HeaderLayout::kSize)
        .u32(HeaderLayout::kBodySize, static_cast<std::uint32_t>(size))
        .u32(HeaderLayout::kCommand, static_cast<std::uint32_t>(command));
}

/// Matches a complete request byte for byte: a header that announces the body's size and the
/// command, and the body.
inline testing::Matcher<const Request&> IsRequest(Command command, const Bytes& body) {
    return testing::AllOf(
        testing::Field("header", &Request::header, requestHeader(command, body.size())),
        testing::Field("body", &Request::body, body),
        testing::Field("complete", &Request::complete, true));
}

}  // namespace tez::test
