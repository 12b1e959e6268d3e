// The differential table: one row per operation of IEEEFloat, each a library call
// beside the MPFR reference's answer. The rows are shared by the ctest driver
// (tests/differential_test.cpp: every pattern of tiny formats, seeded random
// operands of wider ones) and the libFuzzer entry (fuzz/differential.cpp), so a new
// operation is one more row and gets every format, mode and operand source at once.
//
// A row returns "" when the library agrees, else a description of the mismatch; it
// never aborts and holds no test framework, so each driver reports in its own way.
//
// Every row that rounds follows one protocol: with a mode from 0 to 3 the result
// equals the reference bit for bit (NaNs by class); with any other mode a binary32
// or binary64 word rounds to nearest-even, and a generic value either gives the exact
// result or throws "bad rounding mode: N" and keeps its bits. Either way the value
// keeps its mode, and the representation is the one the operation promises.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/lowp/lowp.h"
#include "tarn/lowp/simd.h"
#include "tarn/swflt/swflt.h"
#include "tests/oracle/oracle.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace rows {

using tarn::IEEEFloat;
using tarn::QNumber;
using Format = IEEEFloat::format;
using oracle::Kind;
using oracle::Operation;

inline oracle::Format to_oracle(Format f) {
    return {static_cast<unsigned>(f.exponent_width), static_cast<unsigned>(f.mantissa_width)};
}

inline mpz_class bits_of(const IEEEFloat& x) {
    return x.get_bits().to_mpz();
}

/// Where a case runs: the operands' format and representation, and their mode.
struct Setting {
    Format format;
    IEEEFloat::Repr repr;
    int mode;

    oracle::Format ofmt() const { return to_oracle(format); }
    bool valid_mode() const { return mode >= 0 && mode <= 3; }
    bool word() const { return repr != IEEEFloat::REPR_GENERIC; }
};

inline IEEEFloat make(const Setting& s, const mpz_class& bits) {
    IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), s.format);
    x.self_specialize_repr(s.repr);
    x.set_rounding_mode(static_cast<IEEEFloat::rounding_mode>(s.mode));
    return x;
}

inline std::string describe(const Setting& s, const mpz_class& bits) {
    return oracle::describe(s.ofmt(), bits) + (s.word() ? " word" : " generic") + " mode " +
           std::to_string(s.mode);
}

/// The operands of one case; each row reads the ones its input kind provides.
struct Operands {
    mpz_class a, b, c;      ///< patterns of the setting's format (c: Input::Triple)
    mpz_class n;            ///< Input::Integer, a 64-bit integer of either sign
    mpq_class q;            ///< Input::Rational
    std::string text;       ///< Input::Numeral
    Format to{};            ///< set_format's destination
    unsigned long width{0}; ///< to_integer's width
    bool flag{false};       ///< a direction or a sign
    int direction{0};       ///< a tarn::rounding, for the explicit-direction operations
};

/// What a row needs drawn: `Pair` two patterns built for `Row::op`, `Root` a square
/// root operand, `Single` one pattern, `Compare` a pattern and one related to it,
/// `Rational` q, `Numeral` text, `Triple` three patterns for fma, `Integral` one
/// around integers, `Integer` n; `to`, `width`, `flag` and `direction` are always drawn.
enum class Input { Pair, Root, Single, Compare, Rational, Numeral, Triple, Integral, Integer };

#define ROW_EXPECT(condition, what)                                                                \
    if (condition) {                                                                               \
    } else                                                                                         \
        return std::string(what)

/// "" when `got` is the reference's `want`, else both described.
inline std::string mismatch(oracle::Format f, const mpz_class& got, const mpz_class& want) {
    if (oracle::same_result(f, got, want)) return "";
    return "\n  got  " + oracle::describe(f, got) + "\n  want " + oracle::describe(f, want);
}

/// The flags an operation raises: cleared before it, read after it.
inline unsigned flags_of(const std::function<void()>& op) {
    tarn::clear_ieee_flags();
    op();
    return tarn::ieee_flags();
}

/// "" when the raised flags are the reference's, else both.
inline std::string flag_mismatch(unsigned got, unsigned want) {
    if (got == want) return "";
    return "\n  flags got " + std::to_string(got) + " want " + std::to_string(want);
}

/// The reference's result of an operation in a format under a mode.
using Reference = std::function<mpz_class(oracle::Format, int)>;

/// Whether the result needs no rounding: rounding up and down agree (zeros of
/// either sign count as one, as only the mode decides the sign of an exact zero
/// sum). An overflow is exact when a wider exponent field holds it at this precision.
inline bool exact_result(oracle::Format f, const Reference& reference) {
    const mpz_class up = reference(f, oracle::TOWARD_POSITIVE);
    const mpz_class down = reference(f, oracle::TOWARD_NEGATIVE);
    if (oracle::same_result(f, up, down)) return true;
    const Kind up_kind = oracle::classify(f, up), down_kind = oracle::classify(f, down);
    if (up_kind == Kind::Zero && down_kind == Kind::Zero) return true;
    if (up_kind != Kind::Infinite && down_kind != Kind::Infinite) return false;
    return f.e < 54 && exact_result({f.e + 8, f.m}, reference);
}

/// Runs `op` on x, which rounds under `s.mode` into `result` (format and expected
/// representation), under the protocol above; `word` tells whether the operation
/// takes the word path that ignores a bad mode. An exact overflow may also throw
/// with `lenient` (the reader decides far overflows from the exponent alone) and in
/// formats of one exponent bit, where every finite value is subnormal.
inline std::string check_rounded(const Setting& s, const Setting& result, bool word, bool lenient,
                                 IEEEFloat& x, const std::function<void(IEEEFloat&)>& op,
                                 const Reference& reference) {
    const oracle::Format f = result.ofmt();
    const mpz_class before = bits_of(x);
    const Format format_before = x.get_format();
    const IEEEFloat::Repr repr_before = x.get_repr();
    std::string wrong;
    if (s.valid_mode() || word) {
        op(x);
        wrong = mismatch(f, bits_of(x), reference(f, s.valid_mode() ? s.mode : 0));
    } else {
        const bool exact = exact_result(f, reference);
        const mpz_class up = reference(f, oracle::TOWARD_POSITIVE);
        const mpz_class down = reference(f, oracle::TOWARD_NEGATIVE);
        const bool either = exact && (lenient || f.e == 1) && up != down &&
                            (oracle::classify(f, up) == Kind::Infinite ||
                             oracle::classify(f, down) == Kind::Infinite);
        try {
            op(x);
            ROW_EXPECT(exact, "an inexact result with a bad mode did not throw");
            wrong = mismatch(f, bits_of(x), reference(f, oracle::NEAREST_EVEN));
        } catch (const IEEEFloat::error& e) {
            ROW_EXPECT(!exact || either, std::string("an exact result threw ") + e.what());
            ROW_EXPECT(e.what() == "bad rounding mode: " + std::to_string(s.mode), e.what());
            ROW_EXPECT(bits_of(x) == before && x.get_format() == format_before &&
                           x.get_repr() == repr_before,
                       "the value changed on a throw");
            return "";
        }
    }
    ROW_EXPECT(wrong.empty(), wrong);
    ROW_EXPECT(x.get_repr() == result.repr,
               "representation " + std::to_string(x.get_repr()) + " kept/made");
    ROW_EXPECT(x.get_rounding_mode() == s.mode, "mode lost");
    return "";
}

