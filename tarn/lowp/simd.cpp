// The bulk kernel on Highway's vectors: compiled once for each instruction set
// Highway knows (AVX-512, AVX2, SSE4, ... and a portable fallback) and chosen
// at run time, so that one binary runs everywhere at the speed of the machine
// it lands on.
//
// It works on float bits in 32-bit lanes (doubles are first rounded to float
// to odd, see load_lanes). A vector whose lanes are all finite, and not
// negative where the encoding has no sign, takes the vector path: rebias, a
// per-lane shift that rounds in the call's direction (the carry into the
// exponent field comes for free), the overflow pattern, the sign, and the
// flags as OR-ed lane masks. Any other vector (a NaN, an infinity, a negative
// input into an unsigned encoding) goes through the word kernel, element by
// element, which has every case written out; those inputs are rare in the
// arrays this is for.
//
// This file includes itself once per target through Highway's foreach_target.

#include "tarn/lowp/simd.h"

#include "tarn/lowp/kernel.h"

#ifndef TARN_LOWP_SIMD_ONCE
#define TARN_LOWP_SIMD_ONCE

#include <algorithm>

namespace tarn::lowp_detail {
namespace {

/// The constants of a call as 32-bit lane values.
struct Lanes {
    std::int32_t s0 = 0;             ///< bits a normal result discards: 23 - m
    std::int32_t B = 0;              ///< the input's biased exponent of 2^emin
    std::uint32_t unsigned_sign = 0; ///< the sign bit, for an unsigned encoding
    std::uint32_t max_mag = 0, sign1 = 0, zero1 = 0, over0 = 0, over1 = 0;
    std::int32_t tiny_pos = 0;                  ///< magnitudes below this are tiny (positive)
    std::int32_t tiny_neg = 0;                  ///< (negative)
    std::uint32_t random_hi = 0, random_lo = 0; ///< the random bits compared
    std::uint64_t keys[2][10] = {};             ///< Philox's round keys

    explicit Lanes(const Plan& p, const stochastic* s) {
        const int m = static_cast<int>(p.m);
        s0 = 23 - m;
        B = static_cast<std::int32_t>(p.emin + 127);
        unsigned_sign = p.has_sign ? 0 : 0x80000000u;
        max_mag = static_cast<std::uint32_t>(p.max_mag);
        sign1 = static_cast<std::uint32_t>(p.sign[1]);
        zero1 = static_cast<std::uint32_t>(p.zero[1]);
        over0 = static_cast<std::uint32_t>(p.overflowed[0]);
        over1 = static_cast<std::uint32_t>(p.overflowed[1]);
        // Tiny after rounding to m + 1 bits with an unbounded exponent: below
        // 2^emin, or below the point from which the direction rounds up to it
        // (the halfway point for the nearest directions, just above the
        // largest number under 2^emin for rounding away from zero): float bit
        // patterns, which order as the magnitudes do. The points are floats,
        // since the word kernel's range keeps 2^(emin - m - 2) within float's;
        // from emin 129 on every finite float is tiny. Made with integers
        // only: MX scaling makes a plan for each block.
        const int emin = static_cast<int>(std::min<long>(p.emin, 129));
        const int ulp_below = std::max(emin - 24, -149); // the exponent of float's ulp under 2^emin
        const std::int32_t whole = emin > 128     ? 0x7f800000
                                   : emin >= -126 ? (emin + 127) << 23
                                                  : 1 << (emin + 149);
        const std::int32_t half = emin > 128 ? whole : whole - (1 << (emin - m - 2 - ulp_below));
        const std::int32_t above =
            emin > 128 ? whole : whole - (1 << (emin - m - 1 - ulp_below)) + 1;
        tiny_pos = tiny_neg = whole;
        if (p.method == Method::nearest_even || p.method == Method::nearest_away)
            tiny_pos = tiny_neg = half;
        if (p.method == Method::upward) tiny_pos = above;
        if (p.method == Method::downward) tiny_neg = above;
        if (s) {
            const unsigned drop = 64 - s->random_bits;
            const std::uint64_t mask = ~std::uint64_t{0} << drop;
            random_hi = static_cast<std::uint32_t>(mask >> 32);
            random_lo = static_cast<std::uint32_t>(mask);
            auto k0 = static_cast<std::uint32_t>(s->seed),
                 k1 = static_cast<std::uint32_t>(s->seed >> 32);
            for (int round = 0; round < 10; ++round, k0 += PHILOX_W32_0, k1 += PHILOX_W32_1) {
                keys[0][round] = k0;
                keys[1][round] = k1;
            }
        }
    }
};

} // namespace
} // namespace tarn::lowp_detail

