// Checks of QNumber and BVNumber against GMP's rationals and integers, shared by
// the fuzz target (on the fuzzer's bytes) and by test_numbers (on a seeded
// RandomSource). The bytes build operands in every way a caller can (machine
// words at their limits, GMP integers and rationals, big forms holding values a
// word could hold), then apply one operation. Every result must equal GMP's, be
// in lowest terms with a positive denominator, and take the form the headers
// promise; division by zero must throw std::domain_error and leave the target
// as it was. `check_numbers` returns an empty string when all is well, else a
// description of the first failed check.
#pragma once

#include "tarn/numbers/bvnumber.h"
#include "tarn/numbers/qnumber.h"
#include "tests/random_source.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

namespace tarn_testing::numbers {

using tarn::BVNumber;
using tarn::QNumber;

/// A QNumber, the GMP rational it must equal, and whether it must be big.
struct Exact {
    QNumber q;
    mpq_class want;
    bool big;
};

inline bool word(const mpz_class& z) {
    return z.fits_slong_p() && z != LONG_MIN;
}

/// x op= y, op 0-3 being + - * /, for QNumber and GMP's rationals alike.
template <class T, class U>
void apply(int op, T& x, const U& y) {
    op == 0 ? x += y : op == 1 ? x -= y : op == 2 ? x *= y : x /= y;
}

/// x op y by the free operators, y a QNumber or a word.
template <class T, class U>
QNumber combine(int op, T&& x, const U& y) {
    if (op == 0) return std::forward<T>(x) + y;
    if (op == 1) return std::forward<T>(x) - y;
    return op == 2 ? std::forward<T>(x) * y : x / y;
}

/// `value` in the big form whatever its size: a huge value minus itself stays
/// big, and so does the sum.
inline QNumber big_form_of(const mpq_class& value) {
    const QNumber huge(mpz_class(mpz_class(1) << 100));
    return huge - huge + QNumber(value);
}

/// Keeps the first failed check.
struct Verdict {
    std::string text;
    std::string detail; // the operation and its extra operand

    void expect(bool ok, const std::string& what) {
        if (!ok && text.empty()) text = what;
    }

    /// got is want in lowest terms with a positive denominator, a small
    /// numerator is never -2^63, and the form is `big` (0 or 1) unless -1.
    void value(const QNumber& got, const mpq_class& want, const char* what, int big = -1) {
        const mpq_class held = got.to_mpq();
        const bool ok = held == want && sgn(held.get_den()) > 0 &&
                        gcd(held.get_num(), held.get_den()) == 1 &&
                        (got.is_big() || held.get_num() != LONG_MIN) &&
                        got.is_zero() == (want == 0) && got.is_negative() == (want < 0) &&
                        got.sign() == sgn(want) && got.is_integer() == (want.get_den() == 1);
        if (!ok) expect(false, std::string(what) + ": got " + held.get_str());
        if (big >= 0 && got.is_big() != (big == 1)) expect(false, std::string(what) + ": form");
    }

    /// r = x op y, with the form rules that hold whatever the values: parts
    /// below 2^31 keep every intermediate of the word algorithms in range, so
    /// they give a small result; a big operand gives a big result, except a
    /// big non-integer times 0.
    void arithmetic(const QNumber& r, int op, const Exact& x, const Exact& y, const char* what) {
        mpq_class want = x.want;
        apply(op, want, y.want);
        const auto narrow = [](const Exact& e) {
            return !e.big && abs(e.want.get_num()) <= INT_MAX && e.want.get_den() <= INT_MAX;
        };
        const bool big = (x.big || y.big) && !(op == 2 && y.want == 0 && !x.q.is_integer());
        value(r, want, what, narrow(x) && narrow(y) ? 0 : big ? 1 : -1);
    }

    /// op on a copy of x must throw std::domain_error and keep its value.
    template <class Op>
    void division_by_zero(const Exact& x, const char* what, Op op) {
        QNumber q = x.q;
        try {
            op(q);
            expect(false, std::string(what) + ": no std::domain_error");
        } catch (const std::domain_error&) {
            value(q, x.want, what);
        }
    }