/// The message of the IEEEFloat::error that `action` throws, or "no error".
inline std::string error_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const IEEEFloat::error& e) {
        return e.what();
    }
    return "no error";
}

/// `op` must throw the library error `message`.
inline std::string expect_error(const std::function<void()>& op, const std::string& message) {
    const std::string got = error_of(op);
    return got == message ? "" : "got \"" + got + "\", expected " + message;
}

// ---- The rows -----------------------------------------------------------------

template <Operation op>
std::string arithmetic(const Setting& s, const Operands& in) {
    // One mantissa bit makes one quotient a documented tie under nearest-even.
    if (op == Operation::Div && s.format.mantissa_width == 1 && s.mode == 0) return "";
    IEEEFloat x = make(s, in.a);
    const IEEEFloat y = make(s, in.b);
    return check_rounded(
        s, s, s.word(), true, x,
        [&](IEEEFloat& v) {
            if (op == Operation::Add) v += y;
            if (op == Operation::Sub) v -= y;
            if (op == Operation::Mul) v *= y;
            if (op == Operation::Div) v /= y;
            if (op == Operation::Sqrt) v.sqrt();
        },
        [&](oracle::Format f, int mode) {
            // Operands widen exactly when the reference asks for a wider format.
            return oracle::apply(f, op, oracle::convert(s.ofmt(), in.a, f, mode),
                                 oracle::convert(s.ofmt(), in.b, f, mode), mode);
        });
}

inline std::string set_format(const Setting& s, const Operands& in) {
    IEEEFloat x = make(s, in.a);
    // A conversion to the value's own format changes nothing, representation included.
    const Setting result{in.to, in.to == s.format ? s.repr : IEEEFloat::get_best_repr(in.to),
                         s.mode};
    return check_rounded(
        s, result, s.word() && result.word(), true, x, [&](IEEEFloat& v) { v.set_format(in.to); },
        [&](oracle::Format f, int mode) { return oracle::convert(s.ofmt(), in.a, f, mode); });
}

/// A value made from scratch in the format's usual representation, as the readers
/// of numbers and numerals make it.
/// With a valid mode its flags must be the reference's `flags()`.
inline std::string made(const Setting& s, bool lenient,
                        const std::function<IEEEFloat(IEEEFloat::rounding_mode)>& maker,
                        const Reference& reference, const std::function<unsigned()>& flags) {
    const auto mode = static_cast<IEEEFloat::rounding_mode>(s.mode);
    IEEEFloat x(s.format, mode);
    const std::string wrong = check_rounded(
        s, {s.format, IEEEFloat::get_best_repr(s.format), s.mode}, false, lenient, x,
        [&](IEEEFloat& v) { v = maker(mode); }, reference);
    if (!wrong.empty() || !s.valid_mode()) return wrong;
    return flag_mismatch(flags_of([&] { maker(mode); }), flags());
}

inline std::string from_number(const Setting& s, const Operands& in) {
    return made(
        s, false, [&](auto mode) { return IEEEFloat::from_number(QNumber(in.q), s.format, mode); },
        [&](oracle::Format f, int mode) { return oracle::from_number_model(in.q, f, mode); },
        [&] {
            unsigned flags = 0;
            oracle::from_number_model(in.q, s.ofmt(), s.mode, &flags);
            return flags;
        });
}

inline std::string from_string(const Setting& s, const Operands& in) {
    return made(
        s, true, [&](auto mode) { return IEEEFloat::from_string(in.text, s.format, mode); },
        [&](oracle::Format f, int mode) { return oracle::read_numeral(f, in.text, mode); },
        [&] {
            unsigned flags = 0;
            oracle::read_numeral(s.ofmt(), in.text, s.mode, &flags);
            return flags;
        });
}

inline std::string to_integer(const Setting& s, const Operands& in) {
    const mpz_class want = oracle::to_integer(s.ofmt(), in.a, s.mode, in.width);
    const mpz_class got = make(s, in.a).to_integer(in.width).to_mpz();
    ROW_EXPECT(got == want, "width " + std::to_string(in.width) + ": got " + got.get_str() +
                                " want " + want.get_str());
    return "";
}

inline std::string round_to_integral(const Setting& s, const Operands& in) {
    if (!s.valid_mode()) return "";
    const IEEEFloat x = make(s, in.a);
    const IEEEFloat r = round(x);
    const std::string wrong =
        mismatch(s.ofmt(), bits_of(r), oracle::round_to_integral(s.ofmt(), in.a, s.mode));
    ROW_EXPECT(wrong.empty(), wrong);
    // Zeros, infinities and NaNs come back as they are; other results are made by
    // from_number, in the format's usual representation.
    const bool copied = x.is_zero() || x.is_inf() || x.is_nan();
    ROW_EXPECT(r.get_repr() == (copied ? s.repr : IEEEFloat::get_best_repr(s.format)),
               "representation " + std::to_string(r.get_repr()));
    ROW_EXPECT(r.get_format() == s.format && r.get_rounding_mode() == s.mode,
               "format or mode lost");
    return "";
}

inline std::string compare(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a), y = make(s, in.b);
    const mpz_class a = bits_of(x), b = bits_of(y);
    const int want = oracle::compare(s.ofmt(), a, b);
    const std::string with = " with " + oracle::describe(s.ofmt(), b);
    tarn::swflt::float_exception_flags = 0;
    ROW_EXPECT(ieee_cmp(x, y) == want,
               "ieee_cmp" + with + " gave " + std::to_string(ieee_cmp(x, y)));
    ROW_EXPECT((x < y) == (want == -1), "<" + with);
    ROW_EXPECT((x <= y) == (want == -1 || want == 0), "<=" + with);
    ROW_EXPECT((x == y) == (want == 0), "==" + with);
    ROW_EXPECT(tarn::swflt::float_exception_flags == 0,
               "a comparison left the component's flags" + with);
    const unsigned quiet = oracle::compare_flags(s.ofmt(), a, b, false);
    const unsigned ordered = oracle::compare_flags(s.ofmt(), a, b, true);
    const unsigned raised[] = {flags_of([&] { ieee_cmp(x, y); }), flags_of([&] { (void)(x < y); }),
                               flags_of([&] { (void)(x <= y); }),
                               flags_of([&] { (void)(x == y); })};
    ROW_EXPECT(
        raised[0] == quiet && raised[1] == ordered && raised[2] == ordered && raised[3] == quiet,
        "flags of ieee_cmp, <, <=, == " + std::to_string(raised[0]) + std::to_string(raised[1]) +
            std::to_string(raised[2]) + std::to_string(raised[3]) + with);
    return "";
}

