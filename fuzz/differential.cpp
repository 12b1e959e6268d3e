// Differential fuzzing of IEEEFloat against the MPFR reference in tests/oracle.
//
// One input is one operation: the bytes choose a format (a table of the
// formats users meet and of odd ones that stress the edges, or any small
// format), the representation for binary32 and binary64, a rounding mode
// (now and then one outside 0 to 3), the operation and its operands. Results
// must agree bit for bit with the reference, NaNs by class, and with its
// errors where the reference has none to give.
#include "fuzz/fuzz_support.h"
#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/oracle/oracle.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace {

using fuzzing::consume_bits;

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;

const Format table[] = {
    {2, 0}, {2, 1},  {3, 0},   {2, 3},    {3, 2},  {4, 3},  {5, 2}, {5, 10},
    {8, 7}, {8, 23}, {11, 52}, {15, 112}, {20, 3}, {3, 60}, {6, 9}, {4, 64},
};

/// A format from the table, or a small one of any widths. Exponent widths stay
/// at or below 20 so that exact rationals and shortest decimals stay cheap.
Format consume_format(FuzzedDataProvider& in) {
    const unsigned pick = in.ConsumeIntegral<unsigned char>();
    if (pick < 200) return table[pick % (sizeof table / sizeof table[0])];
    return {in.ConsumeIntegralInRange<unsigned long>(2, 20),
            in.ConsumeIntegralInRange<unsigned long>(0, 140)};
}

oracle::Format to_oracle(Format f) {
    return {static_cast<unsigned>(f.exponent_width), static_cast<unsigned>(f.mantissa_width)};
}

/// An operand pattern: one of the values at the edges of the format, or raw bits.
mpz_class consume_pattern(FuzzedDataProvider& in, oracle::Format f) {
    const bool negative = in.ConsumeBool();
    switch (in.ConsumeIntegralInRange(0, 11)) {
    case 0:
        return oracle::make_pattern(f, negative, 0, 0);
    case 1:
        return oracle::inf_pattern(f, negative);
    case 2:
        return oracle::nan_pattern(f);
    case 3:
        return oracle::max_pattern(f, negative);
    case 4:
        return oracle::min_pattern(f, negative);
    case 5:
        return oracle::make_pattern(f, negative, 1, 0); // smallest normal
    case 6:
        return oracle::make_pattern(f, negative, (mpz_class(1) << (f.e - 1)) - 1, 0); // 1.0
    default:
        return consume_bits(in, f.width());
    }
}

/// A case: the operand's format, representation and mode.
struct Setting {
    Format format;
    oracle::Format ofmt;
    IEEEFloat::Repr repr;
    int mode;

    bool valid_mode() const { return mode >= 0 && mode <= 3; }
};

IEEEFloat make(const Setting& s, const mpz_class& bits) {
    IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), s.format);
    x.self_specialize_repr(s.repr);
    x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(s.mode));
    return x;
}

mpz_class bits_of(const IEEEFloat& x) {
    return x.get_bits().to_mpz();
}

std::string describe(const Setting& s, const mpz_class& bits) {
    return oracle::describe(s.ofmt, bits) + " repr " + std::to_string(s.repr) + " mode " +
           std::to_string(s.mode);
}

void check_result(const Setting& s, const mpz_class& got, const mpz_class& want,
                  const std::string& what) {
    FUZZ_CHECK(oracle::same_result(s.ofmt, got, want))
        << what << "\n  got  " << oracle::describe(s.ofmt, got) << "\n  want "
        << oracle::describe(s.ofmt, want);
}

/// The reference of an operation: its result in a format under a mode.
using Reference = std::function<mpz_class(oracle::Format, int)>;

/// Whether the operation's result needs no rounding: rounding up and down
/// agree (zeros of either sign count as one, as only the mode decides the
/// sign of an exact zero sum). An overflow is exact when the value is
/// representable with a wider exponent field and the same precision.
bool exact_result(oracle::Format f, const Reference& reference) {
    const mpz_class up = reference(f, oracle::TOWARD_POSITIVE);
    const mpz_class down = reference(f, oracle::TOWARD_NEGATIVE);
    if (oracle::same_result(f, up, down)) return true;
    const oracle::Kind up_kind = oracle::classify(f, up), down_kind = oracle::classify(f, down);
    if (up_kind == oracle::Kind::Zero && down_kind == oracle::Kind::Zero) return true;
    if (up_kind != oracle::Kind::Infinite && down_kind != oracle::Kind::Infinite) return false;
    return exact_result({f.e + 8, f.m}, reference);
}

