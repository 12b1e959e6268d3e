// Conversion from exact numbers (from_number) and between formats (set_format).

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/access.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/ieeefloat/internal/swflt_glue.h"
#include "tarn/ieeefloat/internal/word_arith.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/swflt/swflt.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The packed pattern `bits` of `from` converted to `to`, both formats with a
/// word path: the generic conversion of set_format, on words. A significand
/// of up to 113 bits, widened to the target's precision or cut down to it,
/// always fits 128 bits.
template <class FromBits, class ToBits>
ToBits convert_bits(format from, format to, RoundingContext& r, FromBits bits) {
    const WordFormat<FromBits> wf_from(from);
    const WordFormat<ToBits> wf_to(to);
    const WordOperand<FromBits> x = unpack(wf_from, bits);
    if (x.nan) {
        if (signaling(wf_from, x)) r.flags |= FLAG_INVALID;
        return wf_to.nan();
    }
    if (x.inf) return wf_to.inf(x.sign);
    if (x.zero) return wf_to.signed_zero(x.sign);
    const long exp = x.exp - static_cast<long>(wf_from.m) + static_cast<long>(wf_to.m);
    return round_bits(wf_to, r, x.sign, u128{x.sig}, exp) | wf_to.signed_zero(x.sign);
}

/// Replaces `packed`, a pattern of `from`, by its conversion to `to`, when
/// both formats have a word path and the pattern reads as words; false, with
/// nothing changed, otherwise.
template <class FromBits>
bool convert_from(format from, format to, RoundingContext& r, Held& packed) {
    FromBits bits;
    if (!read_packed(packed, static_cast<unsigned>(from.exponent_width + from.mantissa_width),
                     bits))
        return false;
    if (one_word_format(to))
        write_packed(convert_bits<FromBits, std::uint64_t>(from, to, r, bits), packed);
    else
        write_packed(convert_bits<FromBits, u128>(from, to, r, bits), packed);
    return true;
}

/// set_format's generic conversion on words, when both formats have a word
/// path; false, with nothing changed, otherwise.
bool try_convert_words(format from, format to, RoundingContext& r, Held& packed) {
    if (word_path(to) == WordPath::none) return false;
    switch (word_path(from)) {
    case WordPath::wide64:
    case WordPath::wide128:
        return convert_from<std::uint64_t>(from, to, r, packed);
    case WordPath::wide256:
        return convert_from<u128>(from, to, r, packed);
    default:
        return false;
    }
}

/// set_format's generic conversion on QNumbers. Out of line, so that the
/// word path's caller stays small.
[[gnu::noinline]] void convert_exact(format old_fmt, format new_fmt, RoundingContext& r,
                                     Held& value) {
    QNumber& packed = number(value);
    TempNumProvider tmp;
    bool sign, inf, nan, zero;
    unpack_components(old_fmt, packed, sign, tmp[0], tmp[1], tmp[4]);
    get_flags(old_fmt, packed, inf, nan, zero);
    if (nan) {
        if (nan_is_signaling(old_fmt, packed)) r.flags |= FLAG_INVALID;
        do_make_nan(new_fmt, packed);
    } else if (inf) {
        do_make_inf(new_fmt, sign, packed);
    } else {
        // M * 2^(E - m) is M * 2^((E - m + m') - m') in the new format.
        tmp[4] = old_fmt.bias();
        get_unbiased(old_fmt, tmp[4], tmp[0], tmp[1]);
        tmp[0] -= static_cast<long>(old_fmt.mantissa_width);
        tmp[0] += static_cast<long>(new_fmt.mantissa_width);
        // Zeros come out with the sign flag they are handed, so -0 stays -0.
        round_and_pack_float(tmp, new_fmt, r, sign, tmp[0], tmp[1], packed);
    }
    settle(value);
}

/// The format into which every positive integer of `bits` bits converts
/// exactly, with at least the precision and the exponent width of f: such an
/// integer is a normal value of it.
format exact_integer_format(unsigned long bits, format f) {
    const unsigned long m = std::max(bits, f.mantissa_width);
    const auto m_bits = static_cast<unsigned long>(64 - __builtin_clzll(m | 1));
    return {std::max(m_bits, f.exponent_width) + 1, m};
}