template <bool packed>
std::string neighbour(const Setting& s, const Operands& in) {
    for (const bool up : {true, false}) {
        IEEEFloat x = make(s, in.a);
        // The reference steps the pattern the value holds: from_bits makes every NaN
        // the library NaN.
        const mpz_class held = bits_of(x);
        if (packed)
            x.packed_next(up);
        else
            x.next_representable(up);
        const std::string wrong = mismatch(s.ofmt(), bits_of(x),
                                           packed ? oracle::packed_next(s.ofmt(), held, up)
                                                  : oracle::next_representable(s.ofmt(), held, up));
        ROW_EXPECT(wrong.empty(), (up ? "up" : "down") + wrong);
        ROW_EXPECT(x.get_repr() == s.repr && x.get_rounding_mode() == s.mode,
                   "representation or mode lost");
    }
    return "";
}

inline std::string to_number(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    if (!oracle::is_finite(s.ofmt(), in.a))
        return expect_error([&] { x.to_number(); }, oracle::classify(s.ofmt(), in.a) == Kind::NaN
                                                        ? "can't convert NaN to a Number"
                                                        : "can't convert infinity to a Number");
    ROW_EXPECT(x.to_number().to_mpq() == oracle::to_rational(s.ofmt(), in.a),
               "got " + x.to_number().to_mpq().get_str());
    return "";
}

inline std::string to_float_str(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    if (!oracle::is_finite(s.ofmt(), in.a))
        return expect_error([&] { x.to_float_str(); }, oracle::classify(s.ofmt(), in.a) == Kind::NaN
                                                           ? "can't convert NaN to float str"
                                                           : "can't convert Infinity to float str");
    const std::string got = x.to_float_str();
    // The reference searches on exact rationals, which grow with the exponent range:
    // past binary128's it would take seconds, so wider formats, whose numerals run to
    // tens of thousands of digits, are checked by reading back alone.
    const bool referenced = s.format.exponent_width <= 15;
    if (referenced) {
        const std::string want = oracle::shortest_decimal(s.ofmt(), in.a);
        ROW_EXPECT(got == want, "got " + got + " want " + want);
    }
    const mpz_class read =
        bits_of(IEEEFloat::from_string(got, s.format, IEEEFloat::ROUND_NEAREST_EVEN));
    ROW_EXPECT((!referenced || oracle::read_numeral(s.ofmt(), got, oracle::NEAREST_EVEN) == in.a) &&
                   read == in.a,
               got + " does not read back: " + oracle::describe(s.ofmt(), read));
    return "";
}

inline std::string hex_read_back(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const std::string text = x.to_hex_str();
    const IEEEFloat back = IEEEFloat::from_string(text, s.format, IEEEFloat::ROUND_NEAREST_EVEN);
    const std::string wrong = mismatch(s.ofmt(), bits_of(back), bits_of(x));
    ROW_EXPECT(wrong.empty(), text + wrong);
    return "";
}

inline std::string classes(const Setting& s, const Operands& in) {
    IEEEFloat x = make(s, in.a);
    const Kind kind = oracle::classify(s.ofmt(), in.a);
    const bool is[] = {x.is_zero(), x.is_subnormal(), x.is_normal(), x.is_inf(), x.is_nan()};
    for (const Kind k : {Kind::Zero, Kind::Subnormal, Kind::Normal, Kind::Infinite, Kind::NaN})
        ROW_EXPECT(is[static_cast<int>(k)] == (k == kind), "class");
    const unsigned long sign_bit = s.ofmt().width() - 1;
    const mpz_class held = bits_of(x);
    ROW_EXPECT(kind == Kind::NaN || held == in.a, "from_bits changed the pattern");
    ROW_EXPECT(x.get_sign() == (mpz_tstbit(held.get_mpz_t(), sign_bit) == 1), "get_sign");
    x.self_neg();
    mpz_class negated = held;
    if (kind != Kind::NaN) mpz_combit(negated.get_mpz_t(), sign_bit);
    ROW_EXPECT(bits_of(x) == negated, "self_neg gave " + oracle::describe(s.ofmt(), bits_of(x)));
    x.set_sign(in.flag);
    ROW_EXPECT(x.get_sign() == in.flag && (bits_of(x) >> sign_bit) == (in.flag ? 1 : 0),
               "set_sign");
    ROW_EXPECT(x.get_repr() == s.repr && x.get_rounding_mode() == s.mode,
               "representation or mode lost");
    ROW_EXPECT(bits_of(IEEEFloat::max_value(s.format)) == oracle::max_pattern(s.ofmt(), false),
               "max_value");
    return "";
}

/// An operation in the explicit direction `in.direction`: the bits and flags of
/// `op`'s result against the reference's, and the format, representation and
/// stored mode that the result must take from its first operand (`result`).
inline std::string directed(const Operands& in, const Setting& result,
                            const std::function<IEEEFloat(tarn::rounding)>& op,
                            const std::function<mpz_class(unsigned*)>& reference) {
    const auto direction = static_cast<tarn::rounding>(in.direction);
    IEEEFloat x;
    const unsigned raised = flags_of([&] { x = op(direction); });
    unsigned flags = 0;
    const mpz_class want = reference(&flags);
    const std::string wrong = mismatch(result.ofmt(), bits_of(x), want);
    ROW_EXPECT(wrong.empty(), "direction " + std::to_string(in.direction) + wrong);
    ROW_EXPECT(raised == flags,
               "direction " + std::to_string(in.direction) + flag_mismatch(raised, flags));
    ROW_EXPECT(x.get_format() == result.format && x.get_repr() == result.repr &&
                   x.get_rounding_mode() == result.mode,
               "format, representation or mode of the result");
    return "";
}

template <Operation op>
std::string directed_arithmetic(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a), y = make(s, in.b);
    // The reference reads the patterns the values hold (from_bits folds NaNs).
    const mpz_class a = bits_of(x), b = bits_of(y);
    return directed(
        in, s,
        [&](tarn::rounding r) {
            switch (op) {
            case Operation::Add:
                return add(x, y, r);
            case Operation::Sub:
                return sub(x, y, r);
            case Operation::Mul:
                return mul(x, y, r);
            case Operation::Div:
                return div(x, y, r);
            default:
                return sqrt(x, r);
            }
        },
        [&](unsigned* flags) { return oracle::apply(s.ofmt(), op, a, b, in.direction, flags); });
}

inline std::string directed_convert(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const Setting result{in.to, in.to == s.format ? s.repr : IEEEFloat::get_best_repr(in.to),
                         s.mode};
    return directed(
        in, result, [&](tarn::rounding r) { return convert(x, in.to, r); },
        [&](unsigned* flags) {
            return oracle::convert(s.ofmt(), bits_of(x), to_oracle(in.to), in.direction, flags);
        });
}

