// Private to the IEEEFloat units, not installed: ASCII text helpers.
#pragma once

#include <cstddef>
#include <string_view>

namespace tarn::ieeefloat_detail {

// Not std::tolower: names are ASCII and the locale must not change the answer.
inline char ascii_lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

inline bool equal_ignoring_ascii_case(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
    return true;
}

} // namespace tarn::ieeefloat_detail
