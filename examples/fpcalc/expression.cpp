#include "expression.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>
#include <sstream>
#include <utility>

namespace fpcalc {

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;

bool is_digit(char c) {
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}
bool is_alpha(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}
bool is_alnum(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}
bool is_blank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

struct Function {
    std::string_view name;
    Node::Kind kind;
    int arity;
};

constexpr Function functions[] = {
    {"sqrt", Node::Kind::sqrt, 1},
    {"fma", Node::Kind::fma, 3},
    {"rint", Node::Kind::rint, 1},
    {"int32", Node::Kind::int32, 1},
    {"int64", Node::Kind::int64, 1},
    {"uint32", Node::Kind::uint32, 1},
    {"uint64", Node::Kind::uint64, 1},
    {"minimum", Node::Kind::minimum, 2},
    {"maximum", Node::Kind::maximum, 2},
    {"minimum_number", Node::Kind::minimum_number, 2},
    {"maximum_number", Node::Kind::maximum_number, 2},
    {"remainder", Node::Kind::remainder, 2},
    {"scale_b", Node::Kind::scale_b, 2},
    {"log_b", Node::Kind::log_b, 1},
    {"abs", Node::Kind::abs, 1},
    {"copysign", Node::Kind::copysign, 2},
    {"classify", Node::Kind::classify, 1},
};

const Function* function_named(std::string_view name) {
    for (const Function& f : functions)
        if (equals_ignoring_case(f.name, name)) return &f;
    return nullptr;
}

// A recursive-descent reader over the text, one method per precedence level:
//   expression := term (('+' | '-') term)*
//   term       := unary (('*' | '/') unary)*
//   unary      := ('-' | '+') unary | primary
//   primary    := numeral | '(' expression ')' | name '(' arguments ')'
//   arguments  := expression (',' expression)*, as many as the function takes
// Numerals are only delimited here; their syntax is the library's business,
// so the calculator accepts exactly what IEEEFloat::from_string accepts.
class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    std::unique_ptr<Node> parse_all() {
        skip_blanks();
        if (at_end()) throw InputError("empty expression", pos_);
        std::unique_ptr<Node> tree = parse_expression();
        if (!at_end()) throw InputError(unexpected("an operator"), pos_);
        return tree;
    }

private:
    std::unique_ptr<Node> parse_expression() {
        return parse_left_associative('+', Node::Kind::add, '-', Node::Kind::subtract,
                                      [this] { return parse_term(); });
    }

    std::unique_ptr<Node> parse_term() {
        return parse_left_associative('*', Node::Kind::multiply, '/', Node::Kind::divide,
                                      [this] { return parse_unary(); });
    }

    // operand ((op1 | op2) operand)*, grouped to the left: 8/2/2 is (8/2)/2.
    template <class ParseOperand>
    std::unique_ptr<Node> parse_left_associative(char op1, Node::Kind kind1, char op2,
                                                 Node::Kind kind2, ParseOperand parse_operand) {
        std::unique_ptr<Node> node = parse_operand();
        while (peek() == op1 || peek() == op2) {
            auto parent = make(peek() == op1 ? kind1 : kind2, node->column);
            advance();
            parent->lhs = std::move(node);
            parent->rhs = parse_operand();
            node = std::move(parent);
        }
        return node;
    }

    // Every level of nesting, parentheses and signs alike, passes through
    // here, so bounding the depth keeps the reader itself within the stack.
    std::unique_ptr<Node> parse_unary() {
        const std::size_t column = pos_;
        if (++depth_ > max_depth) throw InputError("expression nested too deeply", column);
        std::unique_ptr<Node> node = parse_signed();
        --depth_;
        return node;
    }