/// Runs `op` on x and checks it against the reference under the value's
/// mode. With a mode outside 0 to 3, a word rounds to nearest-even, and a
/// generic value gives its exact result (an exact overflow gives infinity,
/// as nearest-even does) or throws "bad rounding mode: N" and keeps its value.
void check_rounded(const Setting& s, IEEEFloat& x, const std::function<void(IEEEFloat&)>& op,
                   const Reference& reference, const std::string& what) {
    const mpz_class before = bits_of(x);
    if (s.valid_mode()) {
        op(x);
        check_result(s, bits_of(x), reference(s.ofmt, s.mode), what);
    } else if (s.repr != IEEEFloat::REPR_GENERIC) {
        op(x);
        check_result(s, bits_of(x), reference(s.ofmt, oracle::NEAREST_EVEN),
                     what + " (bad mode, word)");
    } else {
        const bool exact = exact_result(s.ofmt, reference);
        try {
            op(x);
            FUZZ_CHECK(exact) << what << ": an inexact result with a bad mode did not throw";
            check_result(s, bits_of(x), reference(s.ofmt, oracle::NEAREST_EVEN),
                         what + " (bad mode, exact)");
        } catch (const IEEEFloat::error& e) {
            FUZZ_CHECK(!exact) << what << ": an exact result threw " << e.what();
            FUZZ_CHECK(std::string(e.what()) == "bad rounding mode: " + std::to_string(s.mode))
                << what << ": " << e.what();
            FUZZ_CHECK(bits_of(x) == before) << what << ": the operand changed on a throw";
        }
    }
    FUZZ_CHECK(x.get_repr() == s.repr) << what;
}

using oracle::Operation;

void arithmetic(const Setting& s, Operation op, const mpz_class& a, const mpz_class& b) {
    // One mantissa bit makes one quotient a documented tie under nearest-even.
    if (op == Operation::Div && s.format.mantissa_width == 1 && s.mode == 0) return;
    IEEEFloat x = make(s, a);
    const IEEEFloat y = make(s, b);
    const std::string what = std::string(oracle::to_string(op)) + " " + describe(s, a) + ", " +
                             oracle::describe(s.ofmt, b);
    check_rounded(
        s, x,
        [&](IEEEFloat& v) {
            switch (op) {
            case Operation::Add:
                v += y;
                break;
            case Operation::Sub:
                v -= y;
                break;
            case Operation::Mul:
                v *= y;
                break;
            case Operation::Div:
                v /= y;
                break;
            case Operation::Sqrt:
                v.sqrt();
                break;
            }
        },
        [&](oracle::Format f, int mode) {
            // Operands are widened exactly when the reference asks for a wider format.
            const mpz_class wa = f == s.ofmt ? a : oracle::convert(s.ofmt, a, f, mode);
            const mpz_class wb = f == s.ofmt ? b : oracle::convert(s.ofmt, b, f, mode);
            return oracle::apply(f, op, wa, wb, mode);
        },
        what);
}

void set_format(const Setting& s, const mpz_class& a, Format to) {
    if (!s.valid_mode()) return;
    IEEEFloat x = make(s, a);
    x.set_format(to);
    // A conversion to the value's own format changes nothing, representation included.
    const Setting target{to, to_oracle(to), to == s.format ? s.repr : IEEEFloat::get_best_repr(to),
                         s.mode};
    check_result(target, bits_of(x), oracle::convert(s.ofmt, a, target.ofmt, s.mode),
                 "set_format to " + oracle::to_string(target.ofmt) + " of " + describe(s, a));
    FUZZ_CHECK(x.get_repr() == target.repr && x.get_format() == to);
}

void from_number(const Setting& s, const mpq_class& q) {
    if (!s.valid_mode()) return;
    const IEEEFloat x =
        IEEEFloat::from_number(QNumber(q), s.format, static_cast<IEEEFloat::rounding_mode>(s.mode));
    check_result(s, bits_of(x), oracle::from_number_model(q, s.ofmt, s.mode),
                 "from_number " + q.get_str() + " " + describe(s, 0));
    FUZZ_CHECK(x.get_repr() == IEEEFloat::get_best_repr(s.format));
}

