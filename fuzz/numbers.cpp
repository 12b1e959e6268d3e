// Differential fuzzing of QNumber and BVNumber against GMP's own rationals and
// integers. The bytes build operands in every way a caller can (machine words
// at their limits, GMP integers and rationals, big forms that hold values a
// word could hold), then apply one operation; the result must equal GMP's,
// be in lowest terms, and division by zero must throw std::domain_error and
// leave the target as it was.
#include "fuzz/fuzz_support.h"
#include "tarn/numbers/bvnumber.h"
#include "tarn/numbers/qnumber.h"

#include <climits>
#include <cstdint>
#include <sstream>
#include <stdexcept>

namespace {

using fuzzing::consume_bits;

using tarn::BVNumber;
using tarn::QNumber;

/// A signed integer of up to `max_bits` bits.
mpz_class consume_integer(FuzzedDataProvider& in, unsigned long max_bits) {
    const bool negative = in.ConsumeBool();
    mpz_class z = consume_bits(in, in.ConsumeIntegralInRange<unsigned long>(0, max_bits));
    return negative ? mpz_class(-z) : z;
}

/// A word that is often at one of the limits the small form must handle.
long consume_word(FuzzedDataProvider& in) {
    static const long edges[] = {
        0,       1,       -1,       2,           LONG_MAX,    LONG_MIN, LONG_MIN + 1, LONG_MAX - 1,
        INT_MAX, INT_MIN, 1L << 32, 3037000499L, -3037000499L};
    const unsigned pick = in.ConsumeIntegral<unsigned char>();
    if (pick < sizeof edges / sizeof edges[0]) return edges[pick];
    return in.ConsumeIntegral<long>();
}

/// A QNumber and the GMP rational it must equal.
struct Operand {
    QNumber q;
    mpq_class want;
};

/// `value` held in the big form, whatever its size: a huge value minus itself
/// stays big, and adding the value keeps it big.
QNumber big_form_of(const mpq_class& value) {
    const mpz_class huge = mpz_class(1) << 100;
    QNumber q(huge);
    q -= QNumber(huge);
    q += QNumber(value);
    return q;
}

Operand consume_operand(FuzzedDataProvider& in) {
    switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0: {
        const long n = consume_word(in);
        return {QNumber(n), mpq_class(mpz_class(n))};
    }
    case 1: {
        const long n = consume_word(in);
        long d = consume_word(in);
        if (d == 0) d = 1;
        mpq_class want{mpz_class(n), mpz_class(d)};
        want.canonicalize();
        return {QNumber(n, d), want};
    }
    case 2: {
        const mpz_class n = consume_integer(in, 70), d = consume_integer(in, 70);
        if (d == 0) return {QNumber(n, mpz_class(1)), mpq_class(n)};
        mpq_class want(n, d);
        want.canonicalize();
        return {QNumber(n, d), want};
    }
    case 3: {
        const mpz_class z = consume_integer(in, 200);
        return {QNumber(z), mpq_class(z)};
    }
    case 4: {
        const mpz_class n = consume_integer(in, 200), d = consume_integer(in, 200);
        mpq_class want(n, d == 0 ? mpz_class(1) : d);
        want.canonicalize();
        // The constructor must bring a non-canonical rational to lowest terms itself.
        mpq_class raw;
        mpz_set(raw.get_num_mpz_t(), n.get_mpz_t());
        mpz_set(raw.get_den_mpz_t(), d == 0 ? mpz_class(1).get_mpz_t() : d.get_mpz_t());
        return {QNumber(raw), want};
    }
    default: {
        const mpz_class n = consume_integer(in, 64), d = consume_integer(in, 64);
        mpq_class want(n, d == 0 ? mpz_class(1) : d);
        want.canonicalize();
        return {big_form_of(want), want};
    }
    }
}

/// The value, in lowest terms, with a positive denominator, and a small form
/// whose numerator is never -2^63.
void check_value(const QNumber& got, const mpq_class& want, const char* what) {
    const mpq_class held = got.to_mpq();
    FUZZ_CHECK(held == want) << what << ": got " << held.get_str() << " want " << want.get_str();
    FUZZ_CHECK(mpz_sgn(held.get_den_mpz_t()) > 0) << what << ": denominator " << held.get_str();
    mpz_class g;
    mpz_gcd(g.get_mpz_t(), held.get_num_mpz_t(), held.get_den_mpz_t());
    FUZZ_CHECK(g == 1) << what << ": not in lowest terms: " << held.get_str();
    if (got.is_small()) {
        FUZZ_CHECK(held.get_num() != LONG_MIN) << what << ": small -2^63";
    }
    FUZZ_CHECK(got.is_zero() == (want == 0)) << what;
    FUZZ_CHECK(got.is_negative() == (want < 0)) << what;
    FUZZ_CHECK(got.sign() == sgn(want)) << what;
    FUZZ_CHECK(got.is_integer() == (want.get_den() == 1)) << what;
}