    std::unique_ptr<Node> parse_signed() {
        const std::size_t column = pos_;
        if (peek() == '+') {
            advance();
            return parse_unary();
        }
        if (peek() != '-') return parse_primary();
        advance();
        const bool parenthesised = peek() == '(';
        std::unique_ptr<Node> operand = parse_unary();
        // "-0.1" is the numeral -0.1, read under the mode in one rounding: the
        // negation of 0.1 rounded would differ from it under the directed modes.
        // "-(0.1)" asks for the negation and keeps it.
        if (!parenthesised && operand->kind == Node::Kind::numeral && operand->text[0] != '-' &&
            operand->text[0] != '+') {
            operand->text.insert(0, 1, '-');
            operand->column = column;
            return operand;
        }
        auto node = make(Node::Kind::negate, column);
        node->lhs = std::move(operand);
        return node;
    }

    std::unique_ptr<Node> parse_primary() {
        const std::size_t column = pos_;
        if (peek() == '(') {
            advance();
            std::unique_ptr<Node> inner = parse_expression();
            expect_closing(column);
            return inner;
        }
        if (is_digit(peek()) || peek() == '.' || peek() == '#') return numeral(column);
        if (is_alpha(peek())) {
            const std::string_view word = scan_word();
            if (const Function* f = function_named(word)) return call(*f, column);
            if (is_numeral_word(word)) return leaf(word, column);
            throw InputError("unknown name '" + std::string(word) + "'", column);
        }
        if (at_end()) throw InputError("unexpected end of expression: a number is missing", pos_);
        throw InputError(unexpected("a number"), pos_);
    }

    std::unique_ptr<Node> call(const Function& f, std::size_t column) {
        const std::string name(f.name);
        if (peek() != '(') throw InputError("'(' expected after " + name, pos_);
        const std::size_t open = pos_;
        advance();
        auto node = make(f.kind, column);
        std::unique_ptr<Node>* const operands[] = {&node->lhs, &node->rhs, &node->addend};
        for (int i = 0; i < f.arity; ++i) {
            if (i > 0) {
                if (peek() != ',')
                    throw InputError(name + " takes " + std::to_string(f.arity) + " arguments",
                                     pos_);
                advance();
            }
            *operands[i] = parse_expression();
        }
        expect_closing(open);
        return node;
    }

    void expect_closing(std::size_t open) {
        if (peek() == ')') {
            advance();
            return;
        }
        if (at_end())
            throw InputError("unbalanced parenthesis: the one at column " +
                                 std::to_string(open + 1) + " is not closed",
                             open);
        throw InputError(unexpected("')'"), pos_);
    }

    // A numeral runs over letters, digits and points, and over a sign that
    // directly follows an exponent marker: 'p' always, 'e' only outside
    // hexadecimal numerals, where 'e' is a digit ("0x1e-3" is 0x1e minus 3).
    std::unique_ptr<Node> numeral(std::size_t column) {
        const std::size_t start = pos_;
        if (text_[pos_] == '#') ++pos_; // a bit pattern
        const bool hex =
            text_.size() - start > 1 && text_[start] == '0' && lower(text_[start + 1]) == 'x';
        while (pos_ < text_.size()) {
            const char c = text_[pos_];
            if (is_alnum(c) || c == '.') {
                ++pos_;
            } else if ((c == '+' || c == '-') && pos_ > start &&
                       (lower(text_[pos_ - 1]) == 'p' || (!hex && lower(text_[pos_ - 1]) == 'e'))) {
                ++pos_;
            } else {
                break;
            }
        }
        const std::string_view text = text_.substr(start, pos_ - start);
        skip_blanks();
        return leaf(text, column);
    }

    // A name: a letter, then letters, digits and underscores ("int32", "log_b").
    std::string_view scan_word() {
        const std::size_t start = pos_;
        while (pos_ < text_.size() && (is_alnum(text_[pos_]) || text_[pos_] == '_'))
            ++pos_;
        const std::string_view word = text_.substr(start, pos_ - start);
        skip_blanks();
        return word;
    }

    static bool is_numeral_word(std::string_view word) {
        return equals_ignoring_case(word, "inf") || equals_ignoring_case(word, "infinity") ||
               equals_ignoring_case(word, "nan");
    }

    // Evaluating, printing and freeing a tree recurse over it, so its size is
    // bounded to keep them within the stack; no hand-written expression comes
    // near the bound.
    static constexpr std::size_t max_nodes = 4096;
    static constexpr std::size_t max_depth = 1000;