#endif // TARN_LOWP_SIMD_ONCE

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "tarn/lowp/simd.cpp"
#include <hwy/foreach_target.h> // IWYU pragma: keep
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace tarn::lowp_detail::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One-lane vectors (HWY_SCALAR) gain nothing over the word kernel.
#if HWY_TARGET != HWY_SCALAR
namespace {

using DU = hn::ScalableTag<std::uint32_t>;
using DI = hn::RebindToSigned<DU>;
using VU = hn::Vec<DU>;
using VI = hn::Vec<DI>;

/// v, below 2^24, shifted left by L lanes-wise (L up to 31), right by -L
/// where L is negative (so 0 from -24 down).
HWY_INLINE VU shift_signed(VU v, VI L) {
    const DU du;
    const DI di;
    const VI zero = hn::Zero(di), most = hn::Set(di, 31);
    const VU left = hn::Shl(v, hn::BitCast(du, hn::Min(hn::Max(L, zero), most)));
    const VU right = hn::Shr(v, hn::BitCast(du, hn::Min(hn::Max(hn::Neg(L), zero), most)));
    return hn::IfThenElse(hn::RebindMask(du, hn::Lt(L, zero)), right, left);
}

/// The first 64 bits of the Philox4x32-10 blocks of counters c + lane, as
/// their high and low words.
HWY_INLINE void philox(const std::uint64_t (&keys)[2][10], std::uint64_t c, VU& hi, VU& lo) {
    const DU du;
    const hn::Repartition<std::uint64_t, DU> d64;
    const VU m0 = hn::Set(du, PHILOX_M4x32_0), m1 = hn::Set(du, PHILOX_M4x32_1);
    // Each 64-bit lane carries one 32-bit word of the state in its low half:
    // the products are whole there, and what the high halves collect is never
    // read (the multiplications read the low halves only). The even elements
    // go in one set of lanes, the odd in the other, so that the words come
    // back together without crossing lanes.
    hn::Vec<decltype(d64)> r0[2], r1[2];
    for (std::uint64_t h = 0; h < 2; ++h) {
        auto c0 = hn::Add(hn::ShiftLeft<1>(hn::Iota(d64, 0)), hn::Set(d64, c + h));
        auto c1 = hn::ShiftRight<32>(c0);
        // The first round: the words 2 and 3 of the counter are zero.
        auto p0 = hn::MulEven(hn::BitCast(du, c0), m0);
        c0 = hn::Xor(c1, hn::Set(d64, keys[0][0]));
        c1 = hn::Zero(d64);
        auto c2 = hn::Xor(hn::ShiftRight<32>(p0), hn::Set(d64, keys[1][0]));
        auto c3 = p0;
        for (int round = 1; round < 10; ++round) {
            p0 = hn::MulEven(hn::BitCast(du, c0), m0);
            const auto p1 = hn::MulEven(hn::BitCast(du, c2), m1);
            c0 = hn::Xor3(hn::ShiftRight<32>(p1), c1, hn::Set(d64, keys[0][round]));
            c1 = p1;
            c2 = hn::Xor3(hn::ShiftRight<32>(p0), c3, hn::Set(d64, keys[1][round]));
            c3 = p0;
        }
        r0[h] = c0;
        r1[h] = c1;
    }
    lo = hn::OddEven(hn::BitCast(du, hn::ShiftLeft<32>(r0[1])), hn::BitCast(du, r0[0]));
    hi = hn::OddEven(hn::BitCast(du, hn::ShiftLeft<32>(r1[1])), hn::BitCast(du, r1[0]));
}

/// The float bits of in[0, N) into `u`; false when a lane is not finite, or
/// is negative where `unsigned_sign` (the sign bit for an unsigned encoding).
HWY_INLINE bool load_lanes(const float* in, std::uint32_t unsigned_sign, VU& u) {
    const DU du;
    u = hn::BitCast(du, hn::LoadU(hn::Rebind<float, DU>(), in));
    const VU keep = hn::Set(du, 0x7fffffffu | unsigned_sign);
    return hn::AllFalse(du, hn::Gt(hn::And(u, keep), hn::Set(du, 0x7f7fffffu)));
}

/// Doubles: rounded to float's 24 bits to odd, truncated with a last bit set
/// when inexact. The encodings' grids are at least 8 float ulps apart, so
/// their points and midpoints are even floats, and the odd float lies on the
/// same side of each as the double: every direction rounds both alike, and
/// the tininess thresholds, also even floats, compare alike. Stochastic
/// rounding reads every discarded bit and does not come here. False also for
/// magnitudes outside float's normal range other than zero.
HWY_INLINE bool load_lanes(const double* in, std::uint32_t unsigned_sign, VU& u) {
    const DU du;
    const hn::Repartition<std::uint64_t, DU> d64;
    const hn::RebindToSigned<decltype(d64)> di64;
    const hn::Rebind<double, decltype(d64)> dd;
    const std::size_t half = hn::Lanes(d64);
    const auto sign = hn::Set(d64, std::uint64_t{1} << 63), zero = hn::Zero(d64);
    const auto low = hn::Set(di64, std::int64_t{897} << 52),
               high = hn::Set(di64, std::int64_t{1151} << 52);
    hn::Vec<decltype(d64)> f[2];
    bool ok = true;
    for (std::size_t h = 0; h < 2; ++h) {
        const auto x = hn::BitCast(d64, hn::LoadU(dd, in + h * half));
        const auto m = hn::AndNot(sign, x);
        const auto mi = hn::BitCast(di64, m);
        const auto in_range = hn::RebindMask(d64, hn::AndNot(hn::Lt(mi, low), hn::Lt(mi, high)));
        const auto signed_ok =
            hn::Eq(hn::And(x, hn::Set(d64, std::uint64_t{unsigned_sign} << 32)), zero);
        ok &= hn::AllTrue(d64, hn::And(hn::Or(in_range, hn::Eq(m, zero)), signed_ok));
        auto bits = hn::ShiftRight<29>(hn::Sub(m, hn::Set(d64, std::uint64_t{896} << 52)));
        bits = hn::IfThenElse(hn::Ne(hn::And(m, hn::Set(d64, (std::uint64_t{1} << 29) - 1)), zero),
                              hn::Or(bits, hn::Set(d64, 1)), bits);
        bits = hn::IfThenZeroElse(hn::Eq(m, zero), bits);
        f[h] = hn::Or(bits, hn::ShiftRight<32>(hn::And(x, sign)));
    }
    u = hn::ConcatEven(du, hn::BitCast(du, f[1]), hn::BitCast(du, f[0]));
    return ok;
}

/// `aligned`: the encoding's exponent field is float's (emin -126, as
/// bfloat16): the magnitude's bits are the significand with the exponent
/// above it, and every lane drops 23 - m bits.
template <Method how, bool aligned, class In, class Out>
unsigned convert(const Plan& plan, const stochastic* s, const In* in, std::size_t n, Out* out,
                 std::uint64_t first) {
    const Lanes c(plan, s);
    const DU du;
    const DI di;
    const hn::Rebind<Out, DU> dout;
    const std::size_t N = hn::Lanes(du);
    const VU zero = hn::Zero(du), one = hn::Set(du, 1), magnitude = hn::Set(du, 0x7fffffffu);
    const VI s0 = hn::Set(di, c.s0), s0B = hn::Set(di, c.s0 + c.B), B = hn::Set(di, c.B);
    const VI most = hn::Set(di, 31), thirty_two = hn::Set(di, 32), sixty_four = hn::Set(di, 64);
    const VU max_mag = hn::Set(du, c.max_mag), sign1 = hn::Set(du, c.sign1),
             zero1 = hn::Set(du, c.zero1), over0 = hn::Set(du, c.over0),
             over1 = hn::Set(du, c.over1);
    const VI tiny_pos = hn::Set(di, c.tiny_pos), tiny_neg = hn::Set(di, c.tiny_neg);
    auto any_inexact = hn::Lt(zero, zero), any_tiny = any_inexact, any_over = any_inexact;
    unsigned flags = 0;
    std::size_t i = 0;
    for (; i + N <= n; i += N) {
        VU u;
        if (!load_lanes(in + i, c.unsigned_sign, u)) {
            flags |= quantize_words(plan, s, in + i, N, out + i, first + i);
            continue;
        }
        const VU a = hn::And(u, magnitude);
        const VI ai = hn::BitCast(di, a);
        const VU negv = hn::BitCast(du, hn::BroadcastSignBit(hn::BitCast(di, u)));
        const auto neg = hn::MaskFromVec(negv);
        const VI ef = hn::BitCast(di, hn::ShiftRight<23>(a));
        const VI efc = hn::Max(ef, hn::BitCast(di, one));
        // The significand, its implicit bit where the input is normal.
        const VU sig = aligned ? a
                               : hn::Sub(hn::Add(a, hn::Set(du, 1u << 23)),
                                         hn::ShiftLeft<23>(hn::BitCast(du, efc)));
        // D bits are discarded: s0 at and above 2^emin, more below it.
        const VI D = aligned ? s0 : hn::Max(s0, hn::Sub(s0B, efc));
        const VU S = hn::BitCast(du, hn::Min(D, most));
        const VU q = hn::Shr(sig, S);
        const VU dropped = hn::Sub(sig, hn::Shl(q, S));
        const auto inexact = hn::Ne(dropped, zero);
        VU r;
        if constexpr (how == Method::nearest_even) {
            const VU below_half =
                hn::Shr(magnitude, hn::Sub(hn::BitCast(du, thirty_two), S)); // 2^(S-1) - 1
            r = hn::Shr(hn::Add(hn::Add(sig, below_half), hn::And(q, one)), S);
        } else if constexpr (how == Method::nearest_away) {
            r = hn::Shr(hn::Add(sig, hn::Shl(one, hn::Sub(S, one))), S);
        } else if constexpr (how == Method::toward_zero) {
            r = q;
        } else if constexpr (how == Method::upward) {
            r = hn::IfThenElse(hn::AndNot(neg, inexact), hn::Add(q, one), q);
        } else if constexpr (how == Method::downward) {
            r = hn::IfThenElse(hn::And(neg, inexact), hn::Add(q, one), q);
        } else if constexpr (how == Method::to_odd) {
            r = hn::IfThenElse(inexact, hn::Or(q, one), q);
        } else {
            // The discarded bits as a 64-bit binary fraction, high and low
            // words, against the random bits, both cut to random_bits.
            const VU fraction_hi = shift_signed(dropped, hn::Sub(thirty_two, D));
            const VU fraction_lo =
                hn::IfThenElseZero(hn::RebindMask(du, hn::Gt(D, thirty_two)),
                                   shift_signed(dropped, hn::Sub(sixty_four, D)));
            VU random_hi, random_lo;
            philox(c.keys, s->offset + first + i, random_hi, random_lo);
            const VU mhi = hn::Set(du, c.random_hi), mlo = hn::Set(du, c.random_lo);
            const VU rh = hn::And(random_hi, mhi), fh = hn::And(fraction_hi, mhi);
            const VU rl = hn::And(random_lo, mlo), fl = hn::And(fraction_lo, mlo);
            const auto less = hn::Or(hn::Lt(rh, fh), hn::And(hn::Eq(rh, fh), hn::Lt(rl, fl)));
            r = hn::IfThenElse(less, hn::Add(q, one), q);
        }
        // The exponent field above the rounded significand: a carry out of
        // the significand moves the pattern up a binade, or from the
        // subnormals to 2^emin.
        const VU pattern =
            aligned ? r
                    : hn::Add(r, hn::ShiftLeftSame(hn::BitCast(du, hn::Sub(hn::Max(ef, B), B)),
                                                   static_cast<int>(plan.m)));
        const auto over = hn::Gt(pattern, max_mag);
        const VU sign = hn::IfThenElse(hn::Eq(pattern, zero), zero1, sign1);
        VU result = hn::Or(pattern, hn::And(negv, sign));
        result = hn::IfThenElse(over, hn::IfThenElse(neg, over1, over0), result);
        const VI tiny_below = how == Method::upward || how == Method::downward
                                  ? hn::IfThenElse(hn::RebindMask(di, neg), tiny_neg, tiny_pos)
                                  : tiny_pos;
        const auto tiny = hn::RebindMask(du, hn::Lt(ai, tiny_below));
        any_inexact = hn::Or(any_inexact, inexact);
        any_tiny = hn::Or(any_tiny, hn::And(tiny, inexact));
        any_over = hn::Or(any_over, over);
        hn::StoreU(hn::DemoteTo(dout, hn::BitCast(di, result)), dout, out + i);
    }
    if (!hn::AllFalse(du, any_inexact)) flags |= FLAG_INEXACT;
    if (!hn::AllFalse(du, any_tiny)) flags |= FLAG_UNDERFLOW;
    if (!hn::AllFalse(du, any_over)) flags |= FLAG_OVERFLOW | FLAG_INEXACT;
    if (i < n) flags |= quantize_words(plan, s, in + i, n - i, out + i, first + i);
    return flags;
}

template <bool aligned, class In, class Out>
unsigned convert_in_direction(const Plan& plan, const stochastic* s, const In* in, std::size_t n,
                              Out* out, std::uint64_t first) {
    switch (plan.method) {
    case Method::nearest_even:
        return convert<Method::nearest_even, aligned, In>(plan, s, in, n, out, first);
    case Method::toward_zero:
        return convert<Method::toward_zero, aligned, In>(plan, s, in, n, out, first);
    case Method::upward:
        return convert<Method::upward, aligned, In>(plan, s, in, n, out, first);
    case Method::downward:
        return convert<Method::downward, aligned, In>(plan, s, in, n, out, first);
    case Method::nearest_away:
        return convert<Method::nearest_away, aligned, In>(plan, s, in, n, out, first);
    case Method::to_odd:
        return convert<Method::to_odd, aligned, In>(plan, s, in, n, out, first);
    default:
        // Stochastic rounding of doubles reads bits that float drops.
        if constexpr (sizeof(In) == 8)
            return quantize_words(plan, s, in, n, out, first);
        else
            return convert<Method::stochastic, aligned, In>(plan, s, in, n, out, first);
    }
}

#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
/// binary16 to nearest-even on F16C: the conversion's rounding is fixed by its
/// immediate (exceptions suppressed), so it gives IEEE's result whatever the
/// rounding mode; only flushing subnormals (MXCSR's FTZ and DAZ, checked by
/// the caller) would change it. Around it: the saturation of an overflow and
/// the flags, inexact where converting back differs.
template <class In>
unsigned convert_binary16(const Plan& plan, const In* in, std::size_t n, std::uint16_t* out,
                          std::uint64_t first) {
    const Lanes c(plan, nullptr);
    const DU du;
    const DI di;
    const hn::Rebind<float, DU> df;
    const hn::Rebind<hwy::float16_t, DU> dh;
    const hn::Rebind<std::uint16_t, DU> d16;
    const std::size_t N = hn::Lanes(du);
    const VU magnitude = hn::Set(du, 0x7fffu), infinity = hn::Set(du, 0x7c00u);
    const VU over0 = hn::Set(du, c.over0), over1 = hn::Set(du, c.over1);
    const VI tiny_below = hn::Set(di, c.tiny_pos);
    auto any_inexact = hn::Lt(magnitude, magnitude), any_tiny = any_inexact, any_over = any_inexact;
    unsigned flags = 0;
    std::size_t i = 0;
    for (; i + N <= n; i += N) {
        VU u;
        if (!load_lanes(in + i, 0, u)) {
            flags |= quantize_words(plan, nullptr, in + i, N, out + i, first + i);
            continue;
        }
        const auto h = hn::DemoteTo(dh, hn::BitCast(df, u));
        const auto inexact = hn::Ne(hn::BitCast(du, hn::PromoteTo(df, h)), u);
        VU result = hn::PromoteTo(du, hn::BitCast(d16, h));
        const auto over = hn::Eq(hn::And(result, magnitude), infinity);
        const VI ui = hn::BitCast(di, u);
        result = hn::IfThenElse(
            over, hn::IfThenElse(hn::RebindMask(du, hn::Lt(ui, hn::Zero(di))), over1, over0),
            result);
        const auto tiny =
            hn::RebindMask(du, hn::Lt(hn::And(ui, hn::Set(di, 0x7fffffff)), tiny_below));
        any_inexact = hn::Or(any_inexact, inexact);
        any_tiny = hn::Or(any_tiny, hn::And(tiny, inexact));
        any_over = hn::Or(any_over, over);
        hn::StoreU(hn::DemoteTo(d16, hn::BitCast(di, result)), d16, out + i);
    }
    if (!hn::AllFalse(du, any_inexact)) flags |= FLAG_INEXACT;
    if (!hn::AllFalse(du, any_tiny)) flags |= FLAG_UNDERFLOW;
    if (!hn::AllFalse(du, any_over)) flags |= FLAG_OVERFLOW | FLAG_INEXACT;
    if (i < n) flags |= quantize_words(plan, nullptr, in + i, n - i, out + i, first + i);
    return flags;
}
#endif

template <class In, class Out>
unsigned convert_by_method(const Plan& plan, const stochastic* s, const In* in, std::size_t n,
                           Out* out, std::uint64_t first) {
#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
    if constexpr (sizeof(Out) == 2)
        if (plan.method == Method::nearest_even && plan.enc == encoding::make(5, 10) &&
            (_mm_getcsr() & 0x8040) == 0)
            return convert_binary16(plan, in, n, out, first);
#endif
    if (plan.emin == -126) return convert_in_direction<true>(plan, s, in, n, out, first);
    return convert_in_direction<false>(plan, s, in, n, out, first);
}

} // namespace
#else
template <class In, class Out>
unsigned convert_by_method(const Plan& plan, const stochastic* s, const In* in, std::size_t n,
                           Out* out, std::uint64_t first) {
    return quantize_words(plan, s, in, n, out, first);
}
#endif

