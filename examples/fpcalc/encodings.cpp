// fpcalc's encode and decode commands.

#include "encodings.h"

#include <charconv>
#include <string>

namespace fpcalc {

namespace {

using tarn::IEEEFloat;

std::optional<unsigned long> number(std::string_view text, int base = 10) {
    unsigned long v = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return v;
}

/// The pattern in hex and binary (width digits), then its value.
std::string show(const tarn::encoding& enc, std::uint64_t bits) {
    static const char digits[] = "0123456789abcdef";
    std::string hex, binary;
    for (unsigned long i = 0; i < (enc.width() + 3) / 4; ++i)
        hex.insert(hex.begin(), digits[(bits >> (4 * i)) & 15]);
    for (unsigned long i = 0; i < enc.width(); ++i)
        binary.insert(binary.begin(), (bits >> i) & 1 ? '1' : '0');
    const IEEEFloat x = tarn::decode(bits, enc);
    std::string value = x.is_nan() ? "nan" : x.is_inf() ? (x.get_sign() ? "-inf" : "inf") : "";
    if (value.empty()) {
        // Every value of the named encodings is a double; wider custom ones
        // show the nearest.
        char text[32];
        const double d = x.get_sign() && x.is_zero() ? -0.0 : x.to_number().to_mpq().get_d();
        value.assign(text, std::to_chars(text, text + sizeof text, d).ptr);
    }
    return "0x" + hex + " 0b" + binary + " = " + value;
}

} // namespace

tarn::encoding parse_encoding(std::string_view text) {
    if (const auto named = tarn::encoding::by_name(text)) return *named;
    const std::size_t colon = text.find(':');
    const std::string_view widths = text.substr(0, colon);
    const std::size_t m_at = widths.find('m');
    const auto e =
        widths.size() > 1 && widths[0] == 'e' ? number(widths.substr(1, m_at - 1)) : std::nullopt;
    const auto m = m_at == std::string_view::npos ? std::nullopt : number(widths.substr(m_at + 1));
    if (!e || !m)
        throw EncodingError("unknown encoding '" + std::string(text) +
                            "': give a name (like float8_e4m3fn) or eXmY[:options]");
    using specials = tarn::encoding::specials;
    tarn::encoding enc = tarn::encoding::make(*e, *m);
    for (std::size_t at = colon; at != std::string_view::npos;) {
        const std::size_t next = text.find(':', at + 1);
        const std::string_view option = text.substr(at + 1, next - at - 1);
        const std::pair<std::string_view, specials> tops[] = {
            {"ieee", specials::ieee},
            {"fn", specials::finite_nan_all_ones},
            {"fnuz", specials::finite_nan_negative_zero},
            {"finite", specials::finite},
            {"scale", specials::exponent_only}};
        bool known = false;
        for (const auto& [name, top] : tops)
            if (option == name) {
                enc.top = top;
                enc.has_sign = enc.has_sign && top != specials::exponent_only;
                known = true;
            }
        const bool negative_bias = option.substr(0, 6) == "bias=-";
        if (option == "unsigned") {
            enc.has_sign = false;
        } else if (option.substr(0, 5) == "bias=") {
            const auto b = number(option.substr(negative_bias ? 6 : 5));
            if (!b || *b > (1ul << 62))
                throw EncodingError("bad bias in '" + std::string(text) + "'");
            enc.bias = negative_bias ? -static_cast<long>(*b) : static_cast<long>(*b);
        } else if (!known) {
            throw EncodingError("unknown option '" + std::string(option) + "' in '" +
                                std::string(text) + "'");
        }
        at = next;
    }
    try {
        enc.validate();
    } catch (const IEEEFloat::error& error) {
        throw EncodingError(std::string(text) + ": " + error.what());
    }
    return enc;
}

std::string encode_text(const tarn::encoding& enc, std::string_view value, tarn::rounding r,
                        tarn::overflow o) {
    // The numeral is read to odd at far more bits than any encoding has, so
    // that rounding it into the encoding is rounding it once.
    const IEEEFloat::format wide{24, 300};
    IEEEFloat x;
    tarn::clear_ieee_flags();
    try {
        x = IEEEFloat::from_string(value, wide, IEEEFloat::ROUND_TOWARD_ZERO);
    } catch (const IEEEFloat::error&) {
        throw EncodingError("invalid number '" + std::string(value) + "'");
    }
    if ((tarn::ieee_flags() & tarn::FLAG_INEXACT) && !x.is_inf() &&
        mpz_even_p(x.get_bits().to_mpz().get_mpz_t()))
        x.next_representable(!x.get_sign());
    tarn::clear_ieee_flags();
    const std::uint64_t bits = tarn::encode(x, enc, r, o);
    std::string flags;
    const std::pair<unsigned, const char*> names[] = {{tarn::FLAG_INVALID, " invalid"},
                                                      {tarn::FLAG_OVERFLOW, " overflow"},
                                                      {tarn::FLAG_UNDERFLOW, " underflow"},
                                                      {tarn::FLAG_INEXACT, " inexact"}};
    for (const auto& [flag, name] : names)
        if (tarn::ieee_flags() & flag) flags += name;
    return show(enc, bits) + "  flags:" + (flags.empty() ? " none" : flags);
}

std::string decode_text(const tarn::encoding& enc, std::string_view pattern) {
    const bool hex = pattern.substr(0, 2) == "0x", binary = pattern.substr(0, 2) == "0b";
    const auto bits = number(pattern.substr(hex || binary ? 2 : 0), hex ? 16 : binary ? 2 : 10);
    if (!bits || (enc.width() < 64 && *bits >> enc.width()))
        throw EncodingError("'" + std::string(pattern) + "' is not a pattern of " +
                            std::to_string(enc.width()) + " bits");
    return show(enc, *bits);
}

} // namespace fpcalc