    std::unique_ptr<Node> make(Node::Kind kind, std::size_t column) {
        if (++nodes_ > max_nodes)
            throw InputError("expression too long: more than " + std::to_string(max_nodes) +
                                 " numbers and operations",
                             column);
        auto node = std::make_unique<Node>();
        node->kind = kind;
        node->column = column;
        return node;
    }

    std::unique_ptr<Node> leaf(std::string_view text, std::size_t column) {
        auto node = make(Node::Kind::numeral, column);
        node->text = std::string(text);
        return node;
    }

    std::string unexpected(const std::string& wanted) const {
        return "unexpected '" + std::string(1, text_[pos_]) + "': " + wanted + " was expected";
    }

    char peek() const { return at_end() ? '\0' : text_[pos_]; }
    bool at_end() const { return pos_ >= text_.size(); }
    void advance() {
        ++pos_;
        skip_blanks();
    }
    void skip_blanks() {
        while (pos_ < text_.size() && is_blank(text_[pos_]))
            ++pos_;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::size_t nodes_ = 0;
    std::size_t depth_ = 0;
};

// from_string rounds only in the four directions a value can store. In the
// other two the numeral is first rounded to odd, that is truncated with its
// last bit set when the truncation is inexact, in a format with three more
// mantissa bits and one more exponent bit, and that is rounded into the
// format. Rounding to odd with two or more extra bits and then rounding again
// in any direction gives the one rounding of the exact value. The wider
// exponent range holds the format's subnormals as normal numbers and reaches
// far beyond its largest value, so tininess and overflow are decided as for
// the exact value too (truncating in the same range would turn every overflow
// into the largest value, which to_odd keeps). A numeral exact in the format,
// inf and nan among them, is taken as read. Lowers the thread's flags and
// leaves raised those of the delivered rounding alone.
IEEEFloat read_rounding_to_odd_first(std::string_view text, IEEEFloat::format fmt,
                                     tarn::rounding r) {
    tarn::clear_ieee_flags();
    IEEEFloat x = IEEEFloat::from_string(text, fmt, IEEEFloat::ROUND_TOWARD_ZERO);
    if ((tarn::ieee_flags() & tarn::FLAG_INEXACT) == 0) return x;
    const IEEEFloat::format wide{fmt.exponent_width + 1, fmt.mantissa_width + 3};
    tarn::clear_ieee_flags();
    x = IEEEFloat::from_string(text, wide, IEEEFloat::ROUND_TOWARD_ZERO);
    if ((tarn::ieee_flags() & tarn::FLAG_INEXACT) != 0) {
        // The sign is the pattern's top bit, so adding 1 sets the last mantissa bit of either sign.
        const QNumber bits = x.get_bits();
        if (mpz_even_p(bits.to_mpq().get_num_mpz_t())) x = IEEEFloat::from_bits(bits + 1, wide);
    }
    tarn::clear_ieee_flags();
    return tarn::convert(x, fmt, r);
}

// "#0x..." or "#0b...", after an optional sign: the value whose packed
// integer that is; a sign negates it.
IEEEFloat read_pattern(const Node& leaf, IEEEFloat::format fmt) {
    const std::size_t hash = leaf.text.find('#');
    const std::string digits = leaf.text.substr(hash + 1);
    mpz_class bits;
    const bool binary = digits.size() > 2 && lower(digits[1]) == 'b';
    if (digits.size() < 3 || digits[0] != '0' || (lower(digits[1]) != 'x' && !binary) ||
        bits.set_str(digits.substr(2), binary ? 2 : 16) != 0)
        throw InputError("a bit pattern is # then 0x and hexadecimal or 0b and binary digits",
                         leaf.column);
    if (mpz_sizeinbase(bits.get_mpz_t(), 2) > fmt.exponent_width + fmt.mantissa_width + 1)
        throw InputError("bit pattern wider than the format", leaf.column);
    IEEEFloat x = IEEEFloat::from_bits(QNumber(bits), fmt);
    return hash > 0 && leaf.text[0] == '-' ? -x : x;
}

IEEEFloat read_numeral(const Node& leaf, IEEEFloat::format fmt, tarn::rounding r) {
    if (leaf.text.find('#') != std::string::npos) return read_pattern(leaf, fmt);
    try {
        if (r == tarn::rounding::nearest_away || r == tarn::rounding::to_odd)
            return read_rounding_to_odd_first(leaf.text, fmt, r);
        return IEEEFloat::from_string(leaf.text, fmt, static_cast<IEEEFloat::rounding_mode>(r));
    } catch (const IEEEFloat::error& e) {
        throw InputError(e.what(), leaf.column);
    }
}

// An integer result: its decimal text, and the integer rounded back into the
// format, so that it can take part in further arithmetic.
Value integer(std::int64_t n, IEEEFloat::format fmt, tarn::rounding r) {
    return {tarn::from_int64(n, fmt, r), std::to_string(n)};
}
Value integer(std::uint64_t n, IEEEFloat::format fmt, tarn::rounding r) {
    return {tarn::from_uint64(n, fmt, r), std::to_string(n)};
}

// The power of two of scale_b: an integral value of the format that fits a
// long, read without disturbing the thread's flags.
long integral_power(const IEEEFloat& n, const Node& node) {
    const unsigned before = tarn::ieee_flags();
    tarn::clear_ieee_flags();
    const std::int64_t power = tarn::to_int64(n, tarn::rounding::toward_zero, true);
    const bool integral = tarn::ieee_flags() == 0;
    tarn::clear_ieee_flags();
    tarn::raise_ieee_flags(before);
    if (!integral) throw InputError("scale_b takes an integral power of two", node.rhs->column);
    return static_cast<long>(power);
}

// x * 2^n rounded once in r, for every direction: scale_b rounds under the
// value's stored mode, which has no ties-away or to-odd, so the product is
// formed exactly in a format whose exponent range holds every long power
// beyond x's own, and rounded into x's format from there.
IEEEFloat scaled(const IEEEFloat& x, long n, tarn::rounding r) {
    const IEEEFloat::format f = x.get_format();
    const IEEEFloat::format wide{std::max(f.exponent_width, 64UL) + 2, f.mantissa_width};
    return tarn::convert(tarn::scale_b(tarn::convert(x, wide, r), n), f, r);
}

constexpr const char* class_names[] = {
    "signaling_nan", "quiet_nan",     "negative_infinity",  "negative_normal", "negative_subnormal",
    "negative_zero", "positive_zero", "positive_subnormal", "positive_normal", "positive_infinity"};

// The operation of `node` on its evaluated operands, rounded once in r. The
// integer conversions and rint are exact ones: a changed value raises inexact.
Value operate(const Node& node, const IEEEFloat& a, const IEEEFloat* b, const IEEEFloat* c,
              IEEEFloat::format fmt, tarn::rounding r) {
    switch (node.kind) {
    case Node::Kind::add:
        return {tarn::add(a, *b, r)};
    case Node::Kind::subtract:
        return {tarn::sub(a, *b, r)};
    case Node::Kind::multiply:
        return {tarn::mul(a, *b, r)};
    case Node::Kind::divide:
        return {tarn::div(a, *b, r)};
    case Node::Kind::sqrt:
        return {tarn::sqrt(a, r)};
    case Node::Kind::fma:
        return {tarn::fma(a, *b, *c, r)};
    case Node::Kind::rint:
        return {tarn::round_to_integral(a, r, true)};
    case Node::Kind::int32:
        return integer(std::int64_t{tarn::to_int32(a, r, true)}, fmt, r);
    case Node::Kind::int64:
        return integer(tarn::to_int64(a, r, true), fmt, r);
    case Node::Kind::uint32:
        return integer(std::uint64_t{tarn::to_uint32(a, r, true)}, fmt, r);
    case Node::Kind::uint64:
        return integer(tarn::to_uint64(a, r, true), fmt, r);
    case Node::Kind::minimum:
        return {tarn::minimum(a, *b)};
    case Node::Kind::maximum:
        return {tarn::maximum(a, *b)};
    case Node::Kind::minimum_number:
        return {tarn::minimum_number(a, *b)};
    case Node::Kind::maximum_number:
        return {tarn::maximum_number(a, *b)};
    case Node::Kind::remainder:
        return {tarn::remainder(a, *b)};
    case Node::Kind::scale_b:
        return {scaled(a, integral_power(*b, node), r)};
    case Node::Kind::log_b:
        return integer(std::int64_t{tarn::log_b(a)}, fmt, r);
    case Node::Kind::abs:
        return {tarn::abs(a)};
    case Node::Kind::copysign:
        return {tarn::copysign(a, *b)};
    case Node::Kind::classify: {
        Value value{a};
        value.label = class_names[static_cast<int>(tarn::classify(a))];
        return value;
    }
    default: // negation, which never rounds
        return {-a};
    }
}

// Runs one rounding step with the thread's flags lowered, so as to tell the
// flags it raises by itself, and raises the earlier ones again, also when the
// step throws.
template <class Step>
Value isolating_flags(Step step) {
    const unsigned before = tarn::ieee_flags();
    tarn::clear_ieee_flags();
    try {
        Value value = step();
        value.flags = tarn::ieee_flags();
        tarn::raise_ieee_flags(before);
        return value;
    } catch (...) {
        tarn::raise_ieee_flags(before);
        throw;
    }
}

std::string_view name_of(Node::Kind kind) {
    for (const Function& f : functions)
        if (f.kind == kind) return f.name;
    return "";
}

const char* symbol(Node::Kind kind) {
    switch (kind) {
    case Node::Kind::add:
        return " + ";
    case Node::Kind::subtract:
        return " - ";
    case Node::Kind::multiply:
        return " * ";
    case Node::Kind::divide:
        return " / ";
    default:
        return "";
    }
}

} // namespace

