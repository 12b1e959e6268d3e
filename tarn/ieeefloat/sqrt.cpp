// Square root, on the three paths of the arithmetic: the soft-float component
// for binary32 and binary64 words, machine words for generic formats up to
// 128 bits, QNumbers for the rest.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <cmath>
#include <cstdint>
#include <gmp.h>
#include <gmpxx.h>
#include <limits>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// floor(sqrt(n)) and whether it is inexact, for n < 2^126: a floating-point
/// estimate, corrected. Where long double has no more bits than double, one
/// Newton step first brings the estimate from 53 to about 106 correct bits,
/// so the correction stays a step or two.
u128 square_root(u128 n, bool& inexact) {
    auto root = n < (u128{1} << 53)
                    ? static_cast<std::uint64_t>(std::sqrt(static_cast<double>(n)))
                    : static_cast<std::uint64_t>(std::sqrt(static_cast<long double>(n)));
    if (std::numeric_limits<long double>::digits < 64 && root > 1)
        root = static_cast<std::uint64_t>((root + n / root) >> 1);
    while (u128{root} * root > n)
        --root;
    while (u128{root + 1} * (root + 1) <= n)
        ++root;
    inexact = u128{root} * root != n;
    return root;
}
std::uint64_t square_root(std::uint64_t n, bool& inexact) {
    return static_cast<std::uint64_t>(square_root(u128{n}, inexact));
}
U256 square_root(const U256& n, bool& inexact) {
    mp_limb_t limbs[4], root[2] = {0, 0}, rest[4];
    const int used = to_limbs(n, limbs);
    inexact = used != 0 && mpn_sqrtrem(root, rest, limbs, used) != 0;
    return from_limbs(root, 2);
}

/// The square root of the packed pattern `bits` into `out`, on the words of
/// one path.
template <class Bits, class Wide>
void sqrt_words(const WordFormat<Bits>& wf, RoundingContext& r, Bits bits, Held& out) {
    WordOperand<Bits> x = unpack(wf, bits);
    if (x.nan) {
        if (signaling(wf, x)) r.flags |= FLAG_INVALID;
        return;
    }
    if (x.zero) return;
    if (x.sign) return write_packed(invalid_result(r, wf), out);
    if (x.inf) return;

    normalise(wf, x);
    // An even exponent halves exactly; an odd one moves a factor 2 into the
    // significand (floor division, also below zero).
    const long half = x.exp >> 1;
    const Bits sig = x.sig << (x.exp & 1);
    // The root of sig * 2^(m+4) has m + 3 bits, two below the format's.
    bool inexact;
    Wide root = square_root(Wide{sig} << static_cast<long>(wf.m + 4), inexact);
    long exp = half - 2;
    if (inexact) append_sticky(root, exp);
    round_into(wf, r, false, root, exp, out);
}

/// x := sqrt x on the words of one path, when x reads as words; false, with
/// nothing done, otherwise.
template <class Bits, class Wide>
bool word_sqrt(format f, RoundingContext& r, Held& x) {
    const WordFormat<Bits> wf(f);
    Bits bits;
    if (!read_packed(x, wf.sign_bit, bits)) return false;
    sqrt_words<Bits, Wide>(wf, r, bits, x);
    return true;
}

/// x := sqrt x on the words of the format's path, if it has one and x reads
/// as words.
inline bool try_word_sqrt(format f, RoundingContext& r, Held& x) {
    switch (word_path(f)) {
    case WordPath::wide64:
        return word_sqrt<std::uint64_t, std::uint64_t>(f, r, x);
    case WordPath::wide128:
        return word_sqrt<std::uint64_t, u128>(f, r, x);
    case WordPath::wide256:
        return word_sqrt<u128, U256>(f, r, x);
    default:
        return false;
    }
}

/// x := the square root of the packed integer x of format f, rounded in the
/// direction of `r`. NaNs and zeros stay as they are (so the root of -0 is
/// -0), every other negative value gives the library NaN and raises invalid.
void sqrt_float(TempNumProvider& tmp, format f, RoundingContext& r, QNumber& x) {
    bool sign, inf, nan, zero;
    unpack_components(f, x, sign, tmp[0], tmp[1], tmp[4]);
    get_flags(f, x, inf, nan, zero);
    if (nan) {
        if (nan_is_signaling(f, x)) r.flags |= FLAG_INVALID;
        return;
    }
    if (zero) return;
    if (sign) {
        r.flags |= FLAG_INVALID;
        return do_make_nan(f, x);
    }
    if (inf) return;

    const unsigned long m = f.mantissa_width;
    const bool subnormal = tmp[0].is_zero();
    tmp[4] = f.bias();
    get_unbiased(f, tmp[4], tmp[0], tmp[1]);
    if (subnormal) normalise_subnormal(f, tmp[0], tmp[1]);

    // Halve the exponent, rounding toward minus infinity; an odd exponent
    // leaves its factor 2 in the significand, so 2^m <= M < 2^(m+2).
    tmp[0].divmod(QNumber(2L), tmp[5], tmp[6]);
    tmp[0] = tmp[5];
    if (!tmp[6].is_zero()) BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);

    // The integer root of M * 2^(m+4) has m + 3 bits, two more than the
    // format keeps; a non-zero remainder becomes one more low 1 bit, which
    // rounds exactly as the irrational rest of the root would.
    BVNumber::bit_left_shift(tmp[1], m + 4, &tmp[1]);
    mpz_class radicand = tmp[1].to_mpz(), root, rest;
    mpz_sqrtrem(root.get_mpz_t(), rest.get_mpz_t(), radicand.get_mpz_t());
    tmp[1] = QNumber(root);
    tmp[0] -= 2L;
    if (rest != 0) {
        tmp[0] -= 1L;
        BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);
        tmp[1] += 1L;
    }
    round_and_pack_float(tmp, f, r, false, tmp[0], tmp[1], x);
}

} // namespace

void Access::square_root(IEEEFloat& x, RoundingContext& r) {
    auto& held = x.value;
    switch (x.get_repr()) {
    case IEEEFloat::REPR_FLOAT32:
        held.bits32 = settle_float32(swflt::float32_sqrt(held.bits32, swflt_rounding_code(r)));
        break;
    case IEEEFloat::REPR_FLOAT64:
        held.bits64 = settle_float64(swflt::float64_sqrt(held.bits64, swflt_rounding_code(r)));
        break;
    default: {
        if (!try_word_sqrt(x.get_format(), r, held)) {
            TempNumProvider tmp;
            sqrt_float(tmp, x.get_format(), r, number(held));
            settle(held);
        }
        raise(r.flags);
    }
    }
}

IEEEFloat& IEEEFloat::sqrt() {
    RoundingContext r = RoundingContext::of_mode(get_rounding_mode());
    Access::square_root(*this, r);
    return *this;
}

IEEEFloat sqrt(const IEEEFloat& a, rounding direction) {
    IEEEFloat result(a);
    RoundingContext r(direction);
    Access::square_root(result, r);
    return result;
}

} // namespace tarn