inline std::string fused(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a), y = make(s, in.b), z = make(s, in.c);
    const mpz_class a = bits_of(x), b = bits_of(y), c = bits_of(z);
    const std::string wrong = directed(
        in, s, [&](tarn::rounding r) { return fma(x, y, z, r); },
        [&](unsigned* flags) { return oracle::fma(s.ofmt(), a, b, c, in.direction, flags); });
    ROW_EXPECT(wrong.empty(), wrong);
    IEEEFloat v = x;
    return check_rounded(
        s, s, s.word(), true, v, [&](IEEEFloat& w) { w = fma(w, y, z); },
        [&](oracle::Format f, int mode) {
            return oracle::fma(f, oracle::convert(s.ofmt(), a, f, mode),
                               oracle::convert(s.ofmt(), b, f, mode),
                               oracle::convert(s.ofmt(), c, f, mode), mode);
        });
}

inline std::string integral(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    return directed(
        in, s, [&](tarn::rounding r) { return round_to_integral(x, r, in.flag); },
        [&](unsigned* flags) {
            return oracle::round_to_integral(s.ofmt(), bits_of(x), in.direction, in.flag, flags);
        });
}

inline std::string to_integers(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const auto r = static_cast<tarn::rounding>(in.direction);
    const bool exact = in.flag;
    const std::function<mpz_class()> conversions[] = {
        [&] { return mpz_class(static_cast<long>(tarn::to_int32(x, r, exact))); },
        [&] { return mpz_class(static_cast<long>(tarn::to_int64(x, r, exact))); },
        [&] { return mpz_class(static_cast<unsigned long>(tarn::to_uint32(x, r, exact))); },
        [&] { return mpz_class(static_cast<unsigned long>(tarn::to_uint64(x, r, exact))); }};
    for (int k = 0; k < 4; ++k) {
        mpz_class got;
        const unsigned raised = flags_of([&] { got = conversions[k](); });
        unsigned flags = 0;
        const mpz_class want = oracle::to_int(s.ofmt(), bits_of(x), in.direction, k % 2 ? 64 : 32,
                                              k < 2, exact, &flags);
        const std::string what = std::string(k < 2 ? "int" : "uint") + (k % 2 ? "64" : "32") +
                                 " direction " + std::to_string(in.direction);
        ROW_EXPECT(got == want, what + " got " + got.get_str() + " want " + want.get_str());
        ROW_EXPECT(raised == flags, what + flag_mismatch(raised, flags));
    }
    return "";
}

inline std::string from_integers(const Setting& s, const Operands& in) {
    const Setting result{s.format, IEEEFloat::get_best_repr(s.format),
                         in.direction <= 3 ? in.direction : 0};
    return directed(
        in, result,
        [&](tarn::rounding r) {
            // Non-negative integers below 2^63 go either way.
            if (in.n < 0 || (in.flag && in.n.fits_slong_p()))
                return tarn::from_int64(in.n.get_si(), s.format, r);
            return tarn::from_uint64(mpz_getlimbn(in.n.get_mpz_t(), 0), s.format, r);
        },
        [&](unsigned* flags) { return oracle::from_integer(in.n, s.ofmt(), in.direction, flags); });
}

// ---- Notations -------------------------------------------------------------------

/// Every notation reads back to the value: the shortest scientific text, enough
/// significant digits (ceil(p log10 2) + 1 for precision p) and the hexadecimal text.
inline std::string notation_read_back(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const int enough = static_cast<int>((s.format.mantissa_width + 1) * 30103 / 100000 + 2);
    for (const std::string& text :
         {x.to_sci_str(), x.to_str_digits(enough, in.flag ? 'e' : 'g'), x.to_hex_str()}) {
        const auto back = IEEEFloat::from_string(text, s.format, IEEEFloat::ROUND_NEAREST_EVEN);
        const std::string wrong = mismatch(s.ofmt(), bits_of(back), bits_of(x));
        ROW_EXPECT(wrong.empty(), text + wrong);
    }
    return "";
}

/// The style of a to_str_digits case, whose precision is in.width.
inline char digits_style(const Operands& in) {
    return "efg"[(in.width + in.flag + static_cast<unsigned long>(in.direction)) % 3];
}

/// The printf precision that asks for the same digits: %e counts those after the point.
inline int printf_precision(char style, int precision) {
    return style == 'e' && precision > 0 ? precision - 1 : precision;
}

inline std::string digits_text(const Setting& s, const Operands& in) {
    const char style = digits_style(in);
    const int precision = static_cast<int>(in.width);
    const std::string got = make(s, in.a).to_str_digits(precision, style);
    const std::string want =
        oracle::printf_text(s.ofmt(), in.a, printf_precision(style, precision), style);
    ROW_EXPECT(got == want, style + std::to_string(precision) + " got " + got + " want " + want);
    return "";
}

/// A numeral followed by text that cannot continue it: from_chars takes the numeral alone.
inline std::string numeral_prefix(const Setting& s, const Operands& in) {
    // The prefix is found before anything is converted; wide exponent ranges would
    // only make the readings slow.
    if (!s.valid_mode() || s.format.exponent_width > 15) return "";
    static const char* const junk[] = {"", "x", "p-", " 1", "_", ")", "-", "("};
    const char* const tail = junk[in.width % 8];
    const auto mode = static_cast<IEEEFloat::rounding_mode>(s.mode);
    std::size_t consumed = 0;
    const IEEEFloat x = IEEEFloat::from_chars(in.text + tail, s.format, mode, consumed);
    ROW_EXPECT(consumed == in.text.size(),
               tail + std::string(" consumed ") + std::to_string(consumed));
    const std::string wrong =
        mismatch(s.ofmt(), bits_of(x), oracle::read_numeral(s.ofmt(), in.text, s.mode));
    ROW_EXPECT(wrong.empty(), wrong);
    return "";
}

// ---- IEEE 754's remaining general operations -----------------------------------

/// An operation whose result is held like x and rounded under x's mode: with a
/// valid mode the reference's bits and flags; with another, a word rounds to
/// nearest and a generic value gives that result or throws for the mode.
inline std::string like_first(const Setting& s, const std::function<IEEEFloat()>& op,
                              const std::function<mpz_class(int, unsigned*)>& reference) {
    IEEEFloat r;
    unsigned raised = 0, flags = 0;
    const std::string error = error_of([&] { raised = flags_of([&] { r = op(); }); });
    const mpz_class want = reference(s.valid_mode() ? s.mode : 0, &flags);
    if (error != "no error" && !s.valid_mode() && !s.word())
        return error == "bad rounding mode: " + std::to_string(s.mode) ? "" : error;
    const std::string wrong = mismatch(s.ofmt(), bits_of(r), want);
    ROW_EXPECT(wrong.empty(), error + wrong);
    ROW_EXPECT(!s.valid_mode() || raised == flags, flag_mismatch(raised, flags));
    ROW_EXPECT(r.get_format() == s.format && r.get_repr() == s.repr &&
                   r.get_rounding_mode() == s.mode,
               "format, representation or mode of the result");
    return "";
}

