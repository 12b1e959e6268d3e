// Known answers for IEEEFloat that a run against the MPFR reference cannot see:
// NaN payloads (the reference compares NaNs by class), the alignment bound, the
// one-bit division tie, the patterns from_bits and the special-value setters
// make, the representation chosen, copies, hashing against ==, the named
// formats and the value operators.

#include "tests/testing.h"

#include <climits>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using namespace tarn_testing;
using Format = IEEEFloat::format;

constexpr Mode RNE = IEEEFloat::ROUND_NEAREST_EVEN, RZ = IEEEFloat::ROUND_TOWARD_ZERO,
               RU = IEEEFloat::ROUND_TOWARD_POSITIVE;
const std::string limit = "reached limit on float precision";
const auto hex_of = [](const IEEEFloat& x) { return bits_of(x).get_str(16); };

/// A numeral read into `f`, or "max", "tiny" (the smallest positive value) or
/// "+nan" (a NaN with its sign bit clear, which no numeral gives).
IEEEFloat operand(const std::string& text, Format f, Mode mode) {
    IEEEFloat x = text == "max"    ? IEEEFloat::max_value(f)
                  : text == "tiny" ? IEEEFloat::from_bits(QNumber(1L), f)
                                   : IEEEFloat::from_string(text == "+nan" ? "nan" : text, f, mode);
    if (text == "+nan") x.set_sign(false);
    x.set_rounding_mode(mode);
    return x;
}

/// a op b through the value operators; '~' is the negation, 's' the square root.
IEEEFloat apply(char op, IEEEFloat a, const IEEEFloat& b) {
    if (op == 's') a.sqrt();
    return op == '+'   ? a + b
           : op == '-' ? a - b
           : op == '*' ? a * b
           : op == '/' ? a / b
           : op == '~' ? -a
                       : a;
}

// Each row applies each of its operations to a (in the row's mode) and b (in
// another mode, so that rounding with b's mode would show); the value operators
// stand for the compound ones they call. A NaN operand is the result as it is,
// with its own sign and payload, on either side. Addition aligns significands
// exactly, so the exponent difference it accepts is bounded (2^26): past it the
// operation throws, while a zero addend is never aligned and products are not
// bounded. With one mantissa bit the quotient 1 / 1.5 carries no bit below its
// round bit but the inexact marker, so nearest-even takes it for a tie.
TEST(IEEEFloat, ArithmeticKnownAnswers) {
    // format, mode, a, operations, b, result: an operand's text or an error message
    const std::tuple<Format, Mode, const char*, const char*, const char*, const char*> rows[] = {
        {{5, 10}, RNE, "+nan", "+-*/s", "2", "+nan"},
        {{5, 10}, RNE, "2", "+-*/", "+nan", "+nan"},
        {{15, 112}, RNE, "+nan", "+-*/s~", "2", "+nan"},
        {{15, 112}, RNE, "2", "+-*/", "+nan", "+nan"},
        {{26, 4}, RZ, "max", "-", "tiny", "0x1.ep33554431"},
        {{27, 4}, RZ, "max", "-", "tiny", "reached limit on float precision"},
        {{40, 4}, RZ, "max", "+-", "0", "max"},
        {{40, 4}, RZ, "max", "*", "tiny", "0x1.fp-3"},
        {{40, 1}, RNE, "1", "/", "1.5", "0.5"},
        {{8, 23}, RU, "1", "+", "tiny", "0x1.000002p0"},
        {{8, 23}, RU, "1", "-", "tiny", "1"},
        {{8, 23}, RU, "1", "/", "tiny", "inf"},
        {{15, 112}, RU, "-1", "~", "0", "1"},
    };
    for (const auto& [f, mode, a_text, ops, b_text, result] : rows)
        for (const char op : std::string(ops)) {
            SCOPED_TRACE(::testing::Message() << format_name(f) << " mode " << mode << ": "
                                              << a_text << ' ' << op << ' ' << b_text);
            const IEEEFloat a = operand(a_text, f, mode),
                            b = operand(b_text, f, mode == RZ ? RU : RZ);
            IEEEFloat got = a;
            const std::string error = error_of([&] { got = apply(op, a, b); });
            const bool fails = std::string(result).find(' ') != std::string::npos;
            EXPECT_EQ(error, fails ? result : "no error");
            EXPECT_EQ(hex_of(got), hex_of(fails ? a : operand(result, f, mode)));
            EXPECT_TRUE(got.get_rounding_mode() == mode && got.get_repr() == a.get_repr());
        }
}

