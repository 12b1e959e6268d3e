// Robustness sequences: arbitrary formats (no exponent bits, no mantissa bits,
// exponent widths up to 100, mantissa widths in the thousands), patterns also
// wider than the format, every representation and any rounding-mode number, fed
// to every public operation in sequences read from a byte source: the fuzzer's
// bytes, or a seeded tarn_testing::RandomSource under CTest. The library may
// answer, or throw IEEEFloat::error with one of its own messages and leave the
// value as it was. Anything else is a finding: another message, a value changed
// by a throw, a pattern that leaves its format; and, under the sanitizers or
// libFuzzer's limits, a crash, a leak, a hang or a huge allocation.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tests/random_source.h"

#include <iterator>
#include <regex>
#include <sstream>
#include <string>

namespace tarn_testing {

using tarn::IEEEFloat;
using tarn::QNumber;

/// Mostly narrow widths, where the edge cases live, and now and then the
/// widest ones the library is asked to serve.
template <class In>
IEEEFloat::format consume_format(In& in) {
    const unsigned e_pick = in.template ConsumeIntegral<unsigned char>();
    const unsigned long e = e_pick < 192 ? e_pick % 13 : e_pick % 101;
    const unsigned m_pick = in.template ConsumeIntegral<unsigned char>();
    return {e, m_pick < 192 ? m_pick % 70
                            : in.template ConsumeIntegralInRange<unsigned long>(0, 4096)};
}

/// A rounding-mode number: mostly one of the four, otherwise any int.
template <class In>
IEEEFloat::rounding_mode consume_mode(In& in) {
    const unsigned pick = in.template ConsumeIntegral<unsigned char>();
    return static_cast<IEEEFloat::rounding_mode>(pick < 224 ? int(pick % 4)
                                                            : in.template ConsumeIntegral<int>());
}

/// An explicit direction: mostly one of the six, otherwise any int.
template <class In>
tarn::rounding consume_direction(In& in) {
    const unsigned pick = in.template ConsumeIntegral<unsigned char>();
    return static_cast<tarn::rounding>(pick < 240 ? int(pick % 6)
                                                  : in.template ConsumeIntegral<int>());
}

template <class In>
IEEEFloat::Repr consume_repr(In& in) {
    return static_cast<IEEEFloat::Repr>(in.ConsumeIntegralInRange(0, 2));
}

/// A value of `f` from a pattern of up to 24 bits more than the format holds,
/// moved to `repr`.
template <class In>
IEEEFloat consume_value(In& in, IEEEFloat::format f, IEEEFloat::Repr repr,
                        IEEEFloat::rounding_mode mode) {
    const unsigned long width = f.exponent_width + f.mantissa_width + 1;
    IEEEFloat x = IEEEFloat::from_bits(
        QNumber(consume_bits(in, width + in.ConsumeIntegralInRange(0, 24))), f);
    x.self_specialize_repr(repr);
    x.set_rounding_mode(mode);
    return x;
}

/// A rational with numerator and denominator of up to 300 bits.
template <class In>
QNumber consume_rational(In& in) {
    const bool negative = in.ConsumeBool();
    const mpz_class num = consume_bits(in, in.ConsumeIntegralInRange(0, 300)),
                    den = consume_bits(in, in.ConsumeIntegralInRange(0, 300));
    return QNumber(negative ? mpz_class(-num) : num, den + (den == 0));
}

inline std::string text_of(const QNumber& q) {
    return q.to_mpq().get_str(16) + ';';
}

/// One operation on x, given the bytes for its own choices and a second value
/// y of x's format and representation; a query writes what it answers, so that
/// runs can be compared. The index is the operation's number in the input
/// bytes: append, never reorder, or the corpus changes meaning.
template <class In>
using Step = void (*)(In&, IEEEFloat& x, const IEEEFloat& y, std::string& answer);

#define TARN_STEP(...)                                                                             \
    []([[maybe_unused]] In& in, IEEEFloat& x, [[maybe_unused]] const IEEEFloat& y,                 \
       [[maybe_unused]] std::string& answer) { __VA_ARGS__; }

template <class In>
constexpr Step<In> steps[] = {
    TARN_STEP(x += y),
    TARN_STEP(x -= y),
    TARN_STEP(x *= y),
    TARN_STEP(x /= y),
    TARN_STEP(x.sqrt()),
    TARN_STEP(x.set_format(consume_format(in))),
    TARN_STEP(const QNumber q = consume_rational(in);
              const IEEEFloat::format f = consume_format(in);
              x = IEEEFloat::from_number(q, f, consume_mode(in))),
    TARN_STEP(answer = text_of(x.to_number())),
    TARN_STEP(answer = text_of(
                  x.to_integer(in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange(1UL, 5000UL)))),
    TARN_STEP(x = round(x)),
    TARN_STEP(answer = std::to_string((x < y) * 4 + (x <= y) * 2 + (x == y) + 8 * ieee_cmp(x, y))),
    TARN_STEP(x.next_representable(in.ConsumeBool())),
    TARN_STEP(x.packed_next(in.ConsumeBool())),
    TARN_STEP(std::ostringstream out; out << x; const std::string text = x.to_float_str();
              const IEEEFloat back =
                  IEEEFloat::from_string(text, x.get_format(), x.get_rounding_mode());
              answer = out.str() + back.to_str()),
    TARN_STEP(answer = x.to_str() + x.to_hex_str() + std::to_string(x.hash())),
    TARN_STEP(answer =
                  std::to_string(x.is_inf() + 2 * x.is_nan() + 4 * x.is_zero() +
                                 8 * x.is_subnormal() + 16 * x.is_normal() + 32 * x.get_sign())),
    TARN_STEP(x.self_neg()),
    TARN_STEP(x.set_sign(in.ConsumeBool())),
    TARN_STEP(x.self_specialize_repr(consume_repr(in))),
    TARN_STEP(x.set_rounding_mode(consume_mode(in))),
    TARN_STEP(const int which = in.ConsumeIntegralInRange(0, 2); if (which == 0) x.self_nan();
              else if (which == 1) x.self_inf(in.ConsumeBool());
              else x.self_zero(in.ConsumeBool())),
    TARN_STEP(x = IEEEFloat::max_value(x.get_format())),
    TARN_STEP(const IEEEFloat::format f = consume_format(in);
              const IEEEFloat::Repr r = consume_repr(in); x = IEEEFloat(f, r, consume_mode(in))),
    TARN_STEP(IEEEFloat copy(x); IEEEFloat moved(std::move(copy)); copy = moved;
              x = std::move(copy)),
    TARN_STEP(const IEEEFloat::format f = x.get_format(); answer = text_of(f.max_mantissa());
              if (f.exponent_width >= 1) answer += text_of(f.bias()) + text_of(f.max_exponent());
              const std::string text = in.ConsumeBytesAsString(in.ConsumeIntegralInRange(0, 40));
              answer += IEEEFloat::from_string(text, f, x.get_rounding_mode()).to_str()),
    TARN_STEP(x = fma(x, y, in.ConsumeBool() ? x : y)),
    TARN_STEP(x = fma(y, x, y, consume_direction(in))),
    TARN_STEP(const tarn::rounding r = consume_direction(in);
              const int which = in.ConsumeIntegralInRange(0, 4); x = which == 0   ? add(x, y, r)
                                                                     : which == 1 ? sub(x, y, r)
                                                                     : which == 2 ? mul(x, y, r)
                                                                     : which == 3 ? div(x, y, r)
                                                                                  : sqrt(x, r)),
    TARN_STEP(const IEEEFloat::format f = consume_format(in);
              x = convert(x, f, consume_direction(in))),
    TARN_STEP(x = round_to_integral(x, consume_direction(in), in.ConsumeBool())),
    TARN_STEP(const tarn::rounding r = consume_direction(in); const bool exact = in.ConsumeBool();
              tarn::clear_ieee_flags(); answer = std::to_string(to_int32(x, r, exact)) + ' ' +
                                                 std::to_string(to_int64(x, r, exact)) + ' ' +
                                                 std::to_string(to_uint32(x, r, exact)) + ' ' +
                                                 std::to_string(to_uint64(x, r, exact)) + ' ' +
                                                 std::to_string(tarn::ieee_flags())),
    TARN_STEP(const IEEEFloat::format f = consume_format(in);
              const tarn::rounding r = consume_direction(in);
              const auto v = in.template ConsumeIntegral<std::int64_t>();
              x = in.ConsumeBool() ? from_int64(v, f, r)
                                   : from_uint64(static_cast<std::uint64_t>(v), f, r)),
    TARN_STEP(const IEEEFloat z =
                  in.ConsumeBool()
                      ? y
                      : consume_value(in, consume_format(in), consume_repr(in), consume_mode(in));
              x = in.ConsumeBool()   ? remainder(x, z)
                  : in.ConsumeBool() ? copysign(x, z)
                                     : abs(x)),
    TARN_STEP(using Op = IEEEFloat(*)(const IEEEFloat&, const IEEEFloat&); using namespace tarn;
              const Op ops[] = {minimum, maximum, minimum_number, maximum_number};
              x = ops[in.ConsumeIntegralInRange(0, 3)](x, y)),
    TARN_STEP(answer = std::to_string(total_order(x, y) + 2 * total_order_mag(x, y) +
                                      4 * int(classify(x)) + 64 * is_signaling(x))),
    TARN_STEP(const long n = in.ConsumeBool() ? in.template ConsumeIntegral<long>()
                                              : in.template ConsumeIntegralInRange<long>(-300, 300);
              answer = std::to_string(log_b(x)); x = scale_b(x, n)),
    // Operands of another format and representation than x.
    TARN_STEP(const IEEEFloat::format f = consume_format(in);
              const IEEEFloat z = consume_value(in, f, consume_repr(in), consume_mode(in));
              const int which = in.ConsumeIntegralInRange(0, 5);
              const IEEEFloat& w = in.ConsumeBool() ? y : z; if (which == 0) x += z;
              if (which == 1) x = x - z; if (which == 2) x *= z;
              if (which == 3) x = div(x, z, consume_direction(in));
              if (which == 4) x = fma(x, z, w, consume_direction(in));
              if (which == 5) answer =
                  std::to_string((x != z) + 2 * (x > z) + 4 * (x >= w) + 8 * ieee_cmp(z, x))),
};

#undef TARN_STEP

/// True when `message` is one of the texts the library throws with (an
/// invalid numeral is quoted whole, but what() ends at a NUL byte within it).
inline bool is_library_message(const std::string& message) {
    static const std::regex texts(
        "reached limit on float precision|can't convert (NaN|infinity) to a Number|"
        "can't convert (NaN|Infinity) to float str|bad rounding mode: -?[0-9]+|"
        "invalid number: \"[\\s\\S]*|value has no format");
    return std::regex_match(message, texts);
}

/// Everything a failed operation must leave as it was.
inline std::string describe(const IEEEFloat& x) {
    const IEEEFloat::format f = x.get_format();
    return "(" + std::to_string(f.exponent_width) + "," + std::to_string(f.mantissa_width) +
           ") repr " + std::to_string(x.get_repr()) + " mode " +
           std::to_string(x.get_rounding_mode()) + " bits 0x" + x.get_bits().to_mpz().get_str(16);
}

/// 1 for a pattern of its format, 0 for one outside it, -1 for a word told
/// another format: that computes on the word's own widths, as documented, and
/// its pattern is the word's.
inline int fits(const IEEEFloat& x) {
    const IEEEFloat::format f = x.get_format();
    if (x.get_repr() != IEEEFloat::REPR_GENERIC && x.get_repr() != IEEEFloat::get_best_repr(f))
        return -1;
    const mpz_class bits = x.get_bits().to_mpz();
    return bits >= 0 && bits < (mpz_class(1) << (f.exponent_width + f.mantissa_width + 1));
}

/// Runs operation `op` on x and y with its checks. Returns "" or what went
/// wrong; `outcome` receives the answer or the message thrown.
template <class In>
std::string checked_step(In& in, int op, IEEEFloat& x, const IEEEFloat& y, std::string& outcome) {
    const std::string before = describe(x);
    const bool was_inside = fits(x) == 1 && fits(y) == 1;
    const auto failure = [&](const std::string& what) {
        return "op " + std::to_string(op) + " on " + before + ", y " + describe(y) + ": " + what;
    };
    try {
        steps<In>[op](in, x, y, outcome);
    } catch (const IEEEFloat::error& e) {
        outcome = e.what();
        if (!is_library_message(outcome)) return failure("threw \"" + outcome + "\"");
        if (describe(x) != before) return failure("threw and left " + describe(x));
    }
    if (x.get_bits().sign() < 0 || (was_inside && fits(x) == 0))
        return failure("gave " + describe(x));
    return std::string();
}

/// A sequence of up to six operations read from `in`. Calls `observe(op, x, outcome)`
/// after each; returns the first failure, or "".
template <class In, class Observe>
std::string run_sequence(In& in, Observe observe) {
    const IEEEFloat::format f = consume_format(in);
    const IEEEFloat::Repr repr = consume_repr(in);
    IEEEFloat x = consume_value(in, f, repr, consume_mode(in));
    for (int step = 0; step < 6 && in.remaining_bytes() > 0; ++step) {
        const int op = in.ConsumeIntegralInRange(0, int(std::size(steps<In>)) - 1);
        const IEEEFloat y = consume_value(in, x.get_format(), x.get_repr(), x.get_rounding_mode());
        std::string outcome;
        const std::string failure = checked_step(in, op, x, y, outcome);
        if (!failure.empty()) return failure;
        observe(op, x, outcome);
    }
    return "";
}

} // namespace tarn_testing
