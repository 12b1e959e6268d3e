// The expression language of fpcalc: reading an expression into a tree, and
// evaluating that tree in one floating-point format and rounding direction.
//
// Parsing knows nothing about formats, so one tree can be evaluated in
// several; evaluation rounds after every operation, exactly as a program that
// computes in that format would, and reports each step, with the status flags
// it raised, to an optional observer so the roundings can be shown. Results
// can be written in each of the library's notations.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace fpcalc {

/// Text the calculator cannot use: a syntax error or a numeral the library
/// rejects. `column` is the 0-based offset of the offending text.
class InputError : public std::runtime_error {
public:
    /// An error about the text at `column`.
    InputError(const std::string& message, std::size_t column)
        : std::runtime_error(message), column_(column) {}
    /// Where in the expression the problem starts.
    std::size_t column() const noexcept { return column_; }

private:
    std::size_t column_;
};

/// One node of an expression tree.
struct Node {
    /// What the node computes.
    enum class Kind {
        numeral,
        negate,
        add,
        subtract,
        multiply,
        divide,
        sqrt,
        fma,
        rint,
        int32,
        int64,
        uint32,
        uint64,
        minimum,
        maximum,
        minimum_number,
        maximum_number,
        remainder,
        scale_b,
        log_b,
        abs,
        copysign,
        classify
    };

    Kind kind;                    ///< the operation, or numeral for a leaf
    std::string text;             ///< the numeral as written (leaves only)
    std::size_t column = 0;       ///< where the node's text starts
    std::unique_ptr<Node> lhs;    ///< the first operand (the only one of unary operations)
    std::unique_ptr<Node> rhs;    ///< the second operand of binary operations and fma
    std::unique_ptr<Node> addend; ///< fma's third operand
};

/// The result of a node: its value in the format and what is shown beside it.
struct Value {
    /// The value `n`, with the decimal text of the integer it came from, if any.
    Value(tarn::IEEEFloat n, std::string i = {}) : number(std::move(n)), integer(std::move(i)) {}

    tarn::IEEEFloat number; ///< the value in the format
    /// For an integer conversion (and log_b), the integer in decimal; `number`
    /// is that integer converted back into the format, rounded in the direction.
    std::string integer;
    /// For classify, the class of `number` ("positive_normal", ...).
    std::string label;
    /// The status flags the node's own operation raised (its operands' not
    /// included; for a numeral, those of reading it).
    unsigned flags = 0;
};

/// Reads `text`: numerals in decimal or hexadecimal (as IEEEFloat::from_string
/// reads them, "inf" and "nan" included), + - * / with the usual precedence
/// and left associativity, unary minus and plus, parentheses and the functions
/// sqrt(x), fma(a, b, c) (a * b + c rounded once), rint(x) (x rounded to an
/// integral value), int32(x), int64(x), uint32(x), uint64(x) (x rounded to
/// an integer of that type), minimum, maximum, minimum_number,
/// maximum_number, remainder and copysign of two values, scale_b(x, n) (n
/// an integral value), log_b(x), abs(x) and classify(x). Function names are
/// read in any case. A bit pattern is written "#" then a hexadecimal ("0x")
/// or binary ("0b") integer: "#0x3c00" is binary16's 1, taken as from_bits
/// takes it (every NaN pattern the library NaN).
/// A minus right before a numeral belongs to the numeral: "-0.1" is read as
/// one number, so it is rounded once in the direction, as written.
/// Blanks between tokens are ignored. Throws InputError on a syntax error.
std::unique_ptr<Node> parse(std::string_view text);

/// Called after each operation with the node and its rounded result.
using StepObserver = std::function<void(const Node&, const Value&)>;

/// The value of `tree` in `fmt` rounded in direction `r`: each numeral read
/// with one rounding, each operation rounded once. The flags every numeral
/// and operation raised are raised in the thread's flags as well (none is
/// lowered). Throws InputError for a numeral the library does not accept;
/// other library errors (tarn::IEEEFloat::error) pass through.
Value evaluate(const Node& tree, tarn::IEEEFloat::format fmt, tarn::rounding r,
               const StepObserver& observe = nullptr);

/// The expression the node stands for, fully parenthesised, for step listings.
std::string describe(const Node& node);

/// The notations a result can be shown in besides its bits.
enum class Notation { shortest, sci, fixed, general, hex };

/// x in `notation`: the shortest digits as a stream writes them, or scientific
/// (to_sci_str, or to_str_digits 'e' with `digits` significant digits), fixed
/// (`digits` after the point), general (%g with `digits` significant digits)
/// or hexadecimal. A negative `digits` means none given: six in fixed and
/// general, as printf takes it.
std::string written(const tarn::IEEEFloat& x, Notation notation, int digits);

} // namespace fpcalc
