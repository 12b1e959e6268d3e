// Robustness fuzzing: arbitrary formats (no exponent bits, no mantissa bits,
// exponent widths up to 100, mantissa widths in the thousands), arbitrary bit
// patterns (also wider than the format), every representation and arbitrary
// rounding-mode numbers, fed to every public operation in sequences chosen by
// the bytes. The library may answer or throw IEEEFloat::error with one of its
// own messages, leaving the value as it was; anything else (a crash, a
// sanitizer report, a leak, another exception, a hang or a huge allocation,
// caught by libFuzzer's limits) is a finding.
#include "fuzz/fuzz_support.h"
#include "tarn/ieeefloat/ieeefloat.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

namespace {

using fuzzing::consume_bits;

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using Mode = IEEEFloat::rounding_mode;

/// Mostly narrow widths, where the edge cases live, and now and then the
/// widest ones the library is asked to serve.
Format consume_format(FuzzedDataProvider& in) {
    const unsigned e_pick = in.ConsumeIntegral<unsigned char>();
    const unsigned long e = e_pick < 192 ? e_pick % 13 : e_pick % 101;
    const unsigned m_pick = in.ConsumeIntegral<unsigned char>();
    const unsigned long m =
        m_pick < 192 ? m_pick % 70 : in.ConsumeIntegralInRange<unsigned long>(0, 4096);
    return {e, m};
}

/// A rounding-mode number: mostly one of the four, otherwise any int.
Mode consume_mode(FuzzedDataProvider& in) {
    const unsigned pick = in.ConsumeIntegral<unsigned char>();
    if (pick < 224) return static_cast<Mode>(pick % 4);
    return static_cast<Mode>(in.ConsumeIntegral<int>());
}

IEEEFloat::Repr consume_repr(FuzzedDataProvider& in) {
    return static_cast<IEEEFloat::Repr>(in.ConsumeIntegralInRange(0, 2));
}

/// Up to 24 bits more than the format's pattern holds.
QNumber consume_pattern(FuzzedDataProvider& in, Format f) {
    const unsigned long width = f.exponent_width + f.mantissa_width + 1;
    return QNumber(consume_bits(in, width + in.ConsumeIntegralInRange(0, 24)));
}

/// A value of `f`: from a pattern or from a number, moved to `repr`.
IEEEFloat consume_value(FuzzedDataProvider& in, Format f, IEEEFloat::Repr repr, Mode mode) {
    IEEEFloat x = IEEEFloat::from_bits(consume_pattern(in, f), f);
    x.self_specialize_repr(repr);
    x.set_rounding_mode(mode);
    return x;
}

/// A rational with numerator and denominator of up to 300 bits.
QNumber consume_rational(FuzzedDataProvider& in) {
    const bool negative = in.ConsumeBool();
    mpz_class num = consume_bits(in, in.ConsumeIntegralInRange(0, 300));
    mpz_class den = consume_bits(in, in.ConsumeIntegralInRange(0, 300));
    if (den == 0) den = 1;
    return QNumber(negative ? mpz_class(-num) : num, den);
}

/// Everything a failed operation must leave as it was.
using State = std::tuple<mpz_class, unsigned long, unsigned long, int, int>;

State state_of(const IEEEFloat& x) {
    return {x.get_bits().to_mpz(), x.get_format().exponent_width, x.get_format().mantissa_width,
            static_cast<int>(x.get_rounding_mode()), static_cast<int>(x.get_repr())};
}

std::string describe(const IEEEFloat& x) {
    const Format f = x.get_format();
    return "(" + std::to_string(f.exponent_width) + "," + std::to_string(f.mantissa_width) +
           ") repr " + std::to_string(x.get_repr()) + " mode " +
           std::to_string(x.get_rounding_mode()) + " bits 0x" + x.get_bits().to_mpz().get_str(16);
}

/// With FUZZ_TRACE set, each step is written to stderr, to read a finding's
/// input as the sequence of operations it runs.
void trace(int op, const IEEEFloat& x, const IEEEFloat& y) {
    static const bool enabled = std::getenv("FUZZ_TRACE") != nullptr;
    if (!enabled) return;
    std::fprintf(stderr, "op %d on %s, y 0x%s\n", op, describe(x).c_str(),
                 y.get_bits().to_mpz().get_str(16).c_str());
}

/// One operation on x, chosen by the bytes; y is a second value of x's
/// format and representation, as the two-value operations require.
void operate(FuzzedDataProvider& in, IEEEFloat& x) {
    const Format f = x.get_format();
    const int op = in.ConsumeIntegralInRange(0, 24);
    IEEEFloat y = consume_value(in, f, x.get_repr(), x.get_rounding_mode());
    trace(op, x, y);
    switch (op) {
    case 0:
        x += y;
        break;
    case 1:
        x -= y;
        break;
    case 2:
        x *= y;
        break;
    case 3:
        x /= y;
        break;
    case 4:
        x.sqrt();
        break;
    case 5:
        x.set_format(consume_format(in));
        break;
    case 6:
        x = IEEEFloat::from_number(consume_rational(in), consume_format(in), consume_mode(in));
        break;
    case 7:
        (void)x.to_number();
        break;
    case 8:
        (void)x.to_integer(in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange(1UL, 5000UL));
        break;
    case 9:
        x = round(x);
        break;
    case 10:
        (void)(x < y);
        (void)(x <= y);
        (void)(x == y);
        (void)ieee_cmp(x, y);
        break;
    case 11:
        x.next_representable(in.ConsumeBool());
        break;
    case 12:
        x.packed_next(in.ConsumeBool());
        break;
    case 13:
        (void)x.to_float_str();
        break;
    case 14:
        (void)x.to_str();
        break;
    case 15:
        (void)x.is_inf();
        (void)x.is_nan();
        (void)x.is_zero();
        (void)x.is_subnormal();
        (void)x.is_normal();
        (void)x.get_sign();
        break;
    case 16:
        x.self_neg();
        break;
    case 17:
        x.set_sign(in.ConsumeBool());
        break;
    case 18:
        x.self_specialize_repr(consume_repr(in));
        break;
    case 19:
        x.set_rounding_mode(consume_mode(in));
        break;
    case 20: {
        switch (in.ConsumeIntegralInRange(0, 2)) {
        case 0:
            x.self_nan();
            break;
        case 1:
            x.self_inf(in.ConsumeBool());
            break;
        default:
            x.self_zero(in.ConsumeBool());
            break;
        }
        break;
    }
    case 21:
        x = IEEEFloat::max_value(f);
        break;
    case 22:
        x = IEEEFloat(consume_format(in), consume_repr(in), consume_mode(in));
        break;
    case 23: {
        IEEEFloat copy(x);
        IEEEFloat moved(std::move(copy));
        copy = moved;
        x = std::move(copy);
        break;
    }
    default:
        if (f.exponent_width >= 1) {
            (void)f.bias();
            (void)f.max_exponent();
        }
        (void)f.max_mantissa();
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const Format f = consume_format(in);
    const IEEEFloat::Repr repr = consume_repr(in);
    IEEEFloat x = consume_value(in, f, repr, consume_mode(in));
    for (int step = 0; step < 6 && in.remaining_bytes() > 0; ++step) {
        const State before = state_of(x);
        try {
            operate(in, x);
        } catch (const IEEEFloat::error& e) {
            FUZZ_CHECK(fuzzing::is_library_message(e.what())) << "message: " << e.what();
            FUZZ_CHECK(state_of(x) == before)
                << "a throw of \"" << e.what() << "\" changed the value to " << describe(x);
        }
        FUZZ_CHECK(x.get_bits().sign() >= 0) << "negative pattern";
    }
    return 0;
}
