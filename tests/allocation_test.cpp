// The small form's promise: numbers that fit it never touch the heap, and
// neither do binary32 and binary64 values held in their words, the generic
// codec on such numbers, nor generic values of formats up to 64 bits. This binary replaces the
// global allocation functions and GMP's allocator with counting versions (allocation_counter.h).
#include "tarn/ieeefloat/internal/codec.h"
#include "tarn/ieeefloat/internal/rounding.h"
#include "tarn/numbers/bvnumber.h"
#include "tests/allocation_counter.h"

#include <array>
#include <gtest/gtest.h>

namespace tarn {
namespace {

using Format = IEEEFloat::format;
using Mode = IEEEFloat::rounding_mode;
namespace detail = ieeefloat_detail;

long small_numbers() {
    const QNumber a(3, 7), b(-5, 11), c(1L << 20), d(-(1L << 31) + 3);
    QNumber x = a, q, r, bits(0x5a5a5a5aL);
    x += b, x -= c, x *= d, x /= b, x += 5, x -= 7, x *= -3, x = x.inv(), x.self_neg();
    QNumber y = (3 / ((a + b - c) * d)).floor();
    c.divmod(d, q, r), d.divmod(QNumber(2), q, r);
    BVNumber::set_bit(bits, 62, true), BVNumber::set_bit(bits, 70, false), BVNumber::trim(bits, 64);
    BVNumber::bit_left_shift(QNumber(3), 61, &r), BVNumber::bit_right_shift(bits, 64, &q);
    BVNumber::bit_op(bits, r, BVNumber::bit_and_l, mpz_and, &bits), BVNumber::pow2(62, &q);
    long word = 0;
    return cmp(a, b) + (a < 5L) + (x != -y) + x.get_num().is_small() + x.get_den().is_small() +
           BVNumber::test_bit(bits, 64) + static_cast<long>(BVNumber::scan_bit_1(bits, 7)) +
           static_cast<long>(BVNumber::scan_bit_0(bits, 1)) + BVNumber::to_long(bits, &word) +
           static_cast<long>(BVNumber::count_leading_zeros(bits, 80)) + q.is_small() + word % 7;
}

// Not get_bits: a binary64 pattern with the sign set is beyond the small form.
long word_floats() {
    long sink = 0;
    for (auto [f, other] : {std::pair<Format, Format>{{8, 23}, {11, 52}}, {{11, 52}, {8, 23}}}) {
        const IEEEFloat a = IEEEFloat::from_number(QNumber(10, 3), f, IEEEFloat::ROUND_TOWARD_ZERO);
        IEEEFloat x = a;
        x += a, x *= a, x /= a, x -= IEEEFloat::max_value(f);
        x.sqrt(), x.self_neg(), x.set_sign(false), x.next_representable(true), x.packed_next(false);
        IEEEFloat y(std::move(x));
        y.set_format(other), y.set_format(f);
        x = y;
        sink += (x < a) + (x == y) + ieee_cmp(x, a) + x.is_normal() + x.is_nan() + x.get_sign();
    }
    return sink;
}

// The generic path's rounding and codec, on numbers that all fit the small form.
long generic_codec() {
    QNumber out, exponent, significand, scratch;
    bool sign = false, inf = false, nan = false, zero = false;
    for (Format f : {Format{3, 2}, Format{5, 10}, Format{8, 23}, Format{10, 52}}) {
        detail::TempNumProvider tmp;
        for (int mode = 0; mode < 4; ++mode)
            for (long s : {0L, 1L, -7L, 0x5555555L, 0x7fffffffffffffffL})
                for (long x : {-3000L, -40L, 0L, 5L, 60L, 3000L}) {
                    exponent = QNumber(x), significand = QNumber(s);
                    detail::RoundingContext r(static_cast<tarn::rounding>(mode));
                    detail::round_and_pack_float(tmp, f, r, s == 0, exponent, significand, out);
                    detail::unpack_components(f, out, sign, exponent, significand, scratch);
                    detail::get_flags(f, out, inf, nan, zero);
                    detail::pack_float(f, sign, exponent, significand, out);
                    detail::get_unbiased(f, f.bias(), exponent, significand);
                }
    }
    IEEEFloat h = IEEEFloat::from_bits(QNumber(0x3C00L), {5, 10});
    h.self_neg(), h.self_nan(), h.self_inf(true), h.self_zero(true);
    return sign + zero + h.is_zero() + IEEEFloat::from_bits(QNumber(0x7FC00000L), {8, 23}).is_nan();
}

// Generic values of formats up to 64 bits, binary64's negative patterns (bit 63
// set) among them, through every kind of operation. More of them are live at
// once than the per-thread caches of freed numbers keep, so a value holding
// anything on the heap would show in the count.
long generic_floats() {
    long sink = 0;
    for (Format f : {Format{5, 10}, Format{4, 3}, Format{8, 7}, Format{8, 23}, Format{11, 52}}) {
        const Format other = f.mantissa_width == 10 ? Format{8, 23} : Format{5, 10};
        std::array<IEEEFloat, 40> v;
        for (int i = 0; i < 40; ++i) {
            v[i] = IEEEFloat::from_double((i - 19) * 0.6875, f, IEEEFloat::ROUND_TOWARD_ZERO);
            v[i].self_specialize_repr(IEEEFloat::REPR_GENERIC);
        }
        for (int i = 1; i < 40; ++i) {
            IEEEFloat& x = v[i];
            const IEEEFloat& y = v[i - 1];
            const auto r = static_cast<rounding>(i % 4);
            x = (x + y) * y - y / x;
            x = fma(x, y, v[0]), x = fma(add(x, y, r), sub(x, y, r), mul(x, div(x, y, r), r), r);
            x += y, x -= y, x *= y, x /= y, x.sqrt(), x.self_neg(), x.next_representable(true);
            x = round_to_integral(sqrt(abs(x), r), r) - from_int64(i - 19, f, r);
            IEEEFloat moved(std::move(x));
            x = convert(moved, other, r), x.set_format(f),
            x.self_specialize_repr(IEEEFloat::REPR_GENERIC);
            sink += (x < y) + (x == y) + ieee_cmp(x, y) + x.is_normal() + to_int64(x, r) % 8 +
                    abs(x).get_bits().is_small() +
                    IEEEFloat(f, IEEEFloat::REPR_GENERIC, x.get_rounding_mode()).is_zero();
        }
    }
    return sink;
}

// A thousand bits is beyond what the per-thread cache of freed integers keeps,
// so the heap is reached whatever earlier tests left behind: the count works.
// Each workload runs once outside the count first, for the statics that fill
// on first use.
TEST(NoAllocation, InAHundredRoundsOfEachSmallForm) {
    QNumber big;
    EXPECT_GT(tarn_testing::allocations_in([&] { BVNumber::pow2(1000, &big); }), 0);
    const std::pair<const char*, long (*)()> workloads[] = {{"QNumbers", small_numbers},
                                                            {"WordFloats", word_floats},
                                                            {"GenericCodec", generic_codec},
                                                            {"GenericFloats", generic_floats}};
    for (const auto& [name, run] : workloads) {
        long sink = run();
        EXPECT_EQ(tarn_testing::allocations_in([&, run = run] {
                      for (int i = 0; i < 100; ++i)
                          sink += run();
                  }),
                  0)
            << name;
        EXPECT_NE(sink, 0) << name;
    }
}

} // namespace
} // namespace tarn