/// The format of from_number's first rounding of N / D, for N and D of the
/// given bit lengths: the wider of the formats that hold each exactly.
format first_rounding_format(unsigned long n, unsigned long d, format f) {
    const format num_fmt = exact_integer_format(n, f);
    const format den_fmt = exact_integer_format(d, f);
    return num_fmt.mantissa_width < den_fmt.mantissa_width ? den_fmt : num_fmt;
}

/// The quotient of the positive integers N (slot 2) and D (slot 3) at the
/// resolution 2^k: slot 1 := F = floor(N / (D * 2^k)) and slot 4 := the
/// remainder of the one integer division that gives F. For k > 0 the bits of
/// N below 2^k are dropped before dividing; `low_bits_dropped` tells whether
/// any of them was set. Returns whether N / D is not exactly F * 2^k. Slot 0
/// is working storage.
bool quotient_at(TempNumProvider& tmp, long k, bool& low_bits_dropped) {
    low_bits_dropped = false;
    if (k <= 0) {
        BVNumber::bit_left_shift(tmp[2], static_cast<unsigned long>(-k), &tmp[0]);
    } else {
        const auto drop = static_cast<unsigned long>(k);
        low_bits_dropped = BVNumber::scan_bit_1(tmp[2], 0) < drop;
        BVNumber::bit_right_shift(tmp[2], drop, &tmp[0]);
    }
    tmp[0].divmod(tmp[3], tmp[1], tmp[4]);
    return low_bits_dropped || !tmp[4].is_zero();
}

/// The significand F at resolution 2^k in the terms of the rounding core for
/// a format of mantissa width m: slot 0 := X and slot 1 := S with
/// S * 2^(X - m) = F * 2^k when exact, and S = 2F + 1 one bit lower (a
/// sticky 1 below F) when not.
void quotient_as_exact_result(TempNumProvider& tmp, long k, bool inexact, unsigned long m) {
    if (inexact) {
        BVNumber::bit_left_shift(tmp[1], 1, &tmp[1]);
        tmp[1] += 1L;
        --k;
    }
    tmp[0] = QNumber(k + static_cast<long>(m));
}

/// Whether a remainder (slot 4) of the division by D (slot 3), as a fraction
/// of D, may lie within 2^-j of 0 or of 1. A first rounding at a position j
/// bits below the quotient's last bit moves a quotient no farther than that,
/// so outside this band both roundings see the quotient truncated with a
/// sticky bit. Judged from bit lengths, so it errs toward yes.
bool remainder_near_an_end(TempNumProvider& tmp, unsigned long j, bool low_bits_dropped) {
    if (tmp[4].is_zero()) return low_bits_dropped;
    const unsigned long d = bit_length(tmp[3]);
    // rest * 2^j >= D when bitlen(rest) - 1 + j >= bitlen(D).
    if (bit_length(tmp[4]) + j <= d) return true;
    // Likewise for D - rest - 1, the distance to the next multiple.
    tmp[0] = tmp[3];
    tmp[0] -= tmp[4];
    tmp[0] -= 1L;
    return tmp[0].is_zero() || bit_length(tmp[0]) + j <= d;
}

/// floor(num * 2^shift / den) and whether the division leaves a remainder,
/// for a shifted numerator of at most 256 bits and a quotient below 2^128.
u128 shifted_quotient(u128 num, long shift, u128 den, bool& inexact) {
    mp_limb_t n[4], d[2] = {static_cast<mp_limb_t>(den), static_cast<mp_limb_t>(den >> 64)};
    mp_limb_t q[4] = {0, 0, 0, 0}, r[2] = {0, 0};
    const int n_size = to_limbs(U256(num) << shift, n);
    const int d_size = d[1] != 0 ? 2 : 1;
    mpn_tdiv_qr(q, r, 0, n, n_size, d, d_size);
    inexact = (r[0] | r[1]) != 0;
    return u128{q[1]} << 64 | q[0];
}

