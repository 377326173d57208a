#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <wintypes.h>

#include "core/bytes.h"

namespace tez::agent {

/// The function number of the request for a reader's features.
inline constexpr std::uint32_t kFeatureRequest = 3400;

/// The control codes by which a reader serves its features. The service's own codes do not fit into
/// the 12 bits that a function number has on the way here, so each gets a number of its own.
class FeatureCodes {
  public:
    /// Takes the service's answer to a feature request (for each feature its tag, a length of 4 and
    /// a control code, big-endian) and puts a code of the Windows interface in place of each.
    /// What is no such list stays as it is.
    void translate(pcscd::Bytes& features);

    /// The service's control code for a function number.
    /// @param request makes a feature request and returns the service's answer, empty after a
    ///                failure. Called for a number that can be a feature's and is not known yet:
    ///                the application may have it from an earlier connection to the reader.
    DWORD serviceCode(std::uint32_t function, const std::function<pcscd::Bytes()>& request);

  private:
    std::map<std::uint32_t, DWORD> codes_;
};

}  // namespace tez::agent
