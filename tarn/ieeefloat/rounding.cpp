// The rounding core on QNumbers: results and formats too wide for its word path.

#include "tarn/ieeefloat/internal/rounding.h"

namespace tarn::ieeefloat_detail {

namespace {

/// Where a result lands in its format: whether it overflows, whether it is
/// normal (else subnormal or smaller), its biased exponent before rounding,
/// and how many bits its significand moves right (left when negative) to be
/// cut to the format's precision.
struct Placement {
    bool overflow, normal;
    long shift;
};

/// Places a result of `delta` surplus significand bits and exponent X,
/// computing the biased exponent X + delta + bias into `biased`. Exponents of
/// word-sized formats are placed in registers; the rest with QNumbers in
/// `scratch`.
Placement place(format f, long delta, const QNumber& exponent, QNumber& biased, QNumber& scratch) {
    long x;
    if (f.exponent_width >= 1 && f.exponent_width <= 62 && BVNumber::to_long(exponent, &x) &&
        x > -word_exponent_limit && x < word_exponent_limit) {
        const long bias = (long{1} << (f.exponent_width - 1)) - 1;
        const long biased_word = x + delta + bias;
        biased = QNumber(biased_word);
        const bool normal = biased_word > 0;
        return {biased_word >= (long{1} << f.exponent_width) - 1, normal,
                normal ? delta : 1 - bias - x};
    }
    const QNumber bias = f.bias();
    biased = exponent;
    biased += delta;
    biased += bias;
    scratch = f.max_exponent();
    Placement p{!(biased < scratch), QNumber(0L) < biased, delta};
    if (!p.normal) {
        // Subnormal: bring the exponent to the minimum 1 - bias.
        scratch = QNumber(1L);
        scratch -= bias;
        scratch -= exponent;
        if (!BVNumber::to_long(scratch, &p.shift)) throw_error(precision_limit_message);
    }
    return p;
}

} // namespace

void round_and_pack_exact(TempNumProvider& tmp, format f, RoundingContext& r, bool negative,
                          QNumber& exponent, QNumber& significand, QNumber& out) {
    const unsigned long m = f.mantissa_width;
    if (significand.is_negative()) {
        significand.self_neg();
        negative = !negative;
    }
    if (significand.is_zero()) {
        do_make_zero(f, negative, out);
        return;
    }
    QNumber& biased = tmp[5];
    const long delta = static_cast<long>(bit_length(significand)) - static_cast<long>(m + 1);
    Placement p = place(f, delta, exponent, biased, tmp[6]);

    Discarded d;
    if (p.shift < 0) {
        BVNumber::bit_left_shift(significand, static_cast<unsigned long>(-p.shift), &significand);
    } else if (p.shift > 0) {
        const unsigned long round_index = static_cast<unsigned long>(p.shift - 1);
        d.round_bit = BVNumber::test_bit(significand, round_index);
        d.fine_round_bit = round_index > 0 && BVNumber::test_bit(significand, round_index - 1);
        d.sticky = BVNumber::scan_bit_1(significand, 0) < round_index;
        BVNumber::bit_right_shift(significand, static_cast<unsigned long>(p.shift), &significand);
    }

    long kept, biased_word = 0;
    if (word_rounding_format(f) && BVNumber::to_long(significand, &kept) &&
        (p.overflow || !p.normal || BVNumber::to_long(biased, &biased_word))) {
        finish_in_words(f, r, negative, static_cast<std::uint64_t>(kept), d, biased_word,
                        p.overflow, out);
        return;
    }

    if (round_up(r, negative, d, BVNumber::test_bit(significand, 0))) {
        significand += 1L;
        if (BVNumber::test_bit(significand, m + 1)) { // up to the next power of two
            biased += 1L;
            p.overflow = p.overflow || !(biased < f.max_exponent());
            BVNumber::bit_right_shift(significand, 1, &significand);
        }
    }

    if (p.overflow) {
        do_make_inf(f, false, out);
        if (overflow_saturates(r, negative)) out -= 1L;
        if (negative) BVNumber::set_bit(out, f.exponent_width + m, true);
    } else if (p.normal) {
        biased -= 1L; // the hidden bit of the significand carries it back
        pack_float(f, negative, biased, significand, out);
    } else {
        // Subnormal or zero; one that rounded up to 2^m carries into the
        // smallest normal.
        note_tiny(r, negative, BVNumber::test_bit(significand, m), d, f.exponent_width == 1);
        pack_float(f, negative, QNumber(0L), significand, out);
    }
}

} // namespace tarn::ieeefloat_detail