void to_integer(const Setting& s, const mpz_class& a, unsigned long width) {
    const IEEEFloat x = make(s, a);
    const mpz_class want = oracle::to_integer(s.ofmt, a, s.mode, width);
    const mpz_class got = x.to_integer(width).to_mpz();
    FUZZ_CHECK(got == want) << "to_integer(" << width << ") " << describe(s, a) << " got "
                            << got.get_str() << " want " << want.get_str();
}

void round_to_integral(const Setting& s, const mpz_class& a) {
    if (!s.valid_mode()) return;
    const IEEEFloat x = make(s, a);
    const IEEEFloat r = round(x);
    check_result(s, bits_of(r), oracle::round_to_integral(s.ofmt, a, s.mode),
                 "round " + describe(s, a));
    // Zeros, infinities and NaNs come back as they are; other results are
    // made by from_number, in the format's usual representation.
    const bool copied = x.is_zero() || x.is_inf() || x.is_nan();
    FUZZ_CHECK(r.get_repr() == (copied ? s.repr : IEEEFloat::get_best_repr(s.format)) &&
               r.get_format() == s.format)
        << "round " << describe(s, a) << ": representation " << r.get_repr();
}

void compare(const Setting& s, const mpz_class& a, const mpz_class& b) {
    const IEEEFloat x = make(s, a), y = make(s, b);
    const int want = oracle::compare(s.ofmt, a, b);
    const std::string what = "compare " + describe(s, a) + ", " + oracle::describe(s.ofmt, b);
    FUZZ_CHECK(ieee_cmp(x, y) == want) << what << " got " << ieee_cmp(x, y) << " want " << want;
    FUZZ_CHECK((x < y) == (want == -1)) << what;
    FUZZ_CHECK((x <= y) == (want == -1 || want == 0)) << what;
    FUZZ_CHECK((x == y) == (want == 0)) << what;
}

void neighbours(const Setting& s, const mpz_class& a, bool up, bool packed) {
    IEEEFloat x = make(s, a);
    const std::string what = std::string(packed ? "packed_next " : "next_representable ") +
                             (up ? "up " : "down ") + describe(s, a);
    if (packed) {
        x.packed_next(up);
        // The reference steps the pattern the value actually holds: a NaN
        // given to from_bits is already the library NaN.
        const mpz_class held = bits_of(make(s, a));
        check_result(s, bits_of(x), oracle::packed_next(s.ofmt, held, up), what);
    } else {
        x.next_representable(up);
        check_result(s, bits_of(x), oracle::next_representable(s.ofmt, a, up), what);
    }
    FUZZ_CHECK(x.get_repr() == s.repr && x.get_rounding_mode() == s.mode) << what;
}

/// Runs `op`, which must throw the library error `message`.
void expect_error(const std::function<void()>& op, const char* message, const std::string& what) {
    try {
        op();
    } catch (const IEEEFloat::error& e) {
        FUZZ_CHECK(std::string(e.what()) == message) << what << ": " << e.what();
        return;
    }
    FUZZ_CHECK(false) << what << ": no error, expected " << message;
}

void exact_value(const Setting& s, const mpz_class& a) {
    const IEEEFloat x = make(s, a);
    const std::string what = "to_number " + describe(s, a);
    switch (oracle::classify(s.ofmt, a)) {
    case oracle::Kind::NaN:
        expect_error([&] { x.to_number(); }, "can't convert NaN to a Number", what);
        break;
    case oracle::Kind::Infinite:
        expect_error([&] { x.to_number(); }, "can't convert infinity to a Number", what);
        break;
    default:
        FUZZ_CHECK(x.to_number().to_mpq() == oracle::to_rational(s.ofmt, a)) << what;
    }
}

void text(const Setting& s, const mpz_class& a) {
    // The reference searches on exact rationals, which grow with the
    // exponent range: past binary128's it would take seconds.
    if (s.format.exponent_width > 15) return;
    const IEEEFloat x = make(s, a);
    const std::string what = "to_float_str " + describe(s, a);
    switch (oracle::classify(s.ofmt, a)) {
    case oracle::Kind::NaN:
        expect_error([&] { x.to_float_str(); }, "can't convert NaN to float str", what);
        return;
    case oracle::Kind::Infinite:
        expect_error([&] { x.to_float_str(); }, "can't convert Infinity to float str", what);
        return;
    default:
        break;
    }
    const std::string got = x.to_float_str();
    const std::string want = oracle::shortest_decimal(s.ofmt, a);
    FUZZ_CHECK(got == want) << what << " got " << got << " want " << want;
    FUZZ_CHECK(oracle::read_numeral(s.ofmt, got, oracle::NEAREST_EVEN) == a)
        << what << ": " << got << " reads back as "
        << oracle::describe(s.ofmt, oracle::read_numeral(s.ofmt, got, oracle::NEAREST_EVEN));
}