/// The remainder by b in the same format, and by b converted to `in.to`.
inline std::string remainder(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a), y = make(s, in.b);
    // The fuzz driver draws no destination for this row: then b's own format.
    const Format to = in.to.exponent_width == 0 ? s.format : in.to;
    const IEEEFloat other = convert(y, to, tarn::rounding::nearest_even);
    for (const IEEEFloat* b : {&y, &other}) {
        const std::string wrong = like_first(
            s, [&] { return tarn::remainder(x, *b); },
            [&](int mode, unsigned* flags) {
                return oracle::remainder(s.ofmt(), bits_of(x), to_oracle(b->get_format()),
                                         bits_of(*b), mode, flags);
            });
        ROW_EXPECT(wrong.empty(), "by " + oracle::to_string(to_oracle(b->get_format())) + wrong);
    }
    return "";
}

inline std::string extremes(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a), y = make(s, in.b);
    // b also in another format, where it may win and be rounded into a's.
    const Format to = in.to.exponent_width == 0 ? s.format : in.to;
    const IEEEFloat other = convert(y, to, tarn::rounding::to_odd);
    IEEEFloat (*const ops[])(const IEEEFloat&, const IEEEFloat&) = {
        tarn::minimum, tarn::maximum, tarn::minimum_number, tarn::maximum_number};
    for (int k = 0; k < 8; ++k) {
        const IEEEFloat& b = k < 4 ? y : other;
        const std::string wrong = like_first(
            s, [&] { return ops[k % 4](x, b); },
            [&](int mode, unsigned* flags) {
                return oracle::extreme(s.ofmt(), bits_of(x), to_oracle(b.get_format()), bits_of(b),
                                       k % 2, k % 4 >= 2, mode, flags);
            });
        ROW_EXPECT(wrong.empty(), "operation " + std::to_string(k) + wrong);
    }
    return "";
}

/// The scale of a scale_b case: within the format's range, across it, or the extremes.
inline long scale_of(const Operands& in) {
    const long w = static_cast<long>(in.width + in.a.get_ui() % 61);
    const long scales[] = {w, -w, 37 * w, -37 * w, LONG_MAX, LONG_MIN};
    return scales[(in.direction + in.width) % 6];
}

inline std::string exponents(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const long n = scale_of(in);
    const std::string wrong = like_first(
        s, [&] { return tarn::scale_b(x, n); },
        [&](int mode, unsigned* flags) {
            return oracle::scale_b(s.ofmt(), bits_of(x), n, mode, flags);
        });
    ROW_EXPECT(wrong.empty(), "scale " + std::to_string(n) + wrong);
    long got = 0;
    unsigned flags = 0;
    const unsigned raised = flags_of([&] { got = tarn::log_b(x); });
    const bool right = got == oracle::log_b(s.ofmt(), bits_of(x), &flags) && raised == flags;
    return right ? "" : "log_b " + std::to_string(got) + flag_mismatch(raised, flags);
}

// ---- Operands of different formats ------------------------------------------------
//
// The second operand is in.b converted to the format in.to, held generically when
// in.flag is set and else in that format's usual representation; fma's third is
// in.c in a third format. The reference rounds the exact result into s.format.

/// `bits`, a pattern of s.format, converted to `f`, held generically or in f's
/// usual representation; `held` receives the pattern the value holds.
inline IEEEFloat other(const Setting& s, Format f, const mpz_class& bits, bool generic,
                       mpz_class& held) {
    const auto repr = generic ? IEEEFloat::REPR_GENERIC : IEEEFloat::get_best_repr(f);
    const IEEEFloat y = make({f, repr, 0}, oracle::convert(s.ofmt(), bits, to_oracle(f), 0));
    held = bits_of(y);
    return y;
}

/// `op` on x and y (fma: x * y + z, z in a third format) in each direction and
/// under x's own mode, against the reference.
template <Operation op, bool fused = false>
std::string mixed(const Setting& s, const Operands& in) {
    const Format third{std::max(in.to.exponent_width, 2UL), s.format.mantissa_width};
    mpz_class b, c;
    const IEEEFloat x = make(s, in.a), y = other(s, in.to, in.b, in.flag, b),
                    z = other(s, third, in.c, !in.flag, c);
    const mpz_class a = bits_of(x);
    const auto compute = [&](const IEEEFloat& v, int direction) {
        const auto r = static_cast<tarn::rounding>(direction);
        if (fused) return direction < 0 ? fma(v, y, z) : fma(v, y, z, r);
        if (op == Operation::Add) return direction < 0 ? v + y : add(v, y, r);
        if (op == Operation::Sub) return direction < 0 ? v - y : sub(v, y, r);
        if (op == Operation::Mul) return direction < 0 ? v * y : mul(v, y, r);
        return direction < 0 ? v / y : div(v, y, r);
    };
    const auto reference = [&](oracle::Format f, int mode, unsigned* flags) {
        return oracle::mixed(op, f, oracle::convert(s.ofmt(), a, f, mode), to_oracle(in.to), b,
                             mode, flags, to_oracle(third), fused ? &c : nullptr);
    };
    const std::string wrong = directed(
        in, s, [&](tarn::rounding r) { return compute(x, static_cast<int>(r)); },
        [&](unsigned* flags) { return reference(s.ofmt(), in.direction, flags); });
    ROW_EXPECT(wrong.empty(), wrong);
    IEEEFloat v = x;
    return check_rounded(
        s, s, s.word(), true, v, [&](IEEEFloat& w) { w = compute(w, -1); },
        [&](oracle::Format f, int mode) { return reference(f, mode, nullptr); });
}

/// ieee_cmp and the six predicates, their results and flags.
inline std::string mixed_compare(const Setting& s, const Operands& in) {
    mpz_class b;
    const IEEEFloat x = make(s, in.a), y = other(s, in.to, in.b, in.flag, b);
    const mpz_class a = bits_of(x);
    const int want = oracle::compare_mixed(s.ofmt(), a, to_oracle(in.to), b);
    const unsigned ordered = want == -2 ? tarn::FLAG_INVALID : 0;
    const unsigned quiet =
        oracle::is_signaling(s.ofmt(), a) || oracle::is_signaling(to_oracle(in.to), b) ? ordered
                                                                                       : 0;
    int order = 0;
    bool holds[6];
    const unsigned raised[] = {
        flags_of([&] { order = ieee_cmp(x, y), holds[0] = x == y, holds[1] = x != y; }),
        flags_of([&] { holds[2] = x<y, holds[3] = x <= y, holds[4] = x> y, holds[5] = x >= y; })};
    const bool wants[] = {want == 0,  want != 0,
                          want == -1, want == -1 || want == 0,
                          want == 1,  want == 1 || want == 0};
    ROW_EXPECT(order == want && std::equal(holds, holds + 6, wants),
               "ieee_cmp gave " + std::to_string(order) + ", or a predicate disagrees");
    ROW_EXPECT(raised[0] == quiet && raised[1] == ordered,
               flag_mismatch(raised[0], quiet) + flag_mismatch(raised[1], ordered));
    return "";
}

// ---- Exact bridges: from_rational and the native types --------------------------

