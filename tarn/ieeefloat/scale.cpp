// scale_b and log_b: the exponent of a value, moved or read.
//
// scale_b rounds M * 2^(k + n) once. Past the format's exponent span, plus
// its precision, every n gives the same result (an overflow, or a value below
// half the smallest subnormal), so n is first clamped to that span: no power
// of two is built and the exponents stay small, in registers for formats that
// fit words and in QNumbers of the exponent field's size otherwise.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/flag_state.h"
#include "tarn/ieeefloat/internal/word_arith.h"

#include <algorithm>
#include <climits>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// Twice the binades the exponent field reaches plus the precision, for
/// formats of up to 60 exponent bits: no scale beyond it changes a result.
long span_of(format f) {
    return 2 * ((1L << f.exponent_width) +
                static_cast<long>(std::min(f.mantissa_width, 1UL << 40)) + 2);
}

} // namespace

IEEEFloat scale_b(const IEEEFloat& x, long n) {
    IEEEFloat result(x);
    if (x.is_nan()) {
        if (is_signaling(x)) raise(FLAG_INVALID);
        return Access::nan_result(x, x);
    }
    const format f = Access::held_format(x);
    RoundingContext r = Access::context_of(x);
    FiniteParts p;
    if (Access::word_pattern(f) &&
        decode_value(x.get_repr(), Access::held(x), x.get_format(), p) == ValueClass::finite &&
        p.in_word) {
        const WordFormat<std::uint64_t> wf(f);
        const long span = span_of(f),
                   exponent = p.exponent + long(wf.m) + std::clamp(n, -span, span);
        Access::store(result,
                      round_bits(wf, r, p.negative, p.word, exponent) | wf.signed_zero(p.negative));
    } else {
        TempNumProvider tmp;
        bool negative;
        if (Access::split(x, negative, tmp[0], tmp[1]) != ValueClass::finite)
            return result; // zeros and infinities
        if (f.exponent_width <= 60) {
            const long span = span_of(f);
            tmp[0] += std::clamp(n, -span, span);
        } else {
            // The same clamp on QNumbers, the span being of the exponent field's size.
            tmp[2] = f.max_exponent();
            tmp[2] += static_cast<long>(std::min(f.mantissa_width, 1UL << 40) + 2);
            tmp[2] *= 2L;
            tmp[3] = tmp[2];
            tmp[3].self_neg();
            const QNumber shift(n);
            tmp[0] += cmp(shift, tmp[2]) > 0 ? tmp[2] : cmp(shift, tmp[3]) < 0 ? tmp[3] : shift;
        }
        QNumber packed;
        round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], packed);
        Access::store(result, packed);
    }
    raise(r.flags);
    return result;
}

long log_b(const IEEEFloat& x) {
    FiniteParts p;
    switch (decode_value(x.get_repr(), Access::held(x), x.get_format(), p)) {
    case ValueClass::finite:
        break;
    case ValueClass::infinite:
        raise(FLAG_INVALID);
        return LONG_MAX;
    default:
        raise(FLAG_INVALID);
        return LONG_MIN;
    }
    const long length = p.in_word ? 64 - __builtin_clzll(p.word)
                                  : static_cast<long>(mpz_sizeinbase(p.wide.get_mpz_t(), 2));
    long exponent;
    if (__builtin_add_overflow(p.exponent, length - 1, &exponent) || exponent == LONG_MAX)
        throw_error(precision_limit_message);
    return exponent;
}

} // namespace tarn