void classes_and_signs(const Setting& s, const mpz_class& a, bool negative) {
    IEEEFloat x = make(s, a);
    const std::string what = "classes and signs " + describe(s, a);
    const oracle::Kind kind = oracle::classify(s.ofmt, a);
    FUZZ_CHECK(x.is_nan() == (kind == oracle::Kind::NaN)) << what;
    FUZZ_CHECK(x.is_inf() == (kind == oracle::Kind::Infinite)) << what;
    FUZZ_CHECK(x.is_zero() == (kind == oracle::Kind::Zero)) << what;
    FUZZ_CHECK(x.is_subnormal() == (kind == oracle::Kind::Subnormal)) << what;
    FUZZ_CHECK(x.is_normal() == (kind == oracle::Kind::Normal)) << what;
    const unsigned long sign_bit = s.ofmt.width() - 1;
    FUZZ_CHECK(x.get_sign() == (mpz_tstbit(bits_of(x).get_mpz_t(), sign_bit) == 1)) << what;

    const mpz_class held = bits_of(x);
    x.self_neg();
    mpz_class negated = held;
    if (kind != oracle::Kind::NaN) mpz_combit(negated.get_mpz_t(), sign_bit);
    FUZZ_CHECK(bits_of(x) == negated) << what << ": self_neg";
    x.set_sign(negative);
    FUZZ_CHECK(x.get_sign() == negative && (bits_of(x) >> sign_bit) == (negative ? 1 : 0))
        << what << ": set_sign";
    FUZZ_CHECK(bits_of(IEEEFloat::max_value(s.format)) == oracle::max_pattern(s.ofmt, false))
        << what << ": max_value";
}

/// A rational of up to 160-bit numerator and denominator, either sign.
mpq_class consume_rational(FuzzedDataProvider& in) {
    const bool negative = in.ConsumeBool();
    const unsigned long num_bits = in.ConsumeIntegralInRange<unsigned long>(0, 160);
    const unsigned long den_bits = in.ConsumeIntegralInRange<unsigned long>(0, 160);
    mpz_class num = consume_bits(in, num_bits);
    mpz_class den = consume_bits(in, den_bits);
    if (den == 0) den = 1;
    mpq_class q(negative ? mpz_class(-num) : num, den);
    q.canonicalize();
    return q;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    Setting s;
    s.format = consume_format(in);
    s.ofmt = to_oracle(s.format);
    s.repr = IEEEFloat::get_best_repr(s.format);
    if (s.repr != IEEEFloat::REPR_GENERIC && in.ConsumeBool()) s.repr = IEEEFloat::REPR_GENERIC;
    const unsigned mode_byte = in.ConsumeIntegral<unsigned char>();
    s.mode = mode_byte < 240 ? static_cast<int>(mode_byte % 4) : static_cast<int>(mode_byte);

    const int op = in.ConsumeIntegralInRange(0, 14);
    const mpz_class a = consume_pattern(in, s.ofmt);
    switch (op) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4: {
        const mpz_class b = consume_pattern(in, s.ofmt);
        arithmetic(s, static_cast<Operation>(op), a, b);
        break;
    }
    case 5:
        set_format(s, a, consume_format(in));
        break;
    case 6:
        from_number(s, consume_rational(in));
        break;
    case 7:
        to_integer(s, a, in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange(1UL, 130UL));
        break;
    case 8:
        round_to_integral(s, a);
        break;
    case 9:
        compare(s, a, consume_pattern(in, s.ofmt));
        break;
    case 10:
        neighbours(s, a, in.ConsumeBool(), false);
        break;
    case 11:
        neighbours(s, a, in.ConsumeBool(), true);
        break;
    case 12:
        exact_value(s, a);
        break;
    case 13:
        text(s, a);
        break;
    case 14:
        classes_and_signs(s, a, in.ConsumeBool());
        break;
    }
    return 0;
}
