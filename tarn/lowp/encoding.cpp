// The encodings: names, validation, their largest and NaN patterns, the plan
// of a conversion, and decoding a pattern into an IEEEFloat.

#include "tarn/lowp/kernel.h"

#include <algorithm>
#include <gmpxx.h>

namespace tarn {

namespace {

using specials = encoding::specials;

encoding with_bias(unsigned long e, unsigned long m, long bias, specials top) {
    encoding enc = encoding::make(e, m, top);
    enc.bias = bias;
    return enc;
}

struct Named {
    std::string_view name;
    encoding enc;
};

const Named* named_encodings(std::size_t& count) {
    static const Named table[] = {
        {"float8_e5m2", encoding::make(5, 2)},
        {"float8_e4m3fn", encoding::make(4, 3, specials::finite_nan_all_ones)},
        {"float8_e4m3fnuz", with_bias(4, 3, 8, specials::finite_nan_negative_zero)},
        {"float8_e5m2fnuz", with_bias(5, 2, 16, specials::finite_nan_negative_zero)},
        {"float8_e4m3b11fnuz", with_bias(4, 3, 11, specials::finite_nan_negative_zero)},
        {"float8_e8m0fnu", encoding::make(8, 0, specials::exponent_only)},
        {"float6_e3m2fn", encoding::make(3, 2, specials::finite)},
        {"float6_e2m3fn", encoding::make(2, 3, specials::finite)},
        {"float4_e2m1fn", encoding::make(2, 1, specials::finite)},
        {"bfloat16", encoding::make(8, 7)},
        {"float16", encoding::make(5, 10)},
        {"float32", encoding::make(8, 23)},
    };
    count = sizeof table / sizeof table[0];
    return table;
}

[[noreturn]] void invalid(const char* what) {
    throw IEEEFloat::error(std::string("invalid encoding: ") + what);
}

std::uint64_t ones(unsigned long n) {
    return n >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << n) - 1;
}

} // namespace

encoding encoding::make(unsigned long e, unsigned long m, specials top) {
    encoding enc;
    enc.exponent_width = e;
    enc.mantissa_width = m;
    enc.bias = e >= 1 && e <= 63 ? static_cast<long>(ones(e - 1)) : 0;
    enc.has_sign = top != specials::exponent_only;
    enc.top = top;
    return enc;
}

std::optional<encoding> encoding::by_name(std::string_view name) {
    std::size_t count;
    const Named* table = named_encodings(count);
    for (std::size_t i = 0; i < count; ++i)
        if (table[i].name == name) return table[i].enc;
    return std::nullopt;
}

const std::vector<std::string_view>& encoding::known_names() {
    static const std::vector<std::string_view> names = [] {
        std::size_t count;
        const Named* table = named_encodings(count);
        std::vector<std::string_view> v;
        for (std::size_t i = 0; i < count; ++i)
            v.push_back(table[i].name);
        return v;
    }();
    return names;
}

void encoding::validate() const {
    if (exponent_width == 0) invalid("no exponent bits");
    if (exponent_width > 64 || mantissa_width > 64 || width() > 64) invalid("wider than 64 bits");
    // Exponents, biased and unbiased, stay well within a signed word.
    if (exponent_width > 62) invalid("exponent field wider than 62 bits");
    if (bias > (long{1} << 62) || bias < -(long{1} << 62)) invalid("bias out of range");
    switch (top) {
    case specials::ieee:
        if (mantissa_width == 0) invalid("ieee needs a mantissa bit");
        break;
    case specials::finite_nan_negative_zero:
        if (!has_sign) invalid("finite_nan_negative_zero needs a sign bit");
        break;
    case specials::exponent_only:
        if (mantissa_width != 0 || has_sign)
            invalid("exponent_only needs mantissa width 0 and no sign");
        return;
    case specials::finite_nan_all_ones:
    case specials::finite:
        break;
    default:
        invalid("unknown specials");
    }
    if (mantissa_width == 0) invalid("only exponent_only has mantissa width 0");
}

std::uint64_t encoding::max_pattern() const {
    const unsigned long magnitude = exponent_width + mantissa_width;
    switch (top) {
    case specials::ieee:
        return (ones(exponent_width) - 1) << mantissa_width | ones(mantissa_width);
    case specials::finite_nan_all_ones:
    case specials::exponent_only:
        return ones(magnitude) - 1;
    default:
        return ones(magnitude);
    }
}

std::uint64_t encoding::nan_pattern() const {
    const unsigned long magnitude = exponent_width + mantissa_width;
    switch (top) {
    case specials::ieee:
        return ones(exponent_width) << mantissa_width | std::uint64_t{1} << (mantissa_width - 1);
    case specials::finite_nan_all_ones:
    case specials::exponent_only:
        return ones(magnitude);
    case specials::finite_nan_negative_zero:
        return std::uint64_t{1} << magnitude;
    default:
        return 0;
    }
}

