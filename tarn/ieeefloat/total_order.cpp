// IEEE 754's total order. In one format the order is that of the bit
// patterns read as sign and magnitude: for either sign the magnitude grows
// from zero through the numbers and infinity to the signaling and then the
// quiet NaNs, payloads included, and a negative sign reverses it. Across
// formats the patterns mean nothing to each other, so numbers are ordered by
// value and NaNs by their mantissa fields read as binary fractions.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/numbers/bvnumber.h"

#include <gmpxx.h>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

int sign_of_difference(const mpz_class& a, const mpz_class& b) {
    return (a > b) - (a < b);
}

/// The order of |a| and |b|, both of one sign: -1, 0 or 1.
int magnitude_order(const IEEEFloat& a, const IEEEFloat& b) {
    const format fa = Access::held_format(a), fb = Access::held_format(b);
    mpz_class pa = a.get_bits().to_mpz(), pb = b.get_bits().to_mpz();
    if (fa == fb) {
        mpz_clrbit(pa.get_mpz_t(), fa.exponent_width + fa.mantissa_width);
        mpz_clrbit(pb.get_mpz_t(), fb.exponent_width + fb.mantissa_width);
        return sign_of_difference(pa, pb);
    }
    const bool a_nan = a.is_nan(), b_nan = b.is_nan();
    if (a_nan != b_nan) return a_nan ? 1 : -1;
    if (!a_nan) return ieee_cmp(abs(a), abs(b));
    // Mantissa fields F / 2^m compared as F_a * 2^m_b against F_b * 2^m_a.
    mpz_fdiv_r_2exp(pa.get_mpz_t(), pa.get_mpz_t(), fa.mantissa_width);
    mpz_fdiv_r_2exp(pb.get_mpz_t(), pb.get_mpz_t(), fb.mantissa_width);
    return sign_of_difference(pa << fb.mantissa_width, pb << fa.mantissa_width);
}

} // namespace

bool total_order(const IEEEFloat& a, const IEEEFloat& b) {
    const bool negative = a.get_sign();
    if (negative != b.get_sign()) return negative;
    const auto& x = Access::held(a);
    const auto& y = Access::held(b);
    int order;
    // Words of one layout compare as unsigned magnitudes in registers.
    if (a.get_repr() == b.get_repr() && a.get_repr() == IEEEFloat::REPR_FLOAT32)
        order = ((x.bits32 << 1) > (y.bits32 << 1)) - ((x.bits32 << 1) < (y.bits32 << 1));
    else if (a.get_repr() == b.get_repr() && a.get_repr() == IEEEFloat::REPR_FLOAT64)
        order = ((x.bits64 << 1) > (y.bits64 << 1)) - ((x.bits64 << 1) < (y.bits64 << 1));
    else
        order = magnitude_order(a, b);
    return negative ? order >= 0 : order <= 0;
}

bool total_order_mag(const IEEEFloat& a, const IEEEFloat& b) {
    return total_order(abs(a), abs(b));
}

} // namespace tarn