/// The patterns self_nan (then self_neg), self_inf(true), self_inf(false),
/// self_zero(true) and self_zero(false) leave, in hexadecimal; a "!" marks one
/// that lost the mode or the representation.
std::string specials(Format f) {
    IEEEFloat x(f, RZ);
    std::string out;
    for (int step = 0; step < 5; ++step) {
        if (step == 0) x.self_nan(), x.self_neg();
        if (step == 1 || step == 2) x.self_inf(step == 1);
        if (step > 2) x.self_zero(step == 3);
        const bool kept =
            x.get_rounding_mode() == RZ && x.get_repr() == IEEEFloat::get_best_repr(f);
        out += hex_of(x) + (kept ? " " : "! ");
    }
    return out;
}

// from_bits turns every NaN into the library NaN (sign 1, mantissa field 1);
// nothing is masked, but a word keeps only its own bits. The words' self_nan
// gives the soft-float component's NaN, so the specials also show which
// formats get a word: binary32 and binary64, and no other pair of widths.
TEST(IEEEFloat, PatternsOfFromBitsAndTheSpecialValues) {
    // format, pattern given to from_bits (or "" for the specials), what is held
    const std::tuple<Format, const char*, const char*> rows[] = {
        {{8, 23}, "7fc00000", "ff800001"},
        {{11, 52}, "7ff8000000000000", "fff0000000000001"},
        {{15, 112}, "7fff8000000000000000000000000000", "ffff0000000000000000000000000001"},
        {{8, 23}, "1233f800000", "3f800000"},
        {{11, 52}, "ab8000000000000000", "8000000000000000"},
        {{11, 52}, "500000000000000003ff0000000000001", "3ff0000000000001"},
        {{3, 2}, "", "3d 3c 1c 20 0 "},
        {{8, 23}, "", "7fc00000 ff800000 7f800000 80000000 0 "},
        {{11, 52}, "", "7ff8000000000000 fff0000000000000 7ff0000000000000 8000000000000000 0 "},
        {{11, 23}, "", "7ff800001 7ff800000 3ff800000 400000000 0 "},
        {{8, 52}, "", "1ff0000000000001 1ff0000000000000 ff0000000000000 1000000000000000 0 "},
    };
    for (const auto& [f, given, held] : rows)
        EXPECT_EQ(*given ? hex_of(make(f, mpz_class(given, 16))) : specials(f), held)
            << given << " in " << format_name(f);
}

TEST(IEEEFloat, CopiesAreDeepAndMovesLeaveTheDefaultValue) {
    for (const auto& [f, held_generic] :
         {std::tuple{Format{8, 23}, false}, {Format{8, 23}, true}, {Format{15, 112}, true}}) {
        SCOPED_TRACE(format_name(f) + (held_generic ? " generic" : " word"));
        const IEEEFloat source = make(f, bits_of(operand("-0.75", f, RNE)), held_generic);
        const std::string bits = hex_of(source);
        IEEEFloat target({11, 52}, RZ), copy(source);
        target = source;
        const IEEEFloat& alias = target;
        target = alias;
        EXPECT_TRUE(target.get_format() == f && target.get_repr() == source.get_repr());
        EXPECT_TRUE(target.get_rounding_mode() == RNE && hex_of(target) == bits);
        target.self_neg();
        copy.self_neg();
        IEEEFloat moved(std::move(copy));
        EXPECT_TRUE(copy.get_format() == Format(0, 0) &&
                    copy.get_repr() == IEEEFloat::REPR_FLOAT32 &&
                    copy.get_bits() == QNumber(0L)); // NOLINT: the moved-from state is promised
        copy = std::move(moved);
        EXPECT_TRUE(hex_of(source) == bits && hex_of(copy) == hex_of(target));
    }
}