namespace lowp_detail {

Plan::Plan(const encoding& e, Method how, overflow o) : method(how), enc(e), over(o) {
    enc.validate();
    const bool scale = enc.top == specials::exponent_only;
    m = static_cast<unsigned>(enc.mantissa_width);
    subnormals = !scale;
    base = scale ? 0 : 1;
    emin = scale ? -enc.bias : 1 - enc.bias;
    max_mag = enc.max_pattern();
    emax = static_cast<long>(max_mag >> m) - static_cast<long>(base) + emin;
    has_sign = enc.has_sign;
    sign[1] = has_sign ? std::uint64_t{1} << (enc.exponent_width + m) : 0;
    nan = enc.nan_pattern();
    nan_flags = enc.has_nan() ? 0 : FLAG_INVALID;
    zero[1] = enc.has_negative_zero() ? sign[1] : 0;
    zero_in[0] = scale ? nan : 0;
    zero_in[1] = scale ? nan : zero[1];
    zero_in_flags = scale ? FLAG_INVALID : 0;
    inf_in_flags = enc.has_inf() ? 0 : FLAG_INVALID;
    const std::uint64_t inf_mag = ones(enc.exponent_width) << m;
    for (int negative = 0; negative < 2; ++negative) {
        const std::uint64_t largest = max_mag | sign[negative];
        const std::uint64_t beyond = enc.has_inf()   ? inf_mag | sign[negative]
                                     : enc.has_nan() ? nan
                                                     : largest;
        inf_in[negative] = o == overflow::non_finite ? beyond : largest;
        // Where IEEE 754 would round an overflow to infinity.
        const bool to_infinity = how == Method::nearest_even || how == Method::nearest_away ||
                                 how == Method::stochastic ||
                                 (how == Method::upward && !negative) ||
                                 (how == Method::downward && negative);
        overflowed[negative] = o == overflow::non_finite && to_infinity ? beyond : largest;
    }
}

} // namespace lowp_detail

IEEEFloat::format decode_format(const encoding& enc) {
    enc.validate();
    const lowp_detail::Plan plan(enc, lowp_detail::Method::nearest_even, overflow::saturate);
    const long m = plan.m, wide_m = m == 0 ? 1 : m;
    // The bias must reach the largest binade, and the smallest subnormal of the
    // format must be no coarser than the encoding's lowest bit.
    const long need = std::max(plan.emax, 1 - wide_m - (plan.emin - m));
    unsigned long e = 2;
    while (static_cast<long>(ones(e - 1)) < need)
        ++e;
    return {e, static_cast<unsigned long>(wide_m)};
}

IEEEFloat decode(std::uint64_t bits, const encoding& enc) {
    const IEEEFloat::format f = decode_format(enc);
    const lowp_detail::Split v =
        lowp_detail::split({enc, lowp_detail::Method::nearest_even, overflow::saturate}, bits);
    IEEEFloat x(f, IEEEFloat::ROUND_NEAREST_EVEN);
    switch (v.kind) {
    case lowp_detail::Split::nan:
        x.self_nan();
        break;
    case lowp_detail::Split::infinite:
        x.self_inf(v.negative);
        break;
    case lowp_detail::Split::zero:
        x.self_zero(v.negative);
        break;
    default: {
        // Placed into the format's fields directly: decode_format holds it.
        const long bias = static_cast<long>(ones(f.exponent_width - 1));
        const auto wide_m = static_cast<long>(f.mantissa_width);
        const long length = 64 - __builtin_clzll(v.significand);
        const long top = v.exponent + length - 1;
        const mpz_class sig(static_cast<unsigned long>(v.significand));
        mpz_class pattern;
        if (top >= 1 - bias) {
            pattern = mpz_class(top + bias) << static_cast<unsigned long>(wide_m);
            pattern += (sig << static_cast<unsigned long>(wide_m + 1 - length)) -
                       (mpz_class(1) << static_cast<unsigned long>(wide_m));
        } else {
            pattern = sig << static_cast<unsigned long>(v.exponent - (1 - bias - wide_m));
        }
        if (v.negative) mpz_setbit(pattern.get_mpz_t(), f.exponent_width + f.mantissa_width);
        x = IEEEFloat::from_bits(QNumber(pattern), f);
    }
    }
    return x;
}

namespace lowp_detail {

Split split(const Plan& plan, std::uint64_t bits) {
    const encoding& enc = plan.enc;
    bits &= ones(enc.width());
    Split v;
    v.negative = (bits & plan.sign[1]) != 0;
    const std::uint64_t magnitude = bits & ~plan.sign[1];
    const std::uint64_t field = magnitude >> plan.m, mantissa = magnitude & ones(plan.m);
    const bool top_field = field == ones(enc.exponent_width);
    const bool top_magnitude = magnitude == ones(enc.exponent_width + plan.m);
    if ((enc.top == specials::ieee && top_field && mantissa != 0) ||
        (enc.top == specials::finite_nan_all_ones && top_magnitude) ||
        (enc.top == specials::exponent_only && top_magnitude) ||
        (enc.top == specials::finite_nan_negative_zero && v.negative && magnitude == 0)) {
        v.kind = Split::nan;
    } else if (enc.top == specials::ieee && top_field) {
        v.kind = Split::infinite;
    } else if (magnitude == 0 && plan.subnormals) {
        v.kind = Split::zero;
    } else {
        v.kind = Split::finite;
        const bool normal = field != 0 || !plan.subnormals;
        v.significand = normal ? mantissa | std::uint64_t{1} << plan.m : mantissa;
        v.exponent = (normal ? static_cast<long>(field - plan.base) + plan.emin : plan.emin) -
                     static_cast<long>(plan.m);
    }
    return v;
}

} // namespace lowp_detail

} // namespace tarn