std::unique_ptr<Node> parse(std::string_view text) {
    return Parser(text).parse_all();
}

Value evaluate(const Node& tree, IEEEFloat::format fmt, tarn::rounding r,
               const StepObserver& observe) {
    if (tree.kind == Node::Kind::numeral)
        return isolating_flags([&] { return Value{read_numeral(tree, fmt, r)}; });

    const Value a = evaluate(*tree.lhs, fmt, r, observe);
    std::optional<Value> b, c;
    if (tree.rhs) b = evaluate(*tree.rhs, fmt, r, observe);
    if (tree.addend) c = evaluate(*tree.addend, fmt, r, observe);
    const Value result = isolating_flags([&] {
        return operate(tree, a.number, b ? &b->number : nullptr, c ? &c->number : nullptr, fmt, r);
    });
    // Negation is exact, so only the operations that round are worth showing.
    if (observe && tree.kind != Node::Kind::negate) observe(tree, result);
    return result;
}

std::string describe(const Node& node) {
    switch (node.kind) {
    case Node::Kind::numeral:
        return node.text;
    case Node::Kind::negate:
        return "-" + describe(*node.lhs);
    case Node::Kind::add:
    case Node::Kind::subtract:
    case Node::Kind::multiply:
    case Node::Kind::divide:
        return "(" + describe(*node.lhs) + symbol(node.kind) + describe(*node.rhs) + ")";
    default:
        std::string call = std::string(name_of(node.kind)) + "(" + describe(*node.lhs);
        for (const Node* operand : {node.rhs.get(), node.addend.get()})
            if (operand) call += ", " + describe(*operand);
        return call + ")";
    }
}

std::string written(const IEEEFloat& x, Notation notation, int digits) {
    const int or_six = digits < 0 ? 6 : digits;
    switch (notation) {
    case Notation::sci:
        return digits < 0 ? x.to_sci_str() : x.to_str_digits(digits, 'e');
    case Notation::fixed:
        return x.to_str_digits(or_six, 'f');
    case Notation::general:
        return x.to_str_digits(or_six, 'g');
    case Notation::hex:
        return x.to_hex_str();
    default:
        std::ostringstream out;
        out << x;
        return out.str();
    }
}

} // namespace fpcalc