// Equal values must meet in hashed containers: the two zeros are one key, every
// NaN pattern is the library NaN, a word hashes as its generic holding, and a
// QNumber hashes by value whatever its form.
TEST(IEEEFloat, HashAgreesWithEqualityWhateverTheHolding) {
    std::unordered_set<IEEEFloat> values;
    std::unordered_set<std::size_t> hashes;
    for (long bits = 0; bits < 0x10000; ++bits) {
        const IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), Format{5, 10});
        if (!x.is_nan()) values.insert(x);
        hashes.insert(x.hash());
    }
    EXPECT_EQ(values.size(), 0x10000 - 2 * 0x3FF - 1);
    EXPECT_EQ(hashes.size(), 0x10000 - 2 * 0x3FF);
    for (const Format f : {Format{8, 23}, Format{11, 52}})
        for (const char* bits : {"0", "80000000", "1", "bff0000000000000", "7f800001"}) {
            const IEEEFloat word = make(f, mpz_class(bits, 16));
            EXPECT_EQ(word.hash(), make(f, mpz_class(bits, 16), true).hash()) << bits;
            EXPECT_TRUE(!word.is_zero() || word.hash() == make(f, 0, true).hash()) << bits;
        }
    EXPECT_NE(make({5, 10}, 0x3C00).hash(), make({6, 9}, 0x3C00).hash());

    const mpz_class word_max = (mpz_class(1) << 64) - 1;
    for (const QNumber& q :
         {QNumber(0L), QNumber(-7L, 3L), QNumber(1L, LONG_MAX), QNumber(LONG_MAX),
          QNumber(LONG_MIN), QNumber(word_max), QNumber(mpz_class(1) << 200, mpz_class(3))}) {
        QNumber big(mpz_class(1) << 70, mpz_class(1)); // assigning keeps the big form
        big = q;
        EXPECT_EQ(big.hash(), q.hash()) << q;
        const bool word = q.is_integer() && !q.is_negative() && q.to_mpz() <= word_max;
        EXPECT_TRUE(!word || QNumber::hash_of_word(q.to_mpz().get_ui()) == q.hash()) << q;
    }
    EXPECT_NE(QNumber(2L, 3L).hash(), QNumber(-3L, 2L).hash());
}

// Each name stands for its widths (the largest value of each pair of widths is
// the differential table's classes row), and its values get the best holding.
TEST(IEEEFloat, NamedFormats) {
    const std::tuple<const char*, Format, Format> rows[] = {
        {"binary16", Format::binary16(), {5, 10}},
        {"bfloat16", Format::bfloat16(), {8, 7}},
        {"binary32", Format::binary32(), {8, 23}},
        {"binary64", Format::binary64(), {11, 52}},
        {"binary128", Format::binary128(), {15, 112}},
        {"binary256", Format::binary256(), {19, 236}},
        {"e5m2", Format::e5m2(), {5, 2}},
        {"e4m3", Format::e4m3(), {4, 3}},
    };
    ASSERT_EQ(Format::known_names().size(), std::size(rows));
    for (const auto& [name, named, f] : rows) {
        EXPECT_TRUE(named == f && f.name() == name && Format::by_name(name) == f) << name;
        EXPECT_EQ(IEEEFloat::max_value(f).get_repr(), IEEEFloat::get_best_repr(f)) << name;
    }
    EXPECT_TRUE(Format::by_name("BFloat16") == Format::bfloat16() &&
                Format::by_name("E4M3") == Format::e4m3());
    for (const char* unknown :
         {"", "binary", "binary8", " binary16", "binary16 ", "e4m3fn", "binary1281"})
        EXPECT_EQ(Format::by_name(unknown), std::nullopt) << '"' << unknown << '"';
    EXPECT_TRUE(Format(8, 52).name().empty() && Format().name().empty());
    const Format wide = Format::binary128(); // field limits beyond a word
    EXPECT_EQ(wide.bias().to_mpz(), 16383);
    EXPECT_EQ(wide.max_exponent().to_mpz(), 32767);
    EXPECT_EQ(wide.max_mantissa().to_mpz(), mpz_class("ffffffffffffffffffffffffffff", 16));
}

// Infinities give 0 from to_integer, also where the weight of the lowest
// significand bit is out of reach of the precision limit.
TEST(IEEEFloat, InfinityIsTheIntegerZeroWhateverTheExponentRange) {
    EXPECT_EQ(make({65, 1}, mpz_class("3fffffffffffffffe", 16)).to_integer(7), QNumber(0L));
}

