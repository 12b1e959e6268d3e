#include "expression.h"

#include <cctype>
#include <utility>

namespace fpcalc {

namespace {

using tarn::IEEEFloat;

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

// A recursive-descent reader over the text, one method per precedence level:
//   expression := term (('+' | '-') term)*
//   term       := unary (('*' | '/') unary)*
//   unary      := ('-' | '+') unary | primary
//   primary    := numeral | '(' expression ')' | 'sqrt' '(' expression ')'
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
        if (is_digit(peek()) || peek() == '.') return numeral(column);
        if (is_alpha(peek())) {
            const std::string_view word = scan_word();
            if (equals_ignoring_case(word, "sqrt")) return call_sqrt(column);
            if (is_numeral_word(word)) return leaf(word, column);
            throw InputError("unknown name '" + std::string(word) + "'", column);
        }
        if (at_end()) throw InputError("unexpected end of expression: a number is missing", pos_);
        throw InputError(unexpected("a number"), pos_);
    }

    std::unique_ptr<Node> call_sqrt(std::size_t column) {
        if (peek() != '(') throw InputError("'(' expected after sqrt", pos_);
        const std::size_t open = pos_;
        advance();
        auto node = make(Node::Kind::sqrt, column);
        node->lhs = parse_expression();
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

    std::string_view scan_word() {
        const std::size_t start = pos_;
        while (pos_ < text_.size() && is_alpha(text_[pos_]))
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

IEEEFloat read_numeral(const Node& leaf, IEEEFloat::format fmt, IEEEFloat::rounding_mode mode) {
    try {
        return IEEEFloat::from_string(leaf.text, fmt, mode);
    } catch (const IEEEFloat::error& e) {
        throw InputError(e.what(), leaf.column);
    }
}

// Applies a binary operation in place on `lhs`, whose mode rounds the result.
void apply(Node::Kind kind, IEEEFloat& lhs, const IEEEFloat& rhs) {
    switch (kind) {
    case Node::Kind::add:
        lhs += rhs;
        break;
    case Node::Kind::subtract:
        lhs -= rhs;
        break;
    case Node::Kind::multiply:
        lhs *= rhs;
        break;
    case Node::Kind::divide:
        lhs /= rhs;
        break;
    default:
        break;
    }
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

IEEEFloat evaluate(const Node& tree, IEEEFloat::format fmt, IEEEFloat::rounding_mode mode,
                   const StepObserver& observe) {
    if (tree.kind == Node::Kind::numeral) return read_numeral(tree, fmt, mode);

    IEEEFloat result = evaluate(*tree.lhs, fmt, mode, observe);
    switch (tree.kind) {
    case Node::Kind::negate:
        result.self_neg();
        break;
    case Node::Kind::sqrt:
        result.sqrt();
        break;
    default:
        apply(tree.kind, result, evaluate(*tree.rhs, fmt, mode, observe));
        break;
    }
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
    case Node::Kind::sqrt:
        return "sqrt(" + describe(*node.lhs) + ")";
    default:
        return "(" + describe(*node.lhs) + symbol(node.kind) + describe(*node.rhs) + ")";
    }
}

} // namespace fpcalc