/// from_number's double rounding of num / den on words, for a format with a
/// word path and a first rounding to wide_m + 1 bits, wide_m at most 125:
/// the quotient is taken to two or three bits more than that precision (and
/// a remainder flag), rounded to the wide precision and then to the format.
/// False when the quotient is subnormal in the wide format, whose exponent
/// range then decides the first rounding too.
template <class Bits>
bool fraction_to_bits(format f, format wide, RoundingContext& r, bool negative, u128 num, u128 den,
                      Bits& bits) {
    const long n = bit_length(num), d = bit_length(den);
    const auto wide_m = static_cast<long>(wide.mantissa_width);
    // The quotient's leading bit has the weight 2^(n - d - 1) or 2^(n - d);
    // k puts it at bit wide_m + 1 or wide_m + 2 of the integer quotient.
    const long k = n - d - 2 - wide_m;
    bool inexact;
    const u128 quotient = shifted_quotient(num, -k, den, inexact);
    const long q_bits = bit_length(quotient);
    const long wide_min_exponent = 2 - (long{1} << (wide.exponent_width - 1));
    if (q_bits - 1 + k < wide_min_exponent) return false;

    // No overflow in the wide format: the quotient stays below 2^n and the
    // wide format's largest exponent is at least its precision.
    const long drop = q_bits - (wide_m + 1);
    Discarded cut;
    cut.round_bit = bit_at(quotient, drop - 1);
    cut.sticky = inexact || low_bits_set(quotient, drop - 1);
    u128 sig = quotient >> drop;
    if (round_up(r, negative, cut, bit_at(sig, 0))) sig += 1;
    const WordFormat<Bits> wf(f);
    bits = round_bits(wf, r, negative, sig, k + drop + static_cast<long>(wf.m)) |
           wf.signed_zero(negative);
    return true;
}

/// from_number of the proper fraction q on words, when its numerator and
/// denominator fit two words each, f has a word path and the first rounding
/// keeps at most 126 bits: the packed pattern, in `bits`. False otherwise.
bool fraction_to_pattern(const QNumber& q, format f, RoundingContext& r, u128& bits) {
    std::uint64_t num[2], den[2];
    if (word_path(f) == WordPath::none || !BVNumber::fraction_to_words(q, num, den)) return false;
    const u128 n = u128{num[1]} << 64 | num[0], d = u128{den[1]} << 64 | den[0];
    const format wide = first_rounding_format(static_cast<unsigned long>(bit_length(n)),
                                              static_cast<unsigned long>(bit_length(d)), f);
    if (wide.mantissa_width > 125) return false;
    const bool negative = q.is_negative();
    if (!one_word_format(f)) return fraction_to_bits(f, wide, r, negative, n, d, bits);
    std::uint64_t word;
    if (!fraction_to_bits(f, wide, r, negative, n, d, word)) return false;
    bits = word;
    return true;
}

} // namespace

IEEEFloat IEEEFloat::from_number(const QNumber& q, format f, rounding_mode mode) {
    RoundingContext r = RoundingContext::of_mode(mode);
    IEEEFloat result = Access::from_number(q, f, mode, r);
    raise(r.flags);
    return result;
}

