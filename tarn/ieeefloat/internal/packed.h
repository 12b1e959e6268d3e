// Private to the IEEEFloat units, not installed: the packed integer of a generic value,
// whichever way the value holds it.
//
// A generic value keeps a pattern below 2^63 as a QNumber in its small form, one
// of [2^63, 2^64) as the word itself and a wider one as a big QNumber (see
// IEEEFloat::Value). The word paths read and write patterns as words through
// read_packed and write_packed, so a 64-bit pattern with the sign set goes from
// one operation to the next without a QNumber. The exact paths compute on a
// QNumber: `number` gives the value's own, moving a word into it first, and
// `settle` afterwards brings a result below 2^64 back to its inline holding.
#pragma once

#include "tarn/ieeefloat/internal/codec.h"

#include <cstdint>
#include <new>

namespace tarn::ieeefloat_detail {

__extension__ typedef unsigned __int128 u128;

/// The generic pattern of h as a word, when it is below 2^64.
inline bool pattern_word(const Held& h, std::uint64_t& word) {
    if (h.wide) {
        word = h.bits64;
        return true;
    }
    std::uint64_t high;
    return BVNumber::to_words(h.packed, &word, &high) && high == 0;
}

/// Ends a holding of h that owns a heap pair, leaving the small form's zero.
inline void drop_big(Held& h) noexcept {
    h.packed.~QNumber();
    new (&h.packed) QNumber();
}

/// Makes h's generic pattern `word`: the small form below 2^63, the word above.
[[gnu::always_inline]] inline void set_pattern(Held& h, std::uint64_t word) {
    if (!h.wide && !h.packed.is_small()) drop_big(h);
    // Neither the small form nor the word owns anything, so one simply takes
    // the other's place.
    if (word >> 63) {
        h.bits64 = word;
        h.wide = true;
    } else {
        new (&h.packed) QNumber(static_cast<long>(word));
        h.wide = false;
    }
}

/// The generic pattern as a QNumber to compute on in place; a pattern held
/// as a word moves into the number (the big form) first.
inline QNumber& number(Held& h) {
    if (h.wide) {
        QNumber q = integer_from_word(h.bits64); // may throw: h is still whole
        new (&h.packed) QNumber(std::move(q));
        h.wide = false;
    }
    return h.packed;
}

/// After exact work on number(h): a result below 2^64 left in the big form
/// goes to its inline holding.
inline void settle(Held& h) {
    std::uint64_t word, high;
    if (h.wide || h.packed.is_small() || !BVNumber::to_words(h.packed, &word, &high) || high != 0)
        return;
    set_pattern(h, word);
}

/// Makes h's generic pattern the integer q.
inline void set_pattern(Held& h, const QNumber& q) {
    std::uint64_t word, high;
    if (BVNumber::to_words(q, &word, &high) && high == 0) return set_pattern(h, word);
    number(h) = q;
}

/// Makes h's generic pattern high * 2^64 + low.
inline void set_pattern(Held& h, u128 bits) {
    if ((bits >> 64) == 0) return set_pattern(h, static_cast<std::uint64_t>(bits));
    BVNumber::assign_words(static_cast<std::uint64_t>(bits), static_cast<std::uint64_t>(bits >> 64),
                           &number(h));
}

/// The generic pattern as a QNumber to read: the value's own, or a copy of a
/// pattern held as a word.
class PackedRead {
public:
    explicit PackedRead(const Held& h)
        : number_(h.wide ? &(copy_ = integer_from_word(h.bits64)) : &h.packed) {}
    PackedRead(const PackedRead&) = delete;
    PackedRead& operator=(const PackedRead&) = delete;
    operator const QNumber&() const { return *number_; } // NOLINT: a view of the pattern
    const QNumber& operator*() const { return *number_; }

private:
    QNumber copy_;
    const QNumber* number_;
};

/// The scans of h's generic pattern.
inline PackedScan scan_held(const Held& h, unsigned long m) {
    return h.wide ? scan_two_words(h.bits64, 0, m) : scan_packed(h.packed, m);
}

/// Bit n of h's generic pattern.
inline bool pattern_bit(const Held& h, unsigned long n) {
    if (h.wide) return n < 64 && ((h.bits64 >> n) & 1) != 0;
    return BVNumber::test_bit(h.packed, n);
}

/// Sets or clears bit n of h's generic pattern.
inline void set_pattern_bit(Held& h, unsigned long n, bool set) {
    std::uint64_t word;
    if (n < 64 && pattern_word(h, word)) {
        const std::uint64_t bit = std::uint64_t{1} << n;
        return set_pattern(h, set ? word | bit : word & ~bit);
    }
    BVNumber::set_bit(number(h), n, set);
    settle(h);
}

} // namespace tarn::ieeefloat_detail