/// Runs `op`, which must throw std::domain_error, on a copy of `target` and
/// checks that the copy kept its value.
template <class Op>
void check_division_by_zero(const Operand& target, Op op, const char* what) {
    QNumber q = target.q;
    try {
        op(q);
    } catch (const std::domain_error&) {
        check_value(q, target.want, what);
        return;
    }
    FUZZ_CHECK(false) << what << ": no std::domain_error";
}

mpz_class floor_of(const mpq_class& q) {
    mpz_class r;
    mpz_fdiv_q(r.get_mpz_t(), q.get_num_mpz_t(), q.get_den_mpz_t());
    return r;
}

void rational_operation(FuzzedDataProvider& in, Operand a, const Operand& b) {
    const long n = consume_word(in);
    const bool b_zero = b.want == 0;
    switch (in.ConsumeIntegralInRange(0, 21)) {
    case 0:
        a.q += b.q;
        check_value(a.q, a.want + b.want, "+=");
        break;
    case 1:
        a.q -= b.q;
        check_value(a.q, a.want - b.want, "-=");
        break;
    case 2:
        a.q *= b.q;
        check_value(a.q, a.want * b.want, "*=");
        break;
    case 3:
        if (b_zero)
            return check_division_by_zero(
                a, [&](QNumber& q) { q /= b.q; }, "/= 0");
        a.q /= b.q;
        check_value(a.q, a.want / b.want, "/=");
        break;
    case 4:
        a.q += n;
        check_value(a.q, a.want + mpz_class(n), "+= long");
        break;
    case 5:
        a.q -= n;
        check_value(a.q, a.want - mpz_class(n), "-= long");
        break;
    case 6:
        a.q *= n;
        check_value(a.q, a.want * mpz_class(n), "*= long");
        break;
    case 7:
        check_value(a.q + b.q, a.want + b.want, "+");
        check_value(QNumber(a.q) + b.q, a.want + b.want, "+ temporary");
        check_value(a.q + n, a.want + mpz_class(n), "+ long");
        break;
    case 8:
        check_value(a.q - b.q, a.want - b.want, "-");
        check_value(QNumber(a.q) - b.q, a.want - b.want, "- temporary");
        check_value(a.q - n, a.want - mpz_class(n), "- long");
        break;
    case 9:
        check_value(a.q * b.q, a.want * b.want, "*");
        check_value(QNumber(a.q) * b.q, a.want * b.want, "* temporary");
        check_value(a.q * n, a.want * mpz_class(n), "* long");
        break;
    case 10:
        if (b_zero) {
            check_division_by_zero(
                a, [&](QNumber& q) { q = q / b.q; }, "/ 0");
            check_division_by_zero(
                b, [&](QNumber& q) { q = n / q; }, "long / 0");
            return;
        }
        check_value(a.q / b.q, a.want / b.want, "/");
        check_value(n / b.q, mpq_class(mpz_class(n)) / b.want, "long /");
        break;
    case 11:
        check_value(-a.q, -a.want, "unary -");
        a.q.self_neg();
        check_value(a.q, -a.want, "self_neg");
        break;
    case 12:
        if (a.want == 0)
            return check_division_by_zero(
                a, [](QNumber& q) { q = q.inv(); }, "inv 0");
        check_value(a.q.inv(), 1 / a.want, "inv");
        break;
    case 13:
        check_value(a.q.floor(), mpq_class(floor_of(a.want)), "floor");
        break;
    case 14: {
        // divmod reads only the numerators.
        const mpz_class x = a.want.get_num(), d = b.want.get_num();
        QNumber quotient(n), remainder;
        if (d == 0) {
            try {
                a.q.divmod(b.q, quotient, remainder);
            } catch (const std::domain_error&) {
                return;
            }
            FUZZ_CHECK(false) << "divmod by 0: no std::domain_error";
        }
        a.q.divmod(b.q, quotient, remainder);
        mpz_class want_q, want_r;
        mpz_fdiv_qr(want_q.get_mpz_t(), want_r.get_mpz_t(), x.get_mpz_t(), d.get_mpz_t());
        check_value(quotient, mpq_class(want_q), "divmod quotient");
        check_value(remainder, mpq_class(want_r), "divmod remainder");
        // The quotient or remainder may be the dividend or the divisor.
        QNumber other;
        QNumber dividend = a.q;
        dividend.divmod(b.q, dividend, other);
        check_value(dividend, mpq_class(want_q), "divmod into the dividend");
        break;
    }
    case 15:
        check_value(a.q.get_num(), mpq_class(a.want.get_num()), "get_num");
        check_value(a.q.get_den(), mpq_class(a.want.get_den()), "get_den");
        FUZZ_CHECK(a.q.to_mpz() == floor_of(a.want)) << "to_mpz " << a.want.get_str();
        break;
    case 16: {
        const int c = cmp(a.want, b.want);
        FUZZ_CHECK((a.q == b.q) == (c == 0)) << a.want.get_str() << " == " << b.want.get_str();
        FUZZ_CHECK((a.q != b.q) == (c != 0)) << a.want.get_str() << " != " << b.want.get_str();
        FUZZ_CHECK((a.q < b.q) == (c < 0)) << a.want.get_str() << " < " << b.want.get_str();
        FUZZ_CHECK((a.q <= b.q) == (c <= 0)) << a.want.get_str() << " <= " << b.want.get_str();
        FUZZ_CHECK((a.q > b.q) == (c > 0)) << a.want.get_str() << " > " << b.want.get_str();
        FUZZ_CHECK((a.q >= b.q) == (c >= 0)) << a.want.get_str() << " >= " << b.want.get_str();
        FUZZ_CHECK(tarn::cmp(a.q, b.q) == (c > 0) - (c < 0)) << "cmp " << a.want.get_str();
        FUZZ_CHECK((a.q < n) == (a.want < mpz_class(n))) << a.want.get_str() << " < " << n;
        break;
    }
    case 17: {
        std::ostringstream text;
        text << a.q;
        FUZZ_CHECK(text.str() == a.want.get_str()) << "<< " << text.str();
        break;
    }
    case 18: {
        // Every operation must also work when both operands are one object.
        QNumber sum = a.q, difference = a.q, product = a.q, quotient = a.q;
        const QNumber &sum_alias = sum, &difference_alias = difference, &product_alias = product,
                      &quotient_alias = quotient;
        sum += sum_alias;
        difference -= difference_alias;
        product *= product_alias;
        check_value(sum, a.want + a.want, "a += a");
        check_value(difference, 0, "a -= a");
        check_value(product, a.want * a.want, "a *= a");
        if (a.want != 0) {
            quotient /= quotient_alias;
            check_value(quotient, 1, "a /= a");
        }
        break;
    }
    default: {
        // Copies and moves between every pair of forms.
        QNumber copy(a.q);
        QNumber target = b.q;
        target = a.q;
        check_value(copy, a.want, "copy");
        check_value(target, a.want, "copy assignment");
        QNumber moved(std::move(copy));
        check_value(moved, a.want, "move");
        check_value(copy, 0, "moved-from");
        QNumber move_target = b.q;
        move_target = std::move(moved);
        check_value(move_target, a.want, "move assignment");
        const QNumber& same = move_target;
        move_target = same;
        check_value(move_target, a.want, "self assignment");
    }
    }
}

