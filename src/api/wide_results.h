#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "common/copy_out.h"
#include "common/local_buffer.h"
#include "common/scard_api.h"
#include "common/text_conversion.h"
#include "log/switches.h"

namespace tez {

// How the wide entry points hand out the text of their narrow counterparts: the narrow call
// allocates its result, which is converted and copied out, counted in wide characters. A failure of
// the narrow call is returned unchanged and nothing is copied. The calls are exported ones, which
// throw nothing.

/// The text with two NULs behind it: one that the host handed out may lack its end. Null when
/// memory is exhausted.
inline HeapPtr<char> withEnd(std::string_view text) noexcept {
    HeapPtr<char> copy(static_cast<char*>(heapAllocate(text.size() + 2)));
    if (copy != nullptr) {
        std::fill_n(std::copy(text.begin(), text.end(), copy.get()), 2, '\0');
    }
    return copy;
}

/// How the wide entry points size multi-strings.
inline MultiSize multiSize() noexcept {
    return isStandardCallsEnabled() ? MultiSize::Whole : MultiSize::Stepped;
}

/// @param call  called with the destination and the length of a narrow multi-string.
template <class Call>
[[nodiscard]] LONG copyOutWideNames(LPWSTR destination, LPDWORD length, Call call) noexcept {
    LocalBuffer narrow;
    const LONG rv = call(narrow.destination(), narrow.length());
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    const HeapPtr<char> names = withEnd(narrow.text());
    std::uint32_t count = 0;
    const HeapPtr<wchar_t> wide = multiToWide(names.get(), count, multiSize());
    return wide == nullptr ? SCARD_E_NO_MEMORY
                           : copyOutBuffer(wide.get(), count, destination, length, sizeof(wchar_t));
}

/// As copyOutWideNames, for a single text.
template <class Call>
[[nodiscard]] LONG copyOutWideText(LPWSTR destination, LPDWORD length, Call call) noexcept {
    LocalBuffer narrow;
    const LONG rv = call(narrow.destination(), narrow.length());
    if (rv != SCARD_S_SUCCESS) {
        return rv;
    }
    const HeapPtr<char> text = withEnd(narrow.text());
    const HeapPtr<wchar_t> wide = toWide(text.get());
    if (wide == nullptr) {
        return SCARD_E_NO_MEMORY;
    }
    const auto count = static_cast<DWORD>(std::char_traits<wchar_t>::length(wide.get()) + 1);
    return copyOutBuffer(wide.get(), count, destination, length, sizeof(wchar_t));
}

/// A call with a converted text: call(LPSTR) makes it, with null for null.
/// @return SCARD_E_NO_MEMORY when the text cannot be converted, else what was called returned.
template <class Call>
LONG withUtf8(LPCWSTR text, Call call) noexcept {
    const HeapPtr<char> narrow = toUtf8(text);
    return text != nullptr && narrow == nullptr ? SCARD_E_NO_MEMORY : call(narrow.get());
}

}  // namespace tez
