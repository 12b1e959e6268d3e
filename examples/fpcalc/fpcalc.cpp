// fpcalc: evaluate arithmetic in any binary floating-point format and in any
// rounding direction, and show the bits and status flags of every result.
//
//   fpcalc --format 5,10 --round toward-zero '1/3 + 0.1'
//
// Each numeral is rounded once into the format, each operation once, exactly
// as a program computing in that format would do. Exit status: 0 when every
// expression was evaluated, 2 for bad input (options, format, rounding direction,
// syntax, numerals), 1 when the library refused a computation.

#include "encodings.h"
#include "expression.h"

#include <cctype>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tarn::IEEEFloat;

constexpr int exit_bad_input = 2;
constexpr int exit_failure = 1;

// Widths beyond these would make the exact text of a single value run to
// millions of digits; the library itself takes any widths.
constexpr unsigned long max_exponent_width = 24;
constexpr unsigned long max_mantissa_width = 65535;

struct RoundingName {
    std::string_view name;
    tarn::rounding direction;
};

constexpr RoundingName rounding_names[] = {
    {"nearest-even", tarn::rounding::nearest_even}, {"toward-zero", tarn::rounding::toward_zero},
    {"toward-positive", tarn::rounding::upward},    {"toward-negative", tarn::rounding::downward},
    {"nearest-away", tarn::rounding::nearest_away}, {"to-odd", tarn::rounding::to_odd},
};

struct FlagName {
    unsigned flag;
    const char* name;
};

constexpr FlagName flag_names[] = {
    {tarn::FLAG_INVALID, "invalid"},   {tarn::FLAG_DIVBYZERO, "divide-by-zero"},
    {tarn::FLAG_OVERFLOW, "overflow"}, {tarn::FLAG_UNDERFLOW, "underflow"},
    {tarn::FLAG_INEXACT, "inexact"},
};

/// A problem with the command line; reported with the usage hint, exit 2.
struct UsageError {
    std::string message;
};

struct NotationName {
    std::string_view name;
    fpcalc::Notation notation;
};

constexpr NotationName notation_names[] = {
    {"shortest", fpcalc::Notation::shortest}, {"sci", fpcalc::Notation::sci},
    {"fixed", fpcalc::Notation::fixed},       {"general", fpcalc::Notation::general},
    {"hex", fpcalc::Notation::hex},
};

// More digits than this would print screens of them for one value.
constexpr unsigned long max_digits = 100000;

struct Options {
    IEEEFloat::format format = IEEEFloat::format::binary64();
    tarn::rounding direction = tarn::rounding::nearest_even;
    std::optional<fpcalc::Notation> notation;
    int digits = -1; // none given
    bool steps = false;
    bool help = false;
    std::vector<std::string> expressions;
};

void print_help(std::ostream& out) {
    out << "usage: fpcalc [--format F] [--round R] [--notation N] [--digits D] [--steps]\n"
           "              EXPRESSION...\n"
           "\n"
           "Evaluates each EXPRESSION in a binary floating-point format, rounding every\n"
           "numeral and every operation once, and prints the result with its bits and\n"
           "the status flags the expression raised.\n"
           "\n"
           "  -f, --format F  e,m (exponent and stored mantissa widths, e.g. 5,10) or\n"
           "                  one of these names (default binary64):\n"
           "                 ";
    for (std::string_view name : IEEEFloat::format::known_names())
        out << ' ' << name;
    out << "\n"
           "  -r, --round R   nearest-even (default), toward-zero, toward-positive,\n"
           "                  toward-negative, nearest-away (ties away from zero),\n"
           "                  to-odd (toward zero, last bit set when inexact)\n"
           "  -n, --notation N\n"
           "                  also show the result as shortest (the shortest digits\n"
           "                  that read back), sci, fixed, general (as printf's %g)\n"
           "                  or hex\n"
           "  -d, --digits D  the digits of sci and general, or those after the point\n"
           "                  of fixed (default 6, and the shortest for sci); alone,\n"
           "                  it means --notation general\n"
           "  -s, --steps     also show the result and flags of every operation\n"
           "  -h, --help      this text\n"
           "\n"
           "Expressions: numerals (12, -0.1, 1e-3, 0x1.8p-3, inf, nan), + - * /, unary\n"
           "minus, parentheses, sqrt(x), fma(a, b, c) (a * b + c rounded once), rint(x)\n"
           "(x rounded to an integral value) and int32(x), int64(x), uint32(x),\n"
           "uint64(x) (x rounded to that integer type, then back into the format),\n"
           "minimum(a, b), maximum(a, b), minimum_number(a, b), maximum_number(a, b),\n"
           "remainder(a, b), copysign(a, b), scale_b(x, n) (x * 2^n, n integral),\n"
           "log_b(x), abs(x), classify(x); bit patterns as #0x3c00 or #0b1111.\n"
           "Each result is also shown as its bit pattern in hexadecimal.\n"
           "Exit status 2 for bad input.\n";
}