#define TARN_LOWP_VECTORS(name, In, Out)                                                           \
    unsigned name(const Plan& plan, const stochastic* s, const In* in, std::size_t n, Out* out,    \
                  std::uint64_t first) {                                                           \
        return convert_by_method(plan, s, in, n, out, first);                                      \
    }
TARN_LOWP_VECTORS(FloatsTo8, float, std::uint8_t)
TARN_LOWP_VECTORS(FloatsTo16, float, std::uint16_t)
TARN_LOWP_VECTORS(DoublesTo8, double, std::uint8_t)
TARN_LOWP_VECTORS(DoublesTo16, double, std::uint16_t)
#undef TARN_LOWP_VECTORS

} // namespace tarn::lowp_detail::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarn::lowp_detail {

HWY_EXPORT(FloatsTo8);
HWY_EXPORT(FloatsTo16);
HWY_EXPORT(DoublesTo8);
HWY_EXPORT(DoublesTo16);

#define TARN_LOWP_VECTORS(name, In, Out)                                                           \
    unsigned quantize_vectors(const Plan& plan, const stochastic* s, const In* in, std::size_t n,  \
                              Out* out, std::uint64_t first) {                                     \
        return HWY_DYNAMIC_DISPATCH(name)(plan, s, in, n, out, first);                             \
    }
TARN_LOWP_VECTORS(FloatsTo8, float, std::uint8_t)
TARN_LOWP_VECTORS(FloatsTo16, float, std::uint16_t)
TARN_LOWP_VECTORS(DoublesTo8, double, std::uint8_t)
TARN_LOWP_VECTORS(DoublesTo16, double, std::uint16_t)
#undef TARN_LOWP_VECTORS

std::vector<std::int64_t> simd_targets() {
    std::vector<std::int64_t> all = hwy::SupportedAndGeneratedTargets();
    std::reverse(all.begin(), all.end());
    return all;
}

void use_simd_target(std::int64_t target) {
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

} // namespace tarn::lowp_detail
#endif
