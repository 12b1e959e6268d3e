// Private to the IEEEFloat units, not installed: where a numeral ends.
//
// The prefix reader and stream input both need the longest numeral at the
// start of some text, and a stream can only be read one character at a time
// with no going back. So the grammar of from_string is run as a small
// automaton fed a character at a time: it tells whether the text so far can
// still grow into a numeral, and remembers the longest prefix that already is
// one. The conversion itself is left to from_string.
#pragma once

#include <cstddef>

namespace tarn::ieeefloat_detail {

class NumeralScanner {
public:
    /// Feeds the next character. False when no numeral starts with the text
    /// fed so far followed by `c`; the character is then not taken, and
    /// feeding more changes nothing.
    bool feed(char c) {
        const State next = step(c);
        if (next == State::dead) return false;
        state = next;
        ++fed;
        if (accepting()) accepted_length = fed;
        return true;
    }
    /// The length of the longest prefix fed that is a whole numeral; 0 if none.
    std::size_t accepted() const { return accepted_length; }

private:
    enum class State {
        start,
        sign,
        zero,
        integer,
        lone_point,
        fraction,
        exponent_mark,
        exponent_sign,
        exponent,
        hex_mark,
        hex_integer,
        hex_lone_point,
        hex_fraction,
        hex_exponent_mark,
        hex_exponent_sign,
        hex_exponent,
        word,
        payload,
        closed,
        dead
    };

    static bool digit(char c) { return c >= '0' && c <= '9'; }
    static bool hex_digit(char c) { return digit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'); }
    static bool sign_char(char c) { return c == '+' || c == '-'; }
    static char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c | 0x20) : c; }

    bool accepting() const {
        switch (state) {
        case State::zero:
        case State::integer:
        case State::fraction:
        case State::exponent:
        case State::hex_integer:
        case State::hex_fraction:
        case State::hex_exponent:
        case State::closed:
            return true;
        case State::word: // "inf", "infinity", "nan"
            return matched == 3 || matched == 8;
        default:
            return false;
        }
    }

    State step(char c) {
        switch (state) {
        case State::start:
            if (sign_char(c)) return State::sign;
            [[fallthrough]];
        case State::sign:
            if (c == '0') return State::zero;
            if (digit(c)) return State::integer;
            if (c == '.') return State::lone_point;
            if (lower(c) == 'i' || lower(c) == 'n') {
                keyword = lower(c) == 'i' ? "infinity" : "nan";
                matched = 1;
                return State::word;
            }
            return State::dead;
        case State::zero:
            if (lower(c) == 'x') return State::hex_mark;
            [[fallthrough]];
        case State::integer:
            if (digit(c)) return State::integer;
            if (c == '.') return State::fraction;
            return lower(c) == 'e' ? State::exponent_mark : State::dead;
        case State::lone_point:
            return digit(c) ? State::fraction : State::dead;
        case State::fraction:
            if (digit(c)) return State::fraction;
            return lower(c) == 'e' ? State::exponent_mark : State::dead;
        case State::exponent_mark:
            if (sign_char(c)) return State::exponent_sign;
            [[fallthrough]];
        case State::exponent_sign:
        case State::exponent:
            return digit(c) ? State::exponent : State::dead;
        case State::hex_mark:
            if (c == '.') return State::hex_lone_point;
            [[fallthrough]];
        case State::hex_integer:
            if (hex_digit(c)) return State::hex_integer;
            if (state == State::hex_integer && c == '.') return State::hex_fraction;
            return state == State::hex_integer && lower(c) == 'p' ? State::hex_exponent_mark
                                                                  : State::dead;
        case State::hex_lone_point:
            return hex_digit(c) ? State::hex_fraction : State::dead;
        case State::hex_fraction:
            if (hex_digit(c)) return State::hex_fraction;
            return lower(c) == 'p' ? State::hex_exponent_mark : State::dead;
        case State::hex_exponent_mark:
            if (sign_char(c)) return State::hex_exponent_sign;
            [[fallthrough]];
        case State::hex_exponent_sign:
        case State::hex_exponent:
            return digit(c) ? State::hex_exponent : State::dead;
        case State::word:
            if (keyword[matched] != '\0' && lower(c) == keyword[matched]) {
                ++matched;
                return State::word;
            }
            // C's readers take "nan(" letters, digits and underscores ")".
            return keyword[0] == 'n' && matched == 3 && c == '(' ? State::payload : State::dead;
        case State::payload:
            if (c == ')') return State::closed;
            return digit(c) || lower(c) != c || (c >= 'a' && c <= 'z') || c == '_' ? State::payload
                                                                                   : State::dead;
        default:
            return State::dead;
        }
    }

    State state = State::start;
    const char* keyword = "";
    std::size_t matched = 0, fed = 0, accepted_length = 0;
};

} // namespace tarn::ieeefloat_detail