inline std::string from_rational(const Setting& s, const Operands& in) {
    return made(
        s, false,
        [&](auto mode) { return IEEEFloat::from_rational(QNumber(in.q), s.format, mode); },
        [&](oracle::Format f, int mode) { return oracle::from_rational(in.q, f, mode); },
        [&] {
            unsigned flags = 0;
            oracle::from_rational(in.q, s.ofmt(), s.mode, &flags);
            return flags;
        });
}

/// to_double and to_float of the operand, and from_double and from_float of its
/// low 64 and 32 bits read as native words, against MPFR's conversions, and for
/// binary32 and binary64 against the host's casts, which round to nearest.
inline std::string natives(const Setting& s, const Operands& in) {
    if (!s.valid_mode()) return "";
    const auto mode = static_cast<IEEEFloat::rounding_mode>(s.mode);
    const IEEEFloat x = make(s, in.a);
    const oracle::Format b32{8, 23}, b64{11, 52};
    const std::uint64_t low = oracle::to_word(in.a & ((mpz_class(1) << 64) - 1));
    double d, out64;
    float f, out32;
    std::memcpy(&d, &low, 8);
    std::memcpy(&f, &low, 4);
    std::uint64_t got64 = 0;
    std::uint32_t got32 = 0;
    IEEEFloat from64, from32;
    const unsigned raised[] = {
        flags_of([&] { out64 = x.to_double(); }), flags_of([&] { out32 = x.to_float(); }),
        flags_of([&] { from64 = IEEEFloat::from_double(d, s.format, mode); }),
        flags_of([&] { from32 = IEEEFloat::from_float(f, s.format, mode); })};
    std::memcpy(&got64, &out64, 8);
    std::memcpy(&got32, &out32, 4);
    const bool nan_source[] = {x.is_nan(), x.is_nan(), std::isnan(d), std::isnan(f)};
    const mpz_class got[] = {mpz_class(got64), mpz_class(got32), bits_of(from64), bits_of(from32)};
    const oracle::Format fmts[] = {b64, b32, s.ofmt(), s.ofmt()};
    unsigned want_flags[4] = {};
    const mpz_class want[] = {
        oracle::convert(s.ofmt(), bits_of(x), b64, s.mode, &want_flags[0]),
        oracle::convert(s.ofmt(), bits_of(x), b32, s.mode, &want_flags[1]),
        oracle::convert(b64, mpz_class(low), s.ofmt(), s.mode, &want_flags[2]),
        oracle::convert(b32, mpz_class(low & 0xffffffffU), s.ofmt(), s.mode, &want_flags[3])};
    static const char* const names[] = {"to_double", "to_float", "from_double", "from_float"};
    for (int k = 0; k < 4; ++k) {
        // A NaN keeps its sign; the payload is kept only bit for bit into the same format.
        const bool sign_ok =
            !nan_source[k] || oracle::sign_of(fmts[k], got[k]) == (k < 2    ? x.get_sign()
                                                                   : k == 2 ? std::signbit(d)
                                                                            : std::signbit(f));
        ROW_EXPECT(oracle::same_result(fmts[k], got[k], want[k]) && sign_ok,
                   std::string(names[k]) + mismatch(fmts[k], got[k], want[k]));
        ROW_EXPECT(raised[k] == want_flags[k],
                   std::string(names[k]) + flag_mismatch(raised[k], want_flags[k]));
    }
    const bool host = s.mode == 0 && !x.is_nan();
    ROW_EXPECT(!host || s.format != Format(11, 52) || out32 == static_cast<float>(out64),
               "host to_float");
    ROW_EXPECT(!host || s.format != Format(8, 23) || out64 == static_cast<double>(out32),
               "host to_double");
    return "";
}

// ---- Low-precision encodings (tarn/lowp) ----------------------------------------

inline oracle::Encoding to_oracle(const tarn::encoding& e) {
    return {static_cast<unsigned>(e.exponent_width), static_cast<unsigned>(e.mantissa_width),
            e.bias, e.has_sign, static_cast<int>(e.top)};
}

/// Every named encoding, and an unsigned one of an odd bias.
inline const std::vector<tarn::encoding>& encodings() {
    static const std::vector<tarn::encoding> all = [] {
        std::vector<tarn::encoding> v;
        for (const auto name : tarn::encoding::known_names())
            v.push_back(*tarn::encoding::by_name(name));
        tarn::encoding odd =
            tarn::encoding::make(3, 4, tarn::encoding::specials::finite_nan_all_ones);
        odd.bias = -2;
        odd.has_sign = false;
        v.push_back(odd);
        return v;
    }();
    return all;
}

/// Whether a case checks encoding k: all of them, but one in turn in the 16-bit
/// formats, whose every pattern the exhaustive run walks.
inline bool checks(const Setting& s, const Operands& in, std::size_t k) {
    return s.ofmt().width() != 16 ||
           k == (oracle::to_word(in.a) + static_cast<unsigned>(in.direction)) % encodings().size();
}

/// Each encoding, rounding in `in.direction`, saturating or not by `in.flag`.
inline std::string encode_row(const Setting& s, const Operands& in) {
    const IEEEFloat x = make(s, in.a);
    const auto r = static_cast<tarn::rounding>(in.direction);
    const auto o = in.flag ? tarn::overflow::saturate : tarn::overflow::non_finite;
    for (std::size_t k = 0; k < encodings().size(); ++k) {
        const tarn::encoding& e = encodings()[k];
        if (!checks(s, in, k)) continue;
        std::uint64_t got = 0;
        const unsigned raised = flags_of([&] { got = tarn::encode(x, e, r, o); });
        unsigned flags = 0;
        const mpz_class want =
            oracle::encode(s.ofmt(), bits_of(x), to_oracle(e), in.direction, in.flag, &flags);
        ROW_EXPECT(got == oracle::to_word(want) && raised == flags,
                   "(" + std::to_string(e.exponent_width) + "," + std::to_string(e.mantissa_width) +
                       ") bias " + std::to_string(e.bias) + " got " + std::to_string(got) +
                       " want " + want.get_str() + flag_mismatch(raised, flags));
    }
    return "";
}

/// The low bits of the operand as a pattern of each encoding: its value, and the
/// float and double that dequantize gives for it.
inline std::string decode_row(const Setting& s, const Operands& in) {
    for (std::size_t k = 0; k < encodings().size(); ++k) {
        const tarn::encoding& e = encodings()[k];
        if (!checks(s, in, k)) continue;
        const std::uint64_t p = oracle::to_word(in.a) & (~0ULL >> (64 - e.width()));
        const IEEEFloat got = tarn::decode(p, e);
        bool negative = false;
        mpq_class value;
        const Kind kind = oracle::decode(to_oracle(e), p, negative, value);
        const std::string what = "pattern " + std::to_string(p) + " of (" +
                                 std::to_string(e.exponent_width) + "," +
                                 std::to_string(e.mantissa_width) + ")";
        ROW_EXPECT(got.is_nan() == (kind == Kind::NaN) &&
                       got.is_inf() == (kind == Kind::Infinite) &&
                       got.is_zero() == (kind == Kind::Zero) &&
                       (kind == Kind::NaN || got.get_sign() == negative) &&
                       (kind != Kind::Normal || got.to_number().to_mpq() == value),
                   what + " decoded to " + got.to_str());
        if (e.width() > 16) continue;
        const auto q = static_cast<std::uint16_t>(p);
        float f;
        double d;
        tarn::dequantize(&q, 1, &f, e);
        tarn::dequantize(&q, 1, &d, e);
        const mpq_class read_f = kind == Kind::Normal ? mpq_class(f) : 0;
        ROW_EXPECT((kind == Kind::NaN) == (f != f) && (kind != Kind::Normal || read_f == value) &&
                       (kind != Kind::Normal || mpq_class(d) == value),
                   what + " dequantized to " + std::to_string(d));
    }
    return "";
}