std::optional<unsigned long> parse_width(std::string_view text) {
    if (text.empty() || text.size() > 9) return std::nullopt;
    unsigned long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    return value;
}

IEEEFloat::format parse_format(std::string_view text) {
    if (auto named = IEEEFloat::format::by_name(text)) return *named;
    const std::size_t comma = text.find(',');
    const auto e = parse_width(text.substr(0, comma));
    const auto m =
        comma == std::string_view::npos ? std::nullopt : parse_width(text.substr(comma + 1));
    if (!e || !m)
        throw UsageError{"unknown format '" + std::string(text) +
                         "': give e,m (like 5,10) or a name (like binary16)"};
    if (*e < 1 || *e > max_exponent_width || *m < 1 || *m > max_mantissa_width)
        throw UsageError{"format '" + std::string(text) + "' is out of range: fpcalc takes 1 to " +
                         std::to_string(max_exponent_width) + " exponent bits and 1 to " +
                         std::to_string(max_mantissa_width) + " mantissa bits"};
    return {*e, *m};
}

fpcalc::Notation parse_notation(std::string_view text) {
    std::string names;
    for (const NotationName& n : notation_names) {
        if (n.name == text) return n.notation;
        names += (names.empty() ? "" : ", ") + std::string(n.name);
    }
    throw UsageError{"unknown notation '" + std::string(text) + "': give one of " + names};
}

tarn::rounding parse_rounding(std::string_view text) {
    std::string names;
    for (const RoundingName& r : rounding_names) {
        if (r.name == text) return r.direction;
        names += (names.empty() ? "" : ", ") + std::string(r.name);
    }
    throw UsageError{"unknown rounding direction '" + std::string(text) + "': give one of " +
                     names};
}

// Accepts "--format X", "--format=X" and "-f X" alike.
Options parse_options(int argc, char** argv) {
    Options options;
    bool only_expressions = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        // Long options start with "--", short ones are a dash and one letter;
        // anything else, "-0.5 * 2" or "-inf" say, is an expression.
        const bool is_option =
            arg.size() >= 2 && arg[0] == '-' &&
            (arg[1] == '-' ||
             (arg.size() == 2 && std::isalpha(static_cast<unsigned char>(arg[1]))));
        if (only_expressions || !is_option) {
            options.expressions.emplace_back(arg);
            continue;
        }
        std::string_view value;
        bool has_value = false;
        if (const std::size_t eq = arg.find('='); arg.substr(0, 2) == "--" && eq != arg.npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            has_value = true;
        }
        auto take_value = [&]() {
            if (has_value) return value;
            if (i + 1 >= argc) throw UsageError{"option " + std::string(arg) + " needs a value"};
            return std::string_view(argv[++i]);
        };
        if (arg == "--") {
            only_expressions = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "-s" || arg == "--steps") {
            options.steps = true;
        } else if (arg == "-f" || arg == "--format") {
            options.format = parse_format(take_value());
        } else if (arg == "-r" || arg == "--round") {
            options.direction = parse_rounding(take_value());
        } else if (arg == "-n" || arg == "--notation") {
            options.notation = parse_notation(take_value());
        } else if (arg == "-d" || arg == "--digits") {
            const std::string_view text = take_value();
            const auto digits = parse_width(text);
            if (!digits || *digits > max_digits)
                throw UsageError{"--digits takes 0 to " + std::to_string(max_digits) + ", not '" +
                                 std::string(text) + "'"};
            options.digits = static_cast<int>(*digits);
        } else {
            throw UsageError{"unknown option '" + std::string(arg) + "'"};
        }
    }
    if (!options.help && options.expressions.empty()) throw UsageError{"no expression given"};
    if (options.digits >= 0 && !options.notation) options.notation = fpcalc::Notation::general;
    if (options.digits >= 0 && (options.notation == fpcalc::Notation::shortest ||
                                options.notation == fpcalc::Notation::hex))
        throw UsageError{"--digits goes with the notations sci, fixed and general"};
    return options;
}

