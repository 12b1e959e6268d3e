// Formats: the constants of a format and the named formats.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/ascii.h"
#include "tarn/ieeefloat/internal/errors.h"
#include "tarn/numbers/bvnumber.h"

#include <optional>
#include <string_view>
#include <vector>

namespace tarn {

using namespace ieeefloat_detail;

using format = IEEEFloat::format;

QNumber IEEEFloat::format::bias() const {
    // Without exponent bits there is no exponent range to place a value in
    // (2^(e-1) - 1 is not even an integer), so everything that needs the
    // bias stops here with the library's error rather than ask GMP for
    // 2^(2^64 - 1).
    if (exponent_width == 0) throw_error(precision_limit_message);
    QNumber result;
    BVNumber::pow2(exponent_width - 1, &result);
    result -= 1L;
    return result;
}

QNumber IEEEFloat::format::max_exponent() const {
    QNumber result;
    BVNumber::pow2(exponent_width, &result);
    result -= 1L;
    return result;
}

QNumber IEEEFloat::format::max_mantissa() const {
    QNumber result;
    BVNumber::pow2(mantissa_width, &result);
    result -= 1L;
    return result;
}

namespace {

struct NamedFormat {
    std::string_view name;
    format fmt;
};

constexpr NamedFormat named_formats[] = {
    {"binary16", format::binary16()},   {"binary32", format::binary32()},
    {"binary64", format::binary64()},   {"binary128", format::binary128()},
    {"binary256", format::binary256()}, {"bfloat16", format::bfloat16()},
    {"e5m2", format::e5m2()},           {"e4m3", format::e4m3()},
};

} // namespace

std::optional<format> IEEEFloat::format::by_name(std::string_view name) noexcept {
    for (const NamedFormat& named : named_formats)
        if (equal_ignoring_ascii_case(named.name, name)) return named.fmt;
    return std::nullopt;
}

const std::vector<std::string_view>& IEEEFloat::format::known_names() {
    static const std::vector<std::string_view> names = [] {
        std::vector<std::string_view> all;
        for (const NamedFormat& named : named_formats)
            all.push_back(named.name);
        return all;
    }();
    return names;
}

std::string_view IEEEFloat::format::name() const noexcept {
    for (const NamedFormat& named : named_formats)
        if (named.fmt == *this) return named.name;
    return {};
}

} // namespace tarn
