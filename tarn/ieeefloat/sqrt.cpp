// Square root, on the three paths of the arithmetic: the soft-float component
// for binary32 and binary64 words, machine words for generic formats up to
// 128 bits, QNumbers for the rest.

#include "tarn/ieeefloat/ieeefloat.h"
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
void sqrt_words(const WordFormat<Bits>& wf, rounding_mode mode, Bits bits, QNumber& out) {
    WordOperand<Bits> x = unpack(wf, bits);
    if (x.nan || x.zero) return;
    if (x.sign) return write_packed(wf.nan(), out);
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
    round_into(wf, mode, false, root, exp, out);
}

/// x := sqrt x on the words of one path, when x reads as words; false, with
/// nothing done, otherwise.
template <class Bits, class Wide>
bool word_sqrt(format f, rounding_mode mode, QNumber& x) {
    const WordFormat<Bits> wf(f);
    Bits bits;
    if (!read_packed(x, wf.sign_bit, bits)) return false;
    sqrt_words<Bits, Wide>(wf, mode, bits, x);
    return true;
}

/// x := sqrt x on the words of the format's path, if it has one and x reads
/// as words.
inline bool try_word_sqrt(format f, rounding_mode mode, QNumber& x) {
    switch (word_path(f)) {
    case WordPath::wide64:
        return word_sqrt<std::uint64_t, std::uint64_t>(f, mode, x);
    case WordPath::wide128:
        return word_sqrt<std::uint64_t, u128>(f, mode, x);
    case WordPath::wide256:
        return word_sqrt<u128, U256>(f, mode, x);
    default:
        return false;
    }
}

/// x := the square root of the packed integer x of format f, rounded under
/// `mode`. NaNs and zeros stay as they are (so the root of -0 is -0), every
/// other negative value gives the library NaN.
void sqrt_float(TempNumProvider& tmp, format f, rounding_mode mode, QNumber& x) {
    bool sign, inf, nan, zero;
    unpack_components(f, x, sign, tmp[0], tmp[1], tmp[4]);
    get_flags(f, x, inf, nan, zero);
    if (nan || zero) return;
    if (sign) return do_make_nan(f, x);
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
    round_and_pack_float(tmp, f, mode, false, tmp[0], tmp[1], x);
}

} // namespace

IEEEFloat& IEEEFloat::sqrt() {
    switch (get_repr()) {
    case REPR_FLOAT32:
        value.bits32 = settle_float32(swflt::float32_sqrt(value.bits32, swflt_code(*this)));
        break;
    case REPR_FLOAT64:
        value.bits64 = settle_float64(swflt::float64_sqrt(value.bits64, swflt_code(*this)));
        break;
    default: {
        const rounding_mode mode = get_rounding_mode();
        QNumber& packed = *value.packed;
        if (!try_word_sqrt(fmt, mode, packed)) {
            TempNumProvider tmp;
            sqrt_float(tmp, fmt, mode, packed);
        }
    }
    }
    return *this;
}

} // namespace tarn