/// The exact decimal expansion of a finite value; every binary fraction has
/// one. Values whose expansion would be longer than a screenful give nothing.
std::optional<std::string> exact_decimal(const IEEEFloat& x) {
    constexpr std::size_t longest = 400;
    const mpq_class q = x.to_number().to_mpq();
    // The denominator is 2^k: n / 2^k = n * 5^k / 10^k.
    const std::size_t k = mpz_sizeinbase(q.get_den().get_mpz_t(), 2) - 1;
    if (k > longest) return std::nullopt;
    mpz_class scaled;
    mpz_ui_pow_ui(scaled.get_mpz_t(), 5, k);
    scaled *= abs(q.get_num());
    std::string digits = scaled.get_str();
    if (digits.size() > longest) return std::nullopt;
    if (digits.size() <= k) digits.insert(0, k + 1 - digits.size(), '0');
    if (k > 0) digits.insert(digits.size() - k, 1, '.');
    return (x.get_sign() ? "-" : "") + digits;
}

std::string describe_flags(unsigned flags) {
    std::string text = "flags:";
    for (const FlagName& f : flag_names)
        if ((flags & f.flag) != 0) text += std::string(" ") + f.name;
    return flags == 0 ? text + " none" : text;
}

// An integer conversion shows the integer, then the value it gives in the
// format; classify shows the class before the value.
std::string describe_value(const fpcalc::Value& value) {
    const std::string bits = value.number.to_str();
    if (!value.label.empty()) return value.label + ": " + bits;
    return value.integer.empty() ? bits : value.integer + ", in the format " + bits;
}

// The packed integer in hexadecimal, as "#0x..." reads it back.
std::string hex_pattern(const IEEEFloat& x) {
    return "0x" + x.get_bits().to_mpq().get_num().get_str(16);
}

void print_result(const fpcalc::Value& value, const Options& options) {
    const IEEEFloat& result = value.number;
    std::cout << "  = " << describe_value(value) << "\n";
    std::cout << "  bits: " << hex_pattern(result) << "\n";
    if (options.notation)
        std::cout << "  " << notation_names[static_cast<int>(*options.notation)].name << ": "
                  << fpcalc::written(result, *options.notation, options.digits) << "\n";
    if (result.is_nan() || result.is_inf()) return;
    const std::string shortest = result.to_float_str();
    if (auto exact = exact_decimal(result)) {
        if (*exact != shortest) std::cout << "  = " << *exact << " exactly\n";
    } else {
        std::cout << "  (the exact decimal value is too long to show)\n";
    }
}

void print_input_error(const fpcalc::InputError& e, const std::string& expression) {
    std::cerr << "fpcalc: " << e.what() << "\n  " << expression << "\n  "
              << std::string(e.column(), ' ') << "^\n";
}