/// The bulk conversion of the binary32 or binary64 words of xs into e, in the
/// case's direction and stochastically, element by element against encode,
/// with the flags of the batch the OR of the elements'.
template <class F>
std::string bulk_equals_encode(const Operands& in, const std::vector<IEEEFloat>& xs,
                               const tarn::encoding& e) {
    const std::size_t n = xs.size();
    std::vector<F> batch(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint64_t word = oracle::to_word(bits_of(xs[i]));
        std::memcpy(&batch[i], &word, sizeof(F)); // little-endian: the low bytes
    }
    const auto r = static_cast<tarn::rounding>(in.direction);
    const auto o = in.flag ? tarn::overflow::saturate : tarn::overflow::non_finite;
    const tarn::stochastic st{oracle::to_word(in.a), in.width,
                              1 + 12 * static_cast<unsigned>(in.direction)};
    for (const bool random : {false, true}) {
        std::vector<std::uint16_t> out(n);
        const unsigned raised = flags_of([&] {
            random ? tarn::quantize(batch.data(), n, out.data(), e, st, o)
                   : tarn::quantize(batch.data(), n, out.data(), e, r, o);
        });
        unsigned flags = 0;
        for (std::uint64_t i = 0; i < n; ++i) {
            std::uint64_t want = 0;
            const tarn::stochastic one{st.seed, st.offset + i, st.random_bits};
            flags |= flags_of(
                [&] { want = random ? encode(xs[i], e, one, o) : encode(xs[i], e, r, o); });
            ROW_EXPECT(out[i] == want,
                       std::string(random ? "stochastic " : "") + "element " + std::to_string(i) +
                           " of (" + std::to_string(e.exponent_width) + "," +
                           std::to_string(e.mantissa_width) + ") got " + std::to_string(out[i]) +
                           " want " + std::to_string(want));
        }
        ROW_EXPECT(raised == flags, "batch" + flag_mismatch(raised, flags));
    }
    return "";
}

/// The operand, its neighbour pattern and its negation into every encoding.
template <class F>
std::string bulk_batch(const Setting& s, const Operands& in) {
    const mpz_class sign_bit = oracle::pow2(s.ofmt().width() - 1);
    const std::vector<IEEEFloat> xs = {make(s, in.a), make(s, in.a ^ 1), make(s, in.a ^ sign_bit)};
    for (const tarn::encoding& e : encodings()) {
        if (e.width() > 16) continue;
        const std::string wrong = bulk_equals_encode<F>(in, xs, e);
        ROW_EXPECT(wrong.empty(), wrong);
    }
    return "";
}

inline std::string quantize_row(const Setting& s, const Operands& in) {
    if (s.format == Format::binary32()) return bulk_batch<float>(s, in);
    if (s.format == Format::binary64()) return bulk_batch<double>(s, in);
    return "";
}

/// Block scaling of binary32 and binary64 words: a block of the operand, its neighbour
/// pattern, two copies scaled down (subnormal and vanishing elements) and a zero, then
/// a short block of -0 or one more value, into each MX element encoding; and back, to
/// the exact values (double) and their roundings (float).
template <class F>
std::string mx_blocks(const Setting& s, const Operands& in) {
    F v[6];
    for (unsigned long i = 0, word = oracle::to_word(in.a); i < 2; ++i, word ^= 1)
        std::memcpy(&v[i], &word, sizeof(F)); // little-endian: the low bytes
    const int k = static_cast<int>(in.width % 13);
    v[2] = std::ldexp(v[0], -k), v[3] = std::ldexp(v[0], -k - 12), v[4] = 0;
    v[5] = in.flag ? -F(0) : -v[2];
    std::vector<mpz_class> words, want;
    for (const F f : v) {
        unsigned long word = 0;
        std::memcpy(&word, &f, sizeof f);
        words.emplace_back(word);
    }
    for (const char* name :
         {"float8_e4m3fn", "float8_e5m2", "float6_e3m2fn", "float6_e2m3fn", "float4_e2m1fn"}) {
        const tarn::encoding e = *tarn::encoding::by_name(name);
        std::uint8_t got[6], scales[2];
        const unsigned threads = 1 + (in.width == 1 && in.direction == 0);
        const unsigned raised =
            flags_of([&] { tarn::mx_quantize(v, 6, 5, e, got, scales, threads); });
        float back[6];
        double exact[6];
        tarn::mx_dequantize(got, scales, 6, 5, e, back);
        tarn::mx_dequantize(got, scales, 6, 5, e, exact);
        unsigned flags = 0;
        const std::vector<unsigned> scale =
            oracle::mx(s.ofmt(), words, 5, to_oracle(e), want, flags);
        ROW_EXPECT(raised == flags && scales[0] == scale[0] && scales[1] == scale[1],
                   std::string(name) + " scale " + std::to_string(scales[0]) + " want " +
                       std::to_string(scale[0]) + flag_mismatch(raised, flags));
        for (std::size_t i = 0; i < 6; ++i) {
            bool negative = false;
            mpq_class value;
            const long shift = static_cast<long>(scale[i / 5]) - 127;
            const bool nan =
                shift == 128 || oracle::decode(to_oracle(e), want[i], negative, value) == Kind::NaN;
            const float rounded = static_cast<float>(exact[i]);
            ROW_EXPECT(got[i] == oracle::to_word(want[i]) && std::isnan(exact[i]) == nan &&
                           (nan || (mpq_class(exact[i]) == oracle::times_pow2(value, shift) &&
                                    std::signbit(exact[i]) == negative)) &&
                           std::memcmp(&rounded, &back[i], sizeof rounded) == 0,
                       std::string(name) + " element " + std::to_string(i) + " got " +
                           std::to_string(got[i]) + " want " + want[i].get_str() + " back " +
                           std::to_string(exact[i]));
        }
    }
    return "";
}

inline std::string mx_row(const Setting& s, const Operands& in) {
    if (!s.word()) return ""; // the same words as the word setting
    if (s.format == Format::binary32()) return mx_blocks<float>(s, in);
    if (s.format == Format::binary64()) return mx_blocks<double>(s, in);
    return "";
}

