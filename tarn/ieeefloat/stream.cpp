// Streams: operator<< with the stream's notation, precision, sign, case and
// padding, and operator>> reading one numeral.

#include "tarn/ieeefloat/ieeefloat.h"
#include "tarn/ieeefloat/internal/notation.h"
#include "tarn/ieeefloat/internal/numeral_scanner.h"

#include <climits>
#include <istream>
#include <ostream>
#include <string>

namespace tarn {

using namespace ieeefloat_detail;

namespace {

/// The precision streams start with, which stands for "none asked for".
constexpr std::streamsize default_precision = 6;

/// The text before padding, as the stream's flags and precision ask.
std::string stream_text(const IEEEFloat& x, std::ios_base::fmtflags flags,
                        std::streamsize precision) {
    const std::ios_base::fmtflags field = flags & std::ios_base::floatfield;
    // As for double, a negative precision is the default one.
    const int digits = precision < 0         ? int{default_precision}
                       : precision > INT_MAX ? INT_MAX
                                             : static_cast<int>(precision);
    if (field == (std::ios_base::fixed | std::ios_base::scientific)) return x.to_hex_str();
    if (field == std::ios_base::scientific) // %.*e counts the digits after the point
        return x.to_str_digits(digits == INT_MAX ? digits : digits + 1, 'e');
    if (field == std::ios_base::fixed) return x.to_str_digits(digits, 'f');
    if (precision != default_precision) return x.to_str_digits(digits, 'g');
    if (x.is_nan() || x.is_inf()) return x.to_hex_str();
    const std::string positional = x.to_float_str();
    long exponent;
    std::string scientific = scientific_of_positional(positional, exponent);
    return exponent >= -5 && exponent < 21 ? positional : scientific;
}

} // namespace

std::ostream& operator<<(std::ostream& os, const IEEEFloat& x) {
    const std::ios_base::fmtflags flags = os.flags();
    std::string text = stream_text(x, flags, os.precision());
    if ((flags & std::ios_base::showpos) && text[0] != '-') text.insert(0, 1, '+');
    // As for double, whose std::fixed is printf's %f whatever the case asked.
    if ((flags & std::ios_base::uppercase) &&
        (flags & std::ios_base::floatfield) != std::ios_base::fixed)
        for (char& c : text)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    const std::streamsize width = os.width();
    os.width(0);
    if (width > static_cast<std::streamsize>(text.size())) {
        const auto padding = static_cast<std::size_t>(width) - text.size();
        const std::ios_base::fmtflags adjust = flags & std::ios_base::adjustfield;
        // Internal padding goes after a sign, or else after a "0x", as for double.
        std::size_t at = 0;
        if (adjust == std::ios_base::left)
            at = text.size();
        else if (adjust == std::ios_base::internal && (text[0] == '-' || text[0] == '+'))
            at = 1;
        else if (adjust == std::ios_base::internal && text.size() > 1 && text[0] == '0' &&
                 (text[1] == 'x' || text[1] == 'X'))
            at = 2;
        text.insert(at, padding, os.fill());
    }
    return os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::istream& operator>>(std::istream& is, IEEEFloat& x) {
    const std::istream::sentry ready(is); // skips blanks under skipws
    if (!ready) return is;
    std::streambuf& buffer = *is.rdbuf();
    NumeralScanner scanner;
    std::string text;
    std::ios_base::iostate state = std::ios_base::goodbit;
    for (;;) {
        const int c = buffer.sgetc();
        if (c == std::char_traits<char>::eof()) {
            state |= std::ios_base::eofbit;
            break;
        }
        if (!scanner.feed(static_cast<char>(c))) break;
        text += static_cast<char>(c);
        buffer.sbumpc();
    }
    // Characters read past the numeral in the hope of a longer one ("e+" in
    // "1e+x") go back to the buffer, as far as it takes them back.
    for (std::size_t i = text.size(); i > scanner.accepted(); --i) {
        if (buffer.sputbackc(text[i - 1]) == std::char_traits<char>::eof()) break;
        state &= ~std::ios_base::eofbit;
    }
    text.resize(scanner.accepted());
    if (text.empty() || x.get_format() == IEEEFloat::format()) {
        state |= std::ios_base::failbit;
    } else {
        try {
            IEEEFloat read = IEEEFloat::from_string(text, x.get_format(), x.get_rounding_mode());
            read.self_specialize_repr(x.get_repr());
            x = std::move(read);
        } catch (const IEEEFloat::error&) {
            state |= std::ios_base::failbit;
        }
    }
    is.setstate(state);
    return is;
}

} // namespace tarn
