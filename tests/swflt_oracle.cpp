// Built with -frounding-math -ffp-contract=off: the compiler must neither fold, fuse nor move
// these operations across changes of the rounding direction. The operands are volatile so that
// every operation really happens on the hardware at run time.

#include "swflt_oracle.h"

#include "tarn/swflt/swflt.h"

#include <cfenv>
#include <cmath>
#include <cstring>
#include <mpfr.h>
#include <type_traits>

namespace swflt_oracle {
namespace {

namespace sw = tarn::swflt;

template <class To, class From>
To bit_cast(From from) {
    static_assert(sizeof(To) == sizeof(From), "bit_cast needs equal sizes");
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

std::uint8_t raised_flags() {
    int const raised = std::fetestexcept(FE_ALL_EXCEPT);
    std::uint8_t flags = 0;
    if (raised & FE_INEXACT) flags |= sw::flag_inexact;
    if (raised & FE_UNDERFLOW) flags |= sw::flag_underflow;
    if (raised & FE_OVERFLOW) flags |= sw::flag_overflow;
    if (raised & FE_DIVBYZERO) flags |= sw::flag_divide_by_zero;
    if (raised & FE_INVALID) flags |= sw::flag_invalid;
    return flags;
}

template <class From, class To>
Outcome convert(std::uint64_t a) {
    using Word = std::conditional_t<sizeof(From) == 4, std::uint32_t, std::uint64_t>;
    using Result = std::conditional_t<sizeof(To) == 4, std::uint32_t, std::uint64_t>;
    volatile From x = bit_cast<From>(static_cast<Word>(a));
    std::feclearexcept(FE_ALL_EXCEPT);
    volatile To r = static_cast<To>(x);
    std::uint8_t const flags = raised_flags();
    return {bit_cast<Result>(static_cast<To>(r)), flags};
}

template <class Float, class Word>
Outcome compute(Op op, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    volatile Float x = bit_cast<Float>(static_cast<Word>(a));
    volatile Float y = bit_cast<Float>(static_cast<Word>(b));
    volatile Float z = bit_cast<Float>(static_cast<Word>(c));
    volatile Float r = 0;
    volatile bool truth = false;
    std::feclearexcept(FE_ALL_EXCEPT);
    if (op == Op::add) r = x + y;
    if (op == Op::sub) r = x - y;
    if (op == Op::mul) r = x * y;
    if (op == Op::div) r = x / y;
    if (op == Op::sqrt) r = std::sqrt(x);
    if (op == Op::fma) r = std::fma(x, y, z);
    if (op == Op::lt) truth = x < y;
    if (op == Op::le) truth = x <= y;
    // The relational operators signal on quiet NaNs; == does not, so build it from two. When
    // the first is false it has already raised whatever a NaN raises.
    if (op == Op::eq) truth = x <= y && y <= x;
    std::uint8_t const flags = raised_flags();
    bool const is_compare = op == Op::lt || op == Op::le || op == Op::eq;
    return {is_compare ? std::uint64_t(truth) : bit_cast<Word>(static_cast<Float>(r)), flags};
}

Outcome under(int direction, Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    int const saved = std::fegetround();
    std::fesetround(direction);
    Outcome const outcome =
        op == Op::convert ? (width == 32 ? convert<double, float>(a) : convert<float, double>(a))
        : width == 32     ? compute<float, std::uint32_t>(op, a, b, c)
                          : compute<double, std::uint64_t>(op, a, b, c);
    std::fesetround(saved);
    return outcome;
}

// Whether the exact result of op on words[0..2] lies halfway between the neighbours words[3]
// and words[4]. MPFR rounds correctly, so each residual below is zero exactly when the exact one
// is; 64 bits hold every operand and the midpoint, 128 bits every product. The MPFR reference
// leaves a narrow exponent range behind, so the widest one is set for the while.
bool is_tie(Op op, int width, std::uint64_t const (&words)[5]) {
    mpfr_exp_t const emin = mpfr_get_emin(), emax = mpfr_get_emax();
    mpfr_set_emin(mpfr_get_emin_min());
    mpfr_set_emax(mpfr_get_emax_max());
    mpfr_t v[5], product, residual;
    for (int i = 0; i < 5; ++i) {
        mpfr_init2(v[i], 64);
        if (width == 32 && (op != Op::convert || i >= 3))
            mpfr_set_flt(v[i], bit_cast<float>(static_cast<std::uint32_t>(words[i])), MPFR_RNDN);
        else
            mpfr_set_d(v[i], bit_cast<double>(words[i]), MPFR_RNDN);
    }
    mpfr_ptr const x = v[0], y = v[1], z = v[2], mid = v[3];
    mpfr_add(mid, mid, v[4], MPFR_RNDN);
    mpfr_div_2ui(mid, mid, 1, MPFR_RNDN);
    mpfr_inits2(128, product, residual, static_cast<mpfr_ptr>(nullptr));
    // Terms that add up to zero at a tie: x + y - mid, x - y - mid, x * y - mid, mid * y - x,
    // mid * mid - x, x - mid and x * y + z - mid.
    bool const backward = op == Op::div || op == Op::sqrt;
    mpfr_mul(product, backward ? mid : x, op == Op::sqrt ? mid : y, MPFR_RNDN);
    if (op == Op::sub) mpfr_neg(y, y, MPFR_RNDN);
    mpfr_neg(backward ? x : mid, backward ? x : mid, MPFR_RNDN);
    mpfr_ptr terms[][3] = {
        {x, y, mid}, {x, y, mid}, {product, mid},   {product, x}, {product, x}, {x, mid}, {},
        {},          {},          {product, z, mid}};
    mpfr_sum(residual, terms[int(op)], terms[int(op)][2] ? 3 : 2, MPFR_RNDN);
    bool const zero = mpfr_zero_p(residual) != 0;
    for (auto& value : v)
        mpfr_clear(value);
    mpfr_clears(product, residual, static_cast<mpfr_ptr>(nullptr));
    mpfr_set_emin(emin);
    mpfr_set_emax(emax);
    return zero;
}

thread_local int rounding_code = 0;

} // namespace

Outcome host(Op op, int width, std::uint64_t a, std::uint64_t b, std::uint64_t c) {
    int const directions[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
    int const code = rounding_code;
    if (code < 0 || code > 5) return under(FE_TONEAREST, op, width, a, b, c);
    if (code < 4) return under(directions[code], op, width, a, b, c);
    // Truncating cuts off the same bits and raises the same flags as rounding to odd: neither
    // carries into the next binade, and both stop at the largest finite value.
    Outcome const zero = under(FE_TOWARDZERO, op, width, a, b, c);
    if (code == 5) return {zero.bits | (zero.flags & sw::flag_inexact), zero.flags};
    // Ties away differs from ties to even only in the result of an exact tie, which takes the
    // neighbour away from zero. The largest finite value and the largest value below the
    // smallest normal are odd, so ties next to them go up under both, with the same flags.
    Outcome const even = under(FE_TONEAREST, op, width, a, b, c);
    if (!(even.flags & sw::flag_inexact) || (even.flags & sw::flag_overflow)) return even;
    bool const negative = (zero.bits >> (width - 1)) & 1;
    Outcome const away = under(negative ? FE_DOWNWARD : FE_UPWARD, op, width, a, b, c);
    if (away.flags & sw::flag_overflow) return even;
    return {is_tie(op, width, {a, b, c, zero.bits, away.bits}) ? away.bits : even.bits, even.flags};
}

HostRounding::HostRounding(int code) {
    rounding_code = code;
}
HostRounding::~HostRounding() {
    rounding_code = 0;
}

} // namespace swflt_oracle