/// Each vector kernel this machine runs, forced in turn, on 64 elements: the
/// operand's significand through the binades of one encoding (in turn), both
/// signs, and the operand itself last (a NaN or an infinity sends its vector
/// to the word kernel).
template <class F>
std::string bulk_targets(const Setting& s, const Operands& in) {
    constexpr int p = sizeof(F) == 4 ? 23 : 52, bias = sizeof(F) == 4 ? 127 : 1023;
    const std::uint64_t a = oracle::to_word(in.a);
    const tarn::encoding& e = encodings()[(a + in.direction) % encodings().size()];
    if (e.width() > 16) return "";
    const long m = static_cast<long>(e.mantissa_width),
               emin = 1 - e.bias - (e.top == tarn::encoding::specials::exponent_only),
               step = std::max(1L, ((1L << e.exponent_width) + m + 45) / 31);
    std::vector<IEEEFloat> xs;
    for (std::uint64_t j = 0; j < 64; ++j) {
        const long E =
            std::clamp(emin - m - 12 + static_cast<long>(j % 32) * step + bias, 0L, 2L * bias);
        xs.push_back(make(s, j == 63 ? a
                                     : (a & ((std::uint64_t{1} << p) - 1)) |
                                           static_cast<std::uint64_t>(E) << p |
                                           (j / 32) << (sizeof(F) * 8 - 1)));
    }
    std::string wrong;
    for (const std::int64_t target : tarn::lowp_detail::simd_targets()) {
        tarn::lowp_detail::use_simd_target(target);
        wrong = bulk_equals_encode<F>(in, xs, e);
        if (!wrong.empty()) {
            wrong = "target " + std::to_string(target) + ": " + wrong;
            break;
        }
    }
    tarn::lowp_detail::use_simd_target(0);
    return wrong;
}

inline std::string quantize_simd_row(const Setting& s, const Operands& in) {
    if (s.format == Format::binary32()) return bulk_targets<float>(s, in);
    if (s.format == Format::binary64()) return bulk_targets<double>(s, in);
    return "";
}

#undef ROW_EXPECT

/// One operation: its name, the operands it reads, the operation `Pair` operands are
/// built for, and its check.
struct Row {
    const char* name;
    Input input;
    Operation op;
    bool rounds; ///< whether the value's mode matters
    std::string (*check)(const Setting&, const Operands&);
    bool directed = false; ///< whether Operands::direction matters
};

/// Rows 0 to 14 are in the order the fuzz corpus was recorded in; new rows go last.
inline const Row table[] = {
    {"add", Input::Pair, Operation::Add, true, arithmetic<Operation::Add>},
    {"sub", Input::Pair, Operation::Sub, true, arithmetic<Operation::Sub>},
    {"mul", Input::Pair, Operation::Mul, true, arithmetic<Operation::Mul>},
    {"div", Input::Pair, Operation::Div, true, arithmetic<Operation::Div>},
    {"sqrt", Input::Root, Operation::Sqrt, true, arithmetic<Operation::Sqrt>},
    {"set_format", Input::Single, Operation::Add, true, set_format},
    {"from_number", Input::Rational, Operation::Add, true, from_number},
    {"to_integer", Input::Single, Operation::Add, true, to_integer},
    {"round", Input::Single, Operation::Add, true, round_to_integral},
    {"compare", Input::Compare, Operation::Add, false, compare},
    {"next_representable", Input::Single, Operation::Add, false, neighbour<false>},
    {"packed_next", Input::Single, Operation::Add, false, neighbour<true>},
    {"to_number", Input::Single, Operation::Add, false, to_number},
    {"to_float_str", Input::Single, Operation::Add, false, to_float_str},
    {"classes", Input::Single, Operation::Add, false, classes},
    {"from_string", Input::Numeral, Operation::Add, true, from_string},
    {"hex_read_back", Input::Single, Operation::Add, false, hex_read_back},
    {"add_directed", Input::Pair, Operation::Add, false, directed_arithmetic<Operation::Add>, true},
    {"sub_directed", Input::Pair, Operation::Sub, false, directed_arithmetic<Operation::Sub>, true},
    {"mul_directed", Input::Pair, Operation::Mul, false, directed_arithmetic<Operation::Mul>, true},
    {"div_directed", Input::Pair, Operation::Div, false, directed_arithmetic<Operation::Div>, true},
    {"sqrt_directed", Input::Root, Operation::Sqrt, false, directed_arithmetic<Operation::Sqrt>,
     true},
    {"convert", Input::Single, Operation::Add, false, directed_convert, true},
    {"fma", Input::Triple, Operation::Add, true, fused, true},
    {"round_to_integral", Input::Integral, Operation::Add, false, integral, true},
    {"to_int", Input::Integral, Operation::Add, false, to_integers, true},
    {"from_int", Input::Integer, Operation::Add, false, from_integers, true},
    {"notation_read_back", Input::Single, Operation::Add, false, notation_read_back},
    {"to_str_digits", Input::Single, Operation::Add, false, digits_text},
    {"numeral_prefix", Input::Numeral, Operation::Add, true, numeral_prefix},
    {"remainder", Input::Pair, Operation::Div, true, remainder},
    {"extremes", Input::Pair, Operation::Add, true, extremes},
    {"exponents", Input::Single, Operation::Add, true, exponents, true},
    {"mixed_add", Input::Pair, Operation::Add, true, mixed<Operation::Add>, true},
    {"mixed_sub", Input::Pair, Operation::Sub, true, mixed<Operation::Sub>, true},
    {"mixed_mul", Input::Pair, Operation::Mul, true, mixed<Operation::Mul>, true},
    {"mixed_div", Input::Pair, Operation::Div, true, mixed<Operation::Div>, true},
    {"mixed_fma", Input::Triple, Operation::Add, true, mixed<Operation::Add, true>, true},
    {"mixed_compare", Input::Pair, Operation::Add, false, mixed_compare, true},
    {"from_rational", Input::Rational, Operation::Add, true, from_rational},
    {"natives", Input::Single, Operation::Add, true, natives},
    {"encode", Input::Single, Operation::Add, false, encode_row, true},
    {"decode", Input::Single, Operation::Add, false, decode_row},
    {"quantize", Input::Single, Operation::Add, false, quantize_row, true},
    {"mx", Input::Single, Operation::Add, false, mx_row},
    {"quantize_simd", Input::Single, Operation::Add, false, quantize_simd_row, true},
};

constexpr int row_count = sizeof table / sizeof table[0];

/// Runs row `r` and prefixes a mismatch with what reproduces it.
inline std::string run(const Row& r, const Setting& s, const Operands& in) {
    std::string wrong = r.check(s, in);
    if (wrong.empty()) return "";
    const bool pair = r.input == Input::Pair || r.input == Input::Compare;
    const bool triple = r.input == Input::Triple;
    return std::string(r.name) + " " + describe(s, in.a) +
           (pair || triple ? ", " + oracle::describe(s.ofmt(), in.b) : "") +
           (triple ? ", " + oracle::describe(s.ofmt(), in.c) : "") + " n " + in.n.get_str() +
           " direction " + std::to_string(in.direction) + " q " + in.q.get_str() + " text \"" +
           in.text + "\" to " + oracle::to_string(to_oracle(in.to)) + " width " +
           std::to_string(in.width) + ": " + wrong;
}

} // namespace rows