IEEEFloat Access::from_number(const QNumber& q, format f, rounding_mode mode, RoundingContext& r) {
    constexpr IEEEFloat::Repr REPR_GENERIC = IEEEFloat::REPR_GENERIC;
    check_widths(f);
    if (q.is_integer()) {
        // The integer N is N * 2^(m - m): significand N, exponent m. Beyond a
        // word, its factor of two goes into the exponent, so that an integer
        // of thousands of bits, mostly trailing zeros, is rounded as its short
        // odd part.
        IEEEFloat result(f, REPR_GENERIC, mode);
        TempNumProvider tmp;
        long word;
        unsigned long twos = 0;
        if (BVNumber::to_long(q, &word)) {
            tmp[1] = QNumber(word);
        } else {
            twos = BVNumber::odd_numerator(q, &tmp[1]);
            if (q.is_negative()) tmp[1].self_neg();
        }
        tmp[0] = QNumber(static_cast<long>(f.mantissa_width + twos));
        round_and_pack_float(tmp, f, r, false, tmp[0], tmp[1], number(result.value));
        settle(result.value);
        result.self_specialize_repr(best_repr(f));
        return result;
    }

    // A proper fraction N/D. N and D each convert exactly into a format wide
    // enough for them, and the quotient is correctly rounded in the wider of
    // the two formats and then rounded again into f. This double rounding is
    // part of the contract: from_number(8/3, (4, 3)) is 2.5, not the nearer
    // 2.75. Both roundings are computed from one integer division.
    //
    // Both roundings on words when N and D fit them: no QNumber of the wide
    // format, nor copies of N and D, are built.
    if (u128 bits; fraction_to_pattern(q, f, r, bits)) {
        IEEEFloat result(f, REPR_GENERIC, mode);
        write_packed(bits, result.value);
        result.self_specialize_repr(best_repr(f));
        return result;
    }
    const bool negative = q.is_negative();
    TempNumProvider tmp;
    // Factors of two in N or D only scale the quotient. Dividing the odd
    // parts (one of N and D is odd already) at a resolution moved by the
    // same power keeps a value like 3 / 2^16000 from costing a division of
    // two numbers of thousands of bits. The formats below still follow the
    // full bit lengths.
    const unsigned long twos_n = BVNumber::odd_numerator(q, &tmp[2]);
    const unsigned long twos_d = BVNumber::odd_denominator(q, &tmp[3]);
    const long twos = static_cast<long>(twos_n) - static_cast<long>(twos_d);
    const unsigned long n = bit_length(tmp[2]) + twos_n, d = bit_length(tmp[3]) + twos_d;
    const format wide = first_rounding_format(n, d, f);
    const unsigned long m = f.mantissa_width, wide_m = wide.mantissa_width;
    // The quotient's leading bit has the weight 2^lead or 2^(lead + 1).
    const long lead = static_cast<long>(n) - static_cast<long>(d) - 1;
    bool low_bits_dropped;

    // When the first rounding lies far below the second, the quotient is
    // needed only to f's precision and a few bits more: unless it lies
    // within a unit of the first rounding of a multiple of its last bit, the
    // first rounding moves it no farther than a sticky bit below that last
    // bit would, and every decision of the second rounding falls on
    // multiples of that bit. A wide numerator or denominator (thousands of
    // bits for values far outside f's range) then costs a short division
    // instead of one as wide as they are.
    constexpr unsigned long min_gap = 10;
    if (wide_m >= m + min_gap && wide.exponent_width <= 62) {
        const long k = lead - static_cast<long>(m) - 1; // half f's unit or less
        const bool inexact = quotient_at(tmp, k - twos, low_bits_dropped);
        const unsigned long f_bits = bit_length(tmp[1]);
        // The first rounding's unit, 2^(lead_exact - wide_m), is 2^-j of 2^k.
        const unsigned long j = wide_m + 1 - f_bits;
        const long wide_min_exponent = 2 - (long{1} << (wide.exponent_width - 1));
        const bool normal_in_wide = static_cast<long>(f_bits) - 1 + k >= wide_min_exponent;
        if (normal_in_wide && j >= 2 &&
            !(inexact && remainder_near_an_end(tmp, j, low_bits_dropped))) {
            IEEEFloat result(f, REPR_GENERIC, mode);
            quotient_as_exact_result(tmp, k, inexact, m);
            round_and_pack_float(tmp, f, r, negative, tmp[0], tmp[1], result.value.packed);
            settle(result.value);
            result.self_specialize_repr(best_repr(f));
            return result;
        }
    }

    // Otherwise the first rounding is made explicitly, from the quotient to
    // half the unit of the wide format or less.
    const long k = lead - static_cast<long>(wide_m) - 1;
    const bool inexact = quotient_at(tmp, k - twos, low_bits_dropped);
    IEEEFloat result(wide, REPR_GENERIC, mode);
    quotient_as_exact_result(tmp, k, inexact, wide_m);
    round_and_pack_float(tmp, wide, r, negative, tmp[0], tmp[1], result.value.packed);
    settle(result.value);
    convert(result, f, r);
    return result;
}