/// A non-negative integer operand of the bit-vector operations, small, big,
/// or big holding a word-sized value.
Operand consume_natural(FuzzedDataProvider& in) {
    const mpz_class z = consume_bits(in, in.ConsumeIntegralInRange<unsigned long>(0, 200));
    if (in.ConsumeBool()) return {big_form_of(mpq_class(z)), mpq_class(z)};
    return {QNumber(z), mpq_class(z)};
}

void bit_operation(FuzzedDataProvider& in, Operand a, const Operand& b) {
    const mpz_class x = a.want.get_num(), y = b.want.get_num();
    const unsigned long i = in.ConsumeIntegralInRange<unsigned long>(0, 300);
    switch (in.ConsumeIntegralInRange(0, 10)) {
    case 0: {
        const bool v = in.ConsumeBool();
        BVNumber::set_bit(a.q, i, v);
        mpz_class want = x;
        if (v)
            mpz_setbit(want.get_mpz_t(), i);
        else
            mpz_clrbit(want.get_mpz_t(), i);
        check_value(a.q, mpq_class(want), "set_bit");
        break;
    }
    case 1:
        FUZZ_CHECK(BVNumber::test_bit(a.q, i) == (mpz_tstbit(x.get_mpz_t(), i) == 1))
            << "test_bit " << i << " of " << x.get_str();
        break;
    case 2: {
        const mp_bitcnt_t want = mpz_scan1(x.get_mpz_t(), i);
        const unsigned long got = BVNumber::scan_bit_1(a.q, i);
        FUZZ_CHECK(got == (want == ~mp_bitcnt_t{0} ? BVNumber::no_bit : want))
            << "scan_bit_1 " << i << " of " << x.get_str() << " got " << got;
        FUZZ_CHECK(BVNumber::scan_bit_0(a.q, i) == mpz_scan0(x.get_mpz_t(), i))
            << "scan_bit_0 " << i << " of " << x.get_str();
        break;
    }
    case 3: {
        long out = 12345;
        const bool fits = BVNumber::to_long(a.q, &out);
        FUZZ_CHECK(fits == (mpz_fits_slong_p(x.get_mpz_t()) != 0)) << "to_long " << x.get_str();
        FUZZ_CHECK(fits ? out == x.get_si() : out == 12345) << "to_long " << x.get_str();
        break;
    }
    case 4: {
        BVNumber::trim(a.q, i);
        mpz_class want;
        mpz_fdiv_r_2exp(want.get_mpz_t(), x.get_mpz_t(), i);
        check_value(a.q, mpq_class(want), "trim");
        break;
    }
    case 5: {
        // A big output keeps its heap pair; a small one stays small while 2^i fits.
        QNumber out = b.q;
        const bool was_big = out.is_big();
        BVNumber::pow2(i, &out);
        check_value(out, mpq_class(mpz_class(1) << i), "pow2");
        FUZZ_CHECK(out.is_big() == (was_big || i > 62)) << "pow2 form " << i;
        break;
    }
    case 6: {
        QNumber out = b.q;
        BVNumber::bit_left_shift(a.q, i, &out);
        check_value(out, mpq_class(x << i), "bit_left_shift");
        BVNumber::bit_left_shift(a.q, i, &a.q);
        check_value(a.q, mpq_class(x << i), "bit_left_shift in place");
        break;
    }
    case 7: {
        QNumber out = b.q;
        BVNumber::bit_right_shift(a.q, i, &out);
        check_value(out, mpq_class(x >> i), "bit_right_shift");
        BVNumber::bit_right_shift(a.q, i, &a.q);
        check_value(a.q, mpq_class(x >> i), "bit_right_shift in place");
        break;
    }
    case 8: {
        const unsigned long length = x == 0 ? 0 : mpz_sizeinbase(x.get_mpz_t(), 2);
        FUZZ_CHECK(BVNumber::count_leading_zeros(a.q, i) == (length > i ? 0 : i - length))
            << "count_leading_zeros " << i << " of " << x.get_str();
        break;
    }
    case 9: {
        QNumber out = in.ConsumeBool() ? a.q : b.q;
        BVNumber::bit_op(a.q, b.q, BVNumber::bit_and_l, mpz_and, &out);
        check_value(out, mpq_class(mpz_class(x & y)), "bit_op and");
        break;
    }
    default: {
        std::uint64_t low = 7, high = 9;
        const bool fits = BVNumber::to_words(a.q, &low, &high);
        FUZZ_CHECK(fits == (mpz_sizeinbase(x.get_mpz_t(), 2) <= 128)) << "to_words " << x.get_str();
        if (!fits) {
            FUZZ_CHECK(low == 7 && high == 9) << "to_words wrote a value that does not fit";
            break;
        }
        QNumber back = b.q;
        BVNumber::assign_words(low, high, &back);
        check_value(back, a.want, "assign_words of to_words");
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool()) {
        const Operand a = consume_operand(in);
        const Operand b = consume_operand(in);
        check_value(a.q, a.want, "construction");
        check_value(b.q, b.want, "construction");
        rational_operation(in, a, b);
    } else {
        const Operand a = consume_natural(in);
        const Operand b = consume_natural(in);
        bit_operation(in, a, b);
    }
    return 0;
}
