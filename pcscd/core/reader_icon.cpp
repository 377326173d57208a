#include "core/reader_icon.h"

namespace tez::pcscd {

std::span<const std::uint8_t> readerIcon() {
    // clang-format off
    static constexpr std::uint8_t kIcon[] = {
        0, 0, 1, 0, 1, 0,                                            // an icon file of one image
        1, 1, 0, 0, 1, 0, 32, 0, 48, 0, 0, 0, 22, 0, 0, 0,           // 1 x 1, 48 bytes at 22
        40, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 1, 0, 32, 0,            // bitmap header: both masks high
        0, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
        0, 0, 0, 0xFF,                                               // the pixel
        0, 0, 0, 0,                                                  // nothing is transparent
    };
    // clang-format on
    return kIcon;
}

}  // namespace tez::pcscd