int run(const Options& options) {
    for (const std::string& expression : options.expressions) {
        try {
            const std::unique_ptr<fpcalc::Node> tree = fpcalc::parse(expression);
            std::cout << expression << "\n";
            // The last operation's result is the one printed below anyway.
            fpcalc::StepObserver show_step;
            if (options.steps)
                show_step = [root = tree.get()](const fpcalc::Node& node,
                                                const fpcalc::Value& value) {
                    if (&node == root) return;
                    std::cout << "  " << fpcalc::describe(node) << " -> " << describe_value(value)
                              << "  " << describe_flags(value.flags) << "\n";
                };
            tarn::clear_ieee_flags();
            print_result(fpcalc::evaluate(*tree, options.format, options.direction, show_step),
                         options);
            std::cout << "  " << describe_flags(tarn::ieee_flags()) << "\n";
        } catch (const fpcalc::InputError& e) {
            print_input_error(e, expression);
            return exit_bad_input;
        } catch (const tarn::Exception& e) {
            std::cerr << "fpcalc: " << expression << ": " << e.what() << "\n";
            return exit_failure;
        }
    }
    return EXIT_SUCCESS;
}

constexpr const char* encoding_usage =
    "usage: fpcalc encode ENCODING VALUE [--round R] [--non-finite]\n"
    "       fpcalc decode ENCODING PATTERN\n"
    "\n"
    "Rounds VALUE once into a low-precision encoding (saturating, unless\n"
    "--non-finite), or reads PATTERN (0x hex, 0b binary or decimal) of one, and\n"
    "prints the pattern in hex and binary and its value. ENCODING is a name\n"
    "(float8_e4m3fn, float8_e5m2, float8_e4m3fnuz, float8_e5m2fnuz,\n"
    "float8_e4m3b11fnuz, float8_e8m0fnu, float6_e3m2fn, float6_e2m3fn,\n"
    "float4_e2m1fn, bfloat16, float16, float32) or eXmY with options after\n"
    "colons: bias=B, unsigned, and one of ieee (default), fn (no infinities,\n"
    "NaN all ones), fnuz (no infinities, no -0, NaN the sign bit alone), finite\n"
    "(no specials), scale (exponent only, unsigned): e4m3:bias=8:fnuz.\n";

/// `fpcalc encode ...` and `fpcalc decode ...` (examples/fpcalc/encodings.h).
int run_encoding_command(int argc, char** argv) {
    const bool encode = std::string_view(argv[1]) == "encode";
    try {
        tarn::rounding direction = tarn::rounding::nearest_even;
        tarn::overflow overflow = tarn::overflow::saturate;
        std::vector<std::string_view> operands;
        for (int i = 2; i < argc; ++i) {
            const std::string_view arg = argv[i];
            if ((arg == "--round" || arg == "-r") && i + 1 < argc)
                direction = parse_rounding(argv[++i]);
            else if (arg == "--non-finite")
                overflow = tarn::overflow::non_finite;
            else if (arg == "--help" || arg == "-h")
                return std::cout << encoding_usage, EXIT_SUCCESS;
            else
                operands.push_back(arg);
        }
        if (operands.size() != 2) throw UsageError{"give an encoding and a value or pattern"};
        const tarn::encoding enc = fpcalc::parse_encoding(operands[0]);
        std::cout << (encode ? fpcalc::encode_text(enc, operands[1], direction, overflow)
                             : fpcalc::decode_text(enc, operands[1]))
                  << "\n";
        return EXIT_SUCCESS;
    } catch (const UsageError& e) {
        std::cerr << "fpcalc: " << e.message << "\n" << encoding_usage;
    } catch (const fpcalc::EncodingError& e) {
        std::cerr << "fpcalc: " << e.what() << "\n";
    }
    return exit_bad_input;
}

} // namespace

int main(int argc, char** argv) {
    if (argc >= 2 &&
        (std::string_view(argv[1]) == "encode" || std::string_view(argv[1]) == "decode"))
        return run_encoding_command(argc, argv);
    Options options;
    try {
        options = parse_options(argc, argv);
    } catch (const UsageError& e) {
        std::cerr << "fpcalc: " << e.message << "\n(fpcalc --help shows the usage)\n";
        return exit_bad_input;
    }
    if (options.help) {
        print_help(std::cout);
        return EXIT_SUCCESS;
    }
    return run(options);
}
