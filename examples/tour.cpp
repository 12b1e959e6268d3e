// A guided tour of tarn: formats chosen at run time, the four rounding modes,
// exact conversion to and from rationals, neighbouring values, and text in and
// out. `./build.sh demo` builds and runs it; the README shows its output.

#include "tarn/ieeefloat/ieeefloat.h"

#include <iomanip>
#include <iostream>
#include <string>

using tarn::IEEEFloat;
using tarn::QNumber;

namespace {

void heading(const std::string& title) {
    std::cout << "\n== " << title << "\n";
}

const char* mode_name(IEEEFloat::rounding_mode mode) {
    switch (mode) {
    case IEEEFloat::ROUND_NEAREST_EVEN:
        return "nearest-even";
    case IEEEFloat::ROUND_TOWARD_ZERO:
        return "toward-zero";
    case IEEEFloat::ROUND_TOWARD_POSITIVE:
        return "toward-positive";
    default:
        return "toward-negative";
    }
}

constexpr IEEEFloat::rounding_mode all_modes[] = {
    IEEEFloat::ROUND_NEAREST_EVEN, IEEEFloat::ROUND_TOWARD_ZERO, IEEEFloat::ROUND_TOWARD_POSITIVE,
    IEEEFloat::ROUND_TOWARD_NEGATIVE};

constexpr auto nearest = IEEEFloat::ROUND_NEAREST_EVEN;

// A format is nothing but two widths, so the same code runs on an 8-bit
// format, on binary16 and on any width a user makes up.
void formats() {
    heading("Formats: two widths, chosen at run time");
    const IEEEFloat::format shown[] = {IEEEFloat::format::e4m3(), IEEEFloat::format::e5m2(),
                                       IEEEFloat::format::binary16(), IEEEFloat::format::bfloat16(),
                                       IEEEFloat::format{6, 9}};
    for (IEEEFloat::format f : shown) {
        const std::string_view name = f.name();
        std::cout << std::left << std::setw(9) << (name.empty() ? "(custom)" : name)
                  << " e=" << f.exponent_width << " m=" << std::setw(3) << f.mantissa_width
                  << "largest " << IEEEFloat::max_value(f).to_number() << "\n";
    }
}

// One numeral, four roundings: the directed modes bracket the exact value.
void rounding_modes() {
    heading("Rounding modes: 0.1 read into binary16");
    for (IEEEFloat::rounding_mode mode : all_modes) {
        const IEEEFloat x = IEEEFloat::from_string("0.1", IEEEFloat::format::binary16(), mode);
        std::cout << std::setw(16) << mode_name(mode) << x.to_str() << "\n";
    }
}

// Every finite value is an exact rational; QNumber is the way back and forth.
void exact_conversion() {
    heading("Exact conversion");
    const IEEEFloat tenth = IEEEFloat::from_string("0.1", IEEEFloat::format::binary64(), nearest);
    std::cout << "0.1 in binary64 is exactly " << tenth.to_number() << "\n";

    IEEEFloat third =
        IEEEFloat::from_number(QNumber(1, 3), IEEEFloat::format::binary128(), nearest);
    std::cout << "1/3 in binary128 is " << third << "\n";
    third.set_format(IEEEFloat::format::binary16());
    std::cout << "  converted to binary16: " << third.to_str() << "\n";

    IEEEFloat x = IEEEFloat::from_string("2.5", IEEEFloat::format::binary16(), nearest);
    for (IEEEFloat::rounding_mode mode : all_modes) {
        x.set_rounding_mode(mode);
        std::cout << "2.5 to an integer, " << std::setw(16) << mode_name(mode) << x.to_integer()
                  << "\n";
    }
}

// The operators round under the first operand's mode, in its format.
void arithmetic() {
    heading("Arithmetic, rounded once per operation");
    const auto binary64 = IEEEFloat::format::binary64();
    const IEEEFloat a = IEEEFloat::from_string("0.1", binary64, nearest);
    const IEEEFloat b = IEEEFloat::from_string("0.2", binary64, nearest);
    std::cout << "0.1 + 0.2 in binary64  = " << a + b << "\n";

    IEEEFloat root = IEEEFloat::from_string("2", IEEEFloat::format::e4m3(), nearest);
    root.sqrt();
    std::cout << "sqrt(2) in e4m3        = " << root << " (" << root.to_number() << ")\n";

    const auto binary16 = IEEEFloat::format::binary16();
    const IEEEFloat big = IEEEFloat::max_value(binary16);
    // 65520 lies halfway between 65504 and 2^16; the tie goes to the even
    // 2^16, which is beyond the format, so the sum overflows.
    std::cout << "65504 + 15 in binary16 = "
              << (big + IEEEFloat::from_string("15", binary16, nearest)).to_number()
              << ", 65504 + 16 = " << big + IEEEFloat::from_string("16", binary16, nearest) << "\n";
    const IEEEFloat zero(binary16, nearest);
    const IEEEFloat nan = zero / zero;
    const IEEEFloat one = IEEEFloat::from_string("1", binary16, nearest);
    std::cout << std::boolalpha << "0/0 = " << nan << ", and NaN == NaN is " << (nan == nan)
              << "; ieee_cmp(1, NaN) = " << tarn::ieee_cmp(one, nan) << " (unordered)\n";
}

// Stepping visits every value of the format in order, subnormals included.
void neighbours() {
    heading("Neighbours");
    const auto binary16 = IEEEFloat::format::binary16();
    IEEEFloat x = IEEEFloat::from_string("1", binary16, nearest);
    x.next_representable(true);
    std::cout << "after 1:        " << x.to_str() << "\n";
    x = IEEEFloat(binary16, nearest);
    x.next_representable(true);
    std::cout << "after 0:        " << x.to_str() << "\n";
    x = IEEEFloat::max_value(binary16);
    x.packed_next(true);
    std::cout << "after 65504:    " << x.to_str() << " (by bit pattern)\n";
}

// Three ways to write a value: the shortest decimal that reads back to it,
// the exact hexadecimal form, and the full picture with its bit fields.
// Numerals come in as decimal or hexadecimal text.
void text() {
    heading("Text in and out");
    const auto binary32 = IEEEFloat::format::binary32();
    const IEEEFloat pi = IEEEFloat::from_string("3.14159265358979", binary32, nearest);
    std::cout << "pi in binary32:  " << pi.to_float_str() << "  " << pi.to_hex_str() << "  "
              << pi.to_str() << "\n";
    const bool reads_back =
        IEEEFloat::from_string(pi.to_float_str(), binary32, nearest).get_bits() == pi.get_bits();
    std::cout << "its shortest decimal reads back to the same bits: " << std::boolalpha
              << reads_back << "\n";
    const IEEEFloat x = IEEEFloat::from_string("0x1.8p-3", IEEEFloat::format::e5m2(), nearest);
    std::cout << "0x1.8p-3 in e5m2: " << x << ", exactly " << x.to_number() << "  " << x.to_str()
              << "\n";
    std::cout << "1e-50 in binary32 underflows to "
              << IEEEFloat::from_string("1e-50", binary32, nearest) << ", 1e39 overflows to "
              << IEEEFloat::from_string("1e39", binary32, nearest) << "\n";
}

} // namespace

int main() {
    formats();
    rounding_modes();
    exact_conversion();
    arithmetic();
    neighbours();
    text();
    return 0;
}