    /// What reads x without changing it: parts, floor, negation, reciprocal,
    /// text, and comparisons with y and with n (equal values compare equal
    /// whatever their forms).
    void queries(const Exact& x, const Exact& y, long n) {
        const mpz_class num = x.want.get_num(), den = x.want.get_den();
        // From a big value a part comes back small when it fits 32 bits.
        value(x.q.get_num(), mpq_class(num), "get_num", x.big && !num.fits_sint_p());
        value(x.q.get_den(), mpq_class(den), "get_den", x.big && !den.fits_sint_p());
        const mpz_class floor = num / den - (num % den < 0 ? 1 : 0); // den > 0
        value(x.q.floor(), mpq_class(floor), "floor", x.big);
        expect(x.q.to_mpz() == floor, "to_mpz");
        QNumber negated = x.q;
        negated.self_neg();
        value(negated, -x.want, "self_neg", x.big);
        value(-x.q, -x.want, "unary -", x.big);
        if (x.want != 0) value(x.q.inv(), 1 / x.want, "inv", x.big);
        if (x.want == 0) division_by_zero(x, "inv 0", [](QNumber& q) { q = q.inv(); });
        std::ostringstream text;
        text << x.q;
        expect(text.str() == x.want.get_str(), "<< wrote " + text.str());
        const auto agree = [](const QNumber& a, const QNumber& b, int c) {
            return (a == b) == (c == 0) && (a != b) == (c != 0) && (a < b) == (c < 0) &&
                   (a <= b) == (c <= 0) && (a > b) == (c > 0) && (a >= b) == (c >= 0) &&
                   tarn::cmp(a, b) == c;
        };
        const int c = cmp(x.want, y.want);
        const QNumber same = big_form_of(x.want);
        // Half a unit off: an integer against a fraction, both big, by the floor's side.
        const QNumber above = big_form_of(x.want + mpq_class(1, 2));
        expect(agree(x.q, y.q, (c > 0) - (c < 0)) && agree(x.q, same, 0) && agree(same, x.q, 0) &&
                   agree(same, above, -1) && agree(above, same, 1) && (x.q < n) == (x.want < n),
               "comparison");
    }