// Stepping the packed pattern past the largest NaN of a word stays in the word.
TEST(IEEEFloat, PackedEndsStayInWords) {
    IEEEFloat top = make({8, 23}, 0x7F800000), bottom = make({8, 23}, 0xFF800000);
    for (int i = 0; i < 0x7FFFFF + 2; ++i) {
        top.packed_next(true);
        bottom.packed_next(false);
    }
    EXPECT_EQ(hex_of(top) + " " + hex_of(bottom), "7fffffff ffffffff");
}

// A format without exponent bits holds only zeros; what would need another
// value hits the precision limit and changes nothing.
TEST(IEEEFloat, FormatsWithoutExponentBitsHoldOnlyZeros) {
    for (const unsigned long m : {0UL, 1UL, 3UL, 52UL, 200UL}) {
        const Format f{0, m};
        const IEEEFloat x = IEEEFloat::from_bits(QNumber(1L), f);
        IEEEFloat one = operand("1", {5, 10}, RNE);
        EXPECT_TRUE(IEEEFloat::max_value(f).get_bits() == QNumber(0L) && x.to_float_str() == "0" &&
                    x.to_number() == QNumber(0L) && x.to_integer() == QNumber(0L) &&
                    IEEEFloat::from_number(QNumber(0L), f, RNE).get_bits() == QNumber(0L))
            << m;
        EXPECT_EQ(error_of([&] { f.bias(); }), limit) << m;
        EXPECT_EQ(error_of([&] { IEEEFloat::from_number(QNumber(1L), f, RNE); }), limit) << m;
        EXPECT_EQ(error_of([&] { one.set_format(f); }), limit) << m;
        EXPECT_EQ(one.get_format(), Format(5, 10));
    }
}

// One pattern of every kind of e4m3, in IEEE 754's total order, with its
// class: NaN payloads 7 and 4 are quiet, 3 and 1 signaling; from_bits makes
// one NaN, so the others are stepped to from the infinities.
TEST(IEEEFloat, TotalOrderAndClassOfEveryKind) {
    using C = tarn::fp_class;
    const std::pair<unsigned, C> order[] = {
        {0xFF, C::quiet_nan},       {0xFC, C::quiet_nan},          {0xFB, C::signaling_nan},
        {0xF9, C::signaling_nan},   {0xF8, C::negative_infinity},  {0xF7, C::negative_normal},
        {0xB8, C::negative_normal}, {0x81, C::negative_subnormal}, {0x80, C::negative_zero},
        {0x00, C::positive_zero},   {0x01, C::positive_subnormal}, {0x38, C::positive_normal},
        {0x77, C::positive_normal}, {0x78, C::positive_infinity},  {0x79, C::signaling_nan},
        {0x7B, C::signaling_nan},   {0x7C, C::quiet_nan},          {0x7F, C::quiet_nan}};
    std::vector<IEEEFloat> v;
    tarn::clear_ieee_flags();
    for (const auto& [bits, kind] : order) {
        IEEEFloat x = make({4, 3}, (bits & 0x78) == 0x78 ? bits & 0xF8 : bits);
        for (unsigned k = 0; (bits & 0x78) == 0x78 && k < (bits & 7); ++k)
            x.packed_next(bits < 0x80);
        v.push_back(x);
        EXPECT_TRUE(classify(x) == kind && is_signaling(x) == (kind == C::signaling_nan)) << bits;
    }
    // |v[i]| lies where the positive half holds it; -0 and +0 tie.
    const auto magnitude = [](int i) { return i < 9 ? 17 - i : i; };
    for (int i = 0; i < 18; ++i)
        for (int j = 0; j < 18; ++j)
            EXPECT_TRUE(total_order(v[i], v[j]) == (i <= j) &&
                        total_order_mag(v[i], v[j]) == (magnitude(i) <= magnitude(j)))
                << i << " " << j;
    const auto word = [&](int i) { return convert(v[i], {8, 23}, tarn::rounding::nearest_even); };
    for (int i = 4; i < 14; ++i) // the numbers as binary32 words, compared in registers
        for (int j = 4; j < 14; ++j)
            EXPECT_EQ(total_order(word(i), word(j)), i <= j) << i << " " << j;
    IEEEFloat nan({8, 23}, RNE);
    nan.self_nan();
    EXPECT_TRUE(classify(nan) == C::quiet_nan && classify(make({2, 1}, 7)) == C::quiet_nan &&
                classify(make({2, 0}, 7)) == C::negative_infinity);
    EXPECT_EQ(tarn::ieee_flags(), 0u);
}

} // namespace
