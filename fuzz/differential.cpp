// Differential fuzzing of IEEEFloat against the MPFR reference, through the rows
// of tests/rows.h. One input is one case: the bytes choose a format (a table of the
// formats users meet and of odd ones that stress the edges, or any small format),
// the representation for binary32 and binary64, a rounding mode (now and then one
// outside 0 to 3), the row and its operands.
#include "fuzz/fuzz_support.h"
#include "tests/oracle/operands.h"
#include "tests/rows.h"

namespace {

using rows::Format;

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

/// An operand pattern: one of the values at the edges of the format, or raw bits.
mpz_class consume_pattern(FuzzedDataProvider& in, oracle::Format f) {
    const bool negative = in.ConsumeBool();
    const int pick = in.ConsumeIntegralInRange(0, 11);
    if (pick > 6) return fuzzing::consume_bits(in, f.width());
    const mpz_class edges[] = {
        oracle::make_pattern(f, negative, 0, 0),
        oracle::inf_pattern(f, negative),
        oracle::nan_pattern(f),
        oracle::max_pattern(f, negative),
        oracle::min_pattern(f, negative),
        oracle::make_pattern(f, negative, 1, 0),
        oracle::make_pattern(f, negative, oracle::pow2(f.e - 1) - 1, 0), // 1.0
    };
    return edges[pick];
}

/// A rational of up to 160-bit numerator and denominator, either sign.
mpq_class consume_rational(FuzzedDataProvider& in) {
    const bool negative = in.ConsumeBool();
    const unsigned long num_bits = in.ConsumeIntegralInRange<unsigned long>(0, 160);
    const unsigned long den_bits = in.ConsumeIntegralInRange<unsigned long>(0, 160);
    const mpz_class num = fuzzing::consume_bits(in, num_bits);
    const mpz_class den = fuzzing::consume_bits(in, den_bits);
    mpq_class q(negative ? mpz_class(-num) : num, den == 0 ? mpz_class(1) : den);
    q.canonicalize();
    return q;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    rows::Setting s;
    s.format = consume_format(in);
    s.repr = rows::IEEEFloat::get_best_repr(s.format);
    if (s.word() && in.ConsumeBool()) s.repr = rows::IEEEFloat::REPR_GENERIC;
    const unsigned mode_byte = in.ConsumeIntegral<unsigned char>();
    s.mode = mode_byte < 240 ? static_cast<int>(mode_byte % 4) : static_cast<int>(mode_byte);

    // The first 15 rows keep the byte values the corpus was recorded with.
    const unsigned op_byte = in.ConsumeIntegral<unsigned char>();
    const int op = op_byte < 240 ? static_cast<int>(op_byte % 15)
                                 : 15 + static_cast<int>(op_byte % (rows::row_count - 15));
    const rows::Row& row = rows::table[op];
    rows::Operands operands;
    operands.a = consume_pattern(in, s.ofmt());
    if (row.input == rows::Input::Pair || row.input == rows::Input::Root || op == 9)
        operands.b = consume_pattern(in, s.ofmt());
    if (row.input == rows::Input::Triple) {
        operands.b = consume_pattern(in, s.ofmt());
        operands.c = consume_pattern(in, s.ofmt());
    }
    if (row.input == rows::Input::Integer) {
        const mpz_class magnitude = fuzzing::consume_bits(in, 64);
        operands.n =
            in.ConsumeBool() ? mpz_class(magnitude >> 1) - (mpz_class(1) << 63) : magnitude;
    }
    operands.direction = in.ConsumeIntegralInRange(0, 5);
    if (op == 5 || row.directed) operands.to = consume_format(in);
    if (op == 6) operands.q = consume_rational(in);
    if (op == 7) operands.width = in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange(1UL, 130UL);
    if (op == 10 || op == 11 || op == 14 || row.directed) operands.flag = in.ConsumeBool();
    if (row.input == rows::Input::Numeral)
        operands.text =
            oracle::OperandGenerator(s.ofmt(), in.ConsumeIntegral<std::uint64_t>()).numeral();
    const std::string wrong = rows::run(row, s, operands);
    FUZZ_CHECK(wrong.empty()) << wrong;
    return 0;
}