IEEEFloat IEEEFloat::from_rational(const QNumber& q, format f, rounding_mode mode) {
    RoundingContext r = RoundingContext::of_mode(mode);
    if (q.is_integer()) { // from_number rounds integers once already
        IEEEFloat result = Access::from_number(q, f, mode, r);
        raise(r.flags);
        return result;
    }
    Access::check_widths(f);
    // The quotient N / D to m + 2 bits or more and a sticky bit below them
    // decides every direction, and the rounding core places it in f's
    // exponent range, subnormals included. One division of the odd parts at
    // that resolution, whatever the sizes of N and D.
    TempNumProvider tmp;
    const unsigned long twos_n = BVNumber::odd_numerator(q, &tmp[2]);
    const unsigned long twos_d = BVNumber::odd_denominator(q, &tmp[3]);
    const long twos = static_cast<long>(twos_n) - static_cast<long>(twos_d);
    const long lead =
        static_cast<long>(bit_length(tmp[2])) - static_cast<long>(bit_length(tmp[3])) + twos - 1;
    const long k = lead - static_cast<long>(f.mantissa_width) - 1;
    bool low_bits_dropped;
    const bool inexact = quotient_at(tmp, k - twos, low_bits_dropped);
    IEEEFloat result(f, REPR_GENERIC, mode);
    quotient_as_exact_result(tmp, k, inexact, f.mantissa_width);
    round_and_pack_float(tmp, f, r, q.is_negative(), tmp[0], tmp[1], result.value.packed);
    settle(result.value);
    result.self_specialize_repr(best_repr(f));
    raise(r.flags);
    return result;
}

void IEEEFloat::set_format(format new_fmt) {
    RoundingContext r = RoundingContext::of_mode(get_rounding_mode());
    Access::convert(*this, new_fmt, r);
}

IEEEFloat convert(const IEEEFloat& x, IEEEFloat::format f, rounding direction) {
    IEEEFloat result(x);
    RoundingContext r(direction);
    Access::convert(result, f, r);
    return result;
}

void Access::convert(IEEEFloat& x, format new_fmt, RoundingContext& r) {
    if (new_fmt == x.fmt) return;
    check_widths(new_fmt);
    const IEEEFloat::Repr repr = x.get_repr();
    auto& value = x.value;
    if (repr == IEEEFloat::REPR_FLOAT32 && new_fmt == binary64_format) {
        value.bits64 = settle_float64(swflt::float32_to_float64(value.bits32));
        x.fmt = new_fmt;
        x.set_repr(IEEEFloat::REPR_FLOAT64);
        return;
    }
    if (repr == IEEEFloat::REPR_FLOAT64 && new_fmt == binary32_format) {
        const std::uint32_t word =
            settle_float32(swflt::float64_to_float32(value.bits64, swflt_rounding_code(r)));
        value.bits64 = 0;
        value.bits32 = word;
        x.fmt = new_fmt;
        x.set_repr(IEEEFloat::REPR_FLOAT32);
        return;
    }
    if (repr != IEEEFloat::REPR_GENERIC) {
        // Converted on a generic copy, so that a rounding error leaves this
        // value in its word, as every failed operation leaves its target.
        IEEEFloat generic(x);
        generic.self_specialize_repr(IEEEFloat::REPR_GENERIC);
        convert(generic, new_fmt, r);
        x = std::move(generic);
        return;
    }

    const format old_fmt = x.fmt;
    if (!try_convert_words(old_fmt, new_fmt, r, value)) convert_exact(old_fmt, new_fmt, r, value);
    x.fmt = new_fmt;
    x.self_specialize_repr(best_repr(new_fmt));
    raise(r.flags);
}

} // namespace tarn