    /// What reads the non-negative integer x at bit i without changing it.
    void bit_queries(const Exact& x, unsigned long i) {
        mpz_srcptr const z = x.want.get_num_mpz_t();
        const mp_bitcnt_t one = mpz_scan1(z, i);
        const unsigned long length = sgn(x.want) == 0 ? 0 : mpz_sizeinbase(z, 2);
        expect(BVNumber::test_bit(x.q, i) == (mpz_tstbit(z, i) == 1), "test_bit");
        expect(BVNumber::scan_bit_1(x.q, i) == (one == ~mp_bitcnt_t{0} ? BVNumber::no_bit : one),
               "scan_bit_1");
        expect(BVNumber::scan_bit_0(x.q, i) == mpz_scan0(z, i), "scan_bit_0");
        expect(BVNumber::count_leading_zeros(x.q, i) == (length > i ? 0 : i - length),
               "count_leading_zeros");
        long w = 12345;
        const bool fits = BVNumber::to_long(x.q, &w);
        expect(fits == (mpz_fits_slong_p(z) != 0) && w == (fits ? mpz_get_si(z) : 12345),
               "to_long");
    }
};

/// A word often at, or next to, one of the limits the small form must handle.
template <class Source>
long consume_word(Source& in) {
    static const long edges[] = {
        0,       1,       -1,       2,           LONG_MAX,     LONG_MIN, LONG_MIN + 1, LONG_MAX - 1,
        INT_MAX, INT_MIN, 1L << 32, 3037000499L, -3037000499L, 3L << 61, 1L << 62};
    constexpr unsigned count = sizeof edges / sizeof edges[0];
    static const long offsets[] = {0, 1, -1, 2, -2};
    const unsigned pick = in.template ConsumeIntegral<unsigned char>();
    if (pick >= 5 * count) return in.template ConsumeIntegral<long>();
    // Wraps past the ends of the word, to the other limit.
    return static_cast<long>(static_cast<unsigned long>(edges[pick % count]) +
                             static_cast<unsigned long>(offsets[pick / count]));
}

/// A signed integer of up to `max_bits` bits.
template <class Source>
mpz_class consume_integer(Source& in, unsigned long max_bits) {
    const int sign = in.ConsumeBool() ? -1 : 1;
    return sign * consume_bits(in, in.template ConsumeIntegralInRange<unsigned long>(0, max_bits));
}

template <class Source>
Exact consume_operand(Source& in) {
    const int kind = in.ConsumeIntegralInRange(0, 5);
    if (kind < 2) {
        const long n = consume_word(in);
        if (kind == 0) return {QNumber(n), mpq_class(n), n == LONG_MIN};
        const long read = consume_word(in), d = read == 0 ? 1 : read;
        return {QNumber(n, d), mpq_class(n) / d, n == LONG_MIN || d == LONG_MIN};
    }
    const unsigned long bits = kind == 2 ? 70 : kind == 5 ? 64 : 200;
    const mpz_class n = consume_integer(in, bits), read = kind == 3 ? 0 : consume_integer(in, bits);
    if (kind == 3) return {QNumber(n), mpq_class(n), !word(n)};
    const mpz_class d = read == 0 ? mpz_class(1) : read;
    const mpq_class raw(n, d), want = mpq_class(n) / d;
    if (kind == 2) return {QNumber(n, d), want, !n.fits_sint_p() || !d.fits_sint_p()};
    // The constructor must bring a non-canonical rational to lowest terms itself.
    if (kind == 4) return {QNumber(raw), want, !word(n) || !word(d)};
    return {big_form_of(want), want, true};
}

template <class Source>
void rational_operation(Source& in, Verdict& v, Exact a, const Exact& b) {
    const long n = consume_word(in);
    const Exact c{QNumber(n), mpq_class(n), n == LONG_MIN}; // -2^63 counts as a big operand
    const int op = in.ConsumeIntegralInRange(0, 21);
    v.detail = "operation " + std::to_string(op) + ", n = " + std::to_string(n);
    v.queries(a, b, n);
    v.queries(b, a, n);
    if (b.want == 0 && (op == 3 || op == 10)) {
        v.division_by_zero(a, "/ 0", [&](QNumber& q) { op == 3 ? q /= b.q : q = q / b.q; });
        return v.division_by_zero(b, "long / 0", [&](QNumber& q) { q = n / q; });
    }
    if (op <= 6) {
        QNumber r = a.q;
        op <= 3 ? apply(op, r, b.q) : apply(op - 4, r, n);
        return v.arithmetic(r, op <= 3 ? op : op - 4, a, op <= 3 ? b : c, "compound");
    }
    if (op <= 10) {
        v.arithmetic(combine(op - 7, a.q, b.q), op - 7, a, b, "free");
        v.arithmetic(combine(op - 7, QNumber(a.q), b.q), op - 7, a, b, "free, temporary");
        if (op < 10) return v.arithmetic(combine(op - 7, a.q, n), op - 7, a, c, "free, long");
        return v.arithmetic(n / b.q, 3, c, b, "long / free");
    }
    if (op == 14) {
        // divmod reads only the numerators. Two small operands give results in
        // place (a big target stays big); otherwise both become big.
        QNumber quotient(n), remainder;
        if (b.want == 0)
            return v.division_by_zero(a, "divmod by 0",
                                      [&](QNumber& q) { q.divmod(b.q, quotient, remainder); });
        a.q.divmod(b.q, quotient, remainder);
        mpz_class want_q, want_r;
        mpz_fdiv_qr(want_q.get_mpz_t(), want_r.get_mpz_t(), a.want.get_num_mpz_t(),
                    b.want.get_num_mpz_t());
        v.value(quotient, mpq_class(want_q), "divmod quotient", a.big || b.big || c.big);
        v.value(remainder, mpq_class(want_r), "divmod remainder", a.big || b.big);
        // The quotient may be the dividend or the divisor.
        QNumber dividend = a.q, divisor = b.q;
        dividend.divmod(b.q, dividend, remainder);
        a.q.divmod(divisor, divisor, remainder);
        v.value(dividend, mpq_class(want_q), "divmod into the dividend");
        return v.value(divisor, mpq_class(want_q), "divmod into the divisor");
    }
    if (op == 18) { // x op= x reads the operand before changing this
        for (int k = 0; k < (a.want == 0 ? 3 : 4); ++k) {
            QNumber r = a.q;
            apply(k, r, static_cast<const QNumber&>(r));
            v.arithmetic(r, k, a, a, "x op= x");
        }
    }
    if (op < 19) return;
    // Copies and moves between every pair of forms. A big target stays big; a
    // big source moved by assignment takes the target's value in exchange.
    QNumber copy(a.q), target = b.q, move_target = b.q;
    target = a.q;
    v.value(copy, a.want, "copy", a.big);
    v.value(target, a.want, "copy assignment", a.big || b.big);
    QNumber moved(std::move(copy));
    v.value(moved, a.want, "move");
    v.value(copy, 0, "moved-from");
    move_target = std::move(moved);
    v.value(move_target, a.want, "move assignment");
    v.value(moved, a.big ? b.want : a.want, "moved-from by assignment");
    move_target = static_cast<const QNumber&>(move_target);
    v.value(move_target, a.want, "self assignment");
}

/// A non-negative integer operand of the bit-vector operations: small, big, or
/// big holding a word-sized value. Lengths next to the end of a word come up
/// often.
template <class Source>
Exact consume_natural(Source& in) {
    unsigned long bits = in.template ConsumeIntegralInRange<unsigned long>(0, 200);
    if (bits > 180) bits = 60 + bits % 6;
    const mpz_class z = consume_bits(in, bits);
    if (in.ConsumeBool()) return {big_form_of(mpq_class(z)), mpq_class(z), true};
    return {QNumber(z), mpq_class(z), !word(z)};
}

/// A big output stays big throughout; otherwise each operation documents its form.
template <class Source>
void bit_operation(Source& in, Verdict& v, Exact a, const Exact& b) {
    const mpz_class x = a.want.get_num();
    unsigned long i = in.template ConsumeIntegralInRange<unsigned long>(0, 300);
    // Often an index next to the end of a word, or one that shifts a's top bit
    // next to it.
    const unsigned long length = std::min<unsigned long>(mpz_sizeinbase(x.get_mpz_t(), 2), 64);
    if (i > 200) i = std::max((i % 2 ? 64 : 64 - length) + i / 2 % 4, 2UL) - 2;
    const int op = in.ConsumeIntegralInRange(0, 10);
    v.detail = "operation " + std::to_string(op) + ", i = " + std::to_string(i);
    v.bit_queries(a, i);
    v.bit_queries(b, i);
    QNumber out = b.q;
    if (op == 0) {
        const bool bit = in.ConsumeBool();
        const mpz_class mask = mpz_class(1) << i, want = bit ? mpz_class(x | mask) : x & ~mask;
        BVNumber::set_bit(a.q, i, bit);
        return v.value(a.q, mpq_class(want), "set_bit", a.big || (bit && i >= 63));
    }
    if (op == 4) {
        BVNumber::trim(a.q, i);
        return v.value(a.q, mpq_class(x & ((mpz_class(1) << i) - 1)), "trim", a.big);
    }
    if (op == 5) {
        BVNumber::pow2(i, &out);
        return v.value(out, mpq_class(mpz_class(1) << i), "pow2", b.big || i > 62);
    }
    if (op == 6 || op == 7) {
        // A left shift is small whenever its result fits a word; a right
        // shift keeps the form of its operand. The output may be the operand.
        const mpz_class want = op == 6 ? mpz_class(x << i) : mpz_class(x >> i);
        const bool big = op == 6 && i > 0 ? !word(want) : a.big;
        const auto shift = op == 6 ? BVNumber::bit_left_shift : BVNumber::bit_right_shift;
        QNumber fresh;
        const std::pair<QNumber*, bool> outputs[] = {{&fresh, false}, {&out, b.big}, {&a.q, a.big}};
        for (const auto& [output, was_big] : outputs) {
            shift(a.q, i, output);
            v.value(*output, mpq_class(want), "shift", was_big || big);
        }
        return;
    }
    if (op == 9) { // the output may be an operand
        QNumber* const target = in.ConsumeBool() ? &a.q : &out;
        BVNumber::bit_op(a.q, b.q, BVNumber::bit_and_l, mpz_and, target);
        return v.value(*target, mpq_class(mpz_class(x & b.want.get_num())), "bit_op and",
                       a.big || b.big);
    }
    if (op != 10) return;
    std::uint64_t low = 7, high = 9;
    const bool fits = BVNumber::to_words(a.q, &low, &high);
    const mpz_class words = (mpz_class(high) << 64) + low;
    v.expect(fits == (mpz_sizeinbase(x.get_mpz_t(), 2) <= 128) &&
                 (fits ? words == x : words == 7 + (mpz_class(9) << 64)),
             "to_words");
    BVNumber::assign_words(low, high, &out);
    v.value(out, mpq_class(words), "assign_words", b.big || !word(words));
}

/// One case read from `in`: two operands, then one rational or bit-vector
/// operation on them.
template <class Source>
std::string check_numbers(Source& in) {
    Verdict v;
    const bool rational = in.ConsumeBool();
    const Exact a = rational ? consume_operand(in) : consume_natural(in);
    const Exact b = rational ? consume_operand(in) : consume_natural(in);
    v.value(a.q, a.want, "construction", a.big);
    v.value(b.q, b.want, "construction", b.big);
    rational ? rational_operation(in, v, a, b) : bit_operation(in, v, a, b);
    if (v.text.empty()) return v.text;
    const auto show = [](const Exact& e) {
        return e.want.get_str() + (e.q.is_small() ? " (small)" : " (big)");
    };
    return v.text + " (" + v.detail + ", a = " + show(a) + ", b = " + show(b) + ")";
}

} // namespace tarn_testing::numbers
