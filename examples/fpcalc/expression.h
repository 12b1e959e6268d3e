// The expression language of fpcalc: reading an expression into a tree, and
// evaluating that tree in one floating-point format and rounding mode.
//
// Parsing knows nothing about formats, so one tree can be evaluated in
// several; evaluation rounds after every operation, exactly as a program that
// computes in that format would, and reports each step to an optional
// observer so the roundings can be shown.
#pragma once

#include "tarn/ieeefloat/ieeefloat.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

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
    enum class Kind { numeral, negate, add, subtract, multiply, divide, sqrt };

    Kind kind;                 ///< the operation, or numeral for a leaf
    std::string text;          ///< the numeral as written (leaves only)
    std::size_t column = 0;    ///< where the node's text starts
    std::unique_ptr<Node> lhs; ///< the operand of negate and sqrt, else the left one
    std::unique_ptr<Node> rhs; ///< the right operand of the binary operations
};

/// Reads `text`: numerals in decimal or hexadecimal (as IEEEFloat::from_string
/// reads them, "inf" and "nan" included), + - * / with the usual precedence
/// and left associativity, unary minus and plus, parentheses and sqrt(...).
/// A minus right before a numeral belongs to the numeral: "-0.1" is read as
/// one number, so it is rounded once under the mode, as written.
/// Blanks between tokens are ignored. Throws InputError on a syntax error.
std::unique_ptr<Node> parse(std::string_view text);

/// Called after each operation with the node and its rounded result.
using StepObserver = std::function<void(const Node&, const tarn::IEEEFloat&)>;

/// The value of `tree` in `fmt` under `mode`: each numeral read with one
/// rounding, each operation rounded once. Throws InputError for a numeral the
/// library does not accept; other library errors (tarn::IEEEFloat::error)
/// pass through.
tarn::IEEEFloat evaluate(const Node& tree, tarn::IEEEFloat::format fmt,
                         tarn::IEEEFloat::rounding_mode mode,
                         const StepObserver& observe = nullptr);

/// The expression the node stands for, fully parenthesised, for step listings.
std::string describe(const Node& node);

} // namespace fpcalc
