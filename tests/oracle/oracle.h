// An independent reference for binary floating-point formats of any width, built on
// MPFR and GMP alone. The differential tests, the benchmarks and the fuzz targets
// compare tarn against it, so it deliberately shares no code with the library: a
// fault in tarn cannot be reproduced here by accident.
//
// Everything works on bit patterns. A format (e, m) has the usual IEEE-754 layout,
// read as a non-negative integer (the "packed" pattern):
//
//   bits 0 .. m-1        mantissa field (the stored significand, hidden bit not stored)
//   bits m .. m+e-1      biased exponent field, bias = 2^(e-1) - 1
//   bit  e+m             sign
//
// Patterns are passed as `mpz_class` in every width, through one codec, so the
// brute-force check of the reference on tiny formats vouches for every width.
//
// Rounding modes are the integers 0 (nearest, ties to even), 1 (toward zero),
// 2 (toward +infinity), 3 (toward -infinity), 4 (nearest, ties away from zero) and
// 5 (round to odd). The arithmetic functions reject any other number with
// std::invalid_argument.
//
// Status flags. The functions that round take an optional `unsigned* flags`; when
// given, it is set (not or-ed) to the FLAG_ bits that IEEE 754-2019 default exception
// handling raises for that operation. Underflow is detected after rounding: the
// result is tiny when the exact value rounded to m+1 significant bits with an
// unbounded exponent lies below 2^(1-bias) in magnitude, and underflow is raised when
// it is tiny and the delivered result inexact. Overflow is raised when that unbounded
// rounding exceeds the largest finite value (inexact comes with it).
//
// NaN results carry no payload: they are reported as the canonical pattern
// `nan_pattern(fmt)` (sign 1, exponent field all ones, mantissa 1), and
// `same_result` compares NaNs by class only. A format with m = 0 has no NaN at all;
// the canonical pattern then coincides with -infinity.
//
// Exponent range. The oracle sets MPFR's exponent range (a per-thread setting) on
// every call and does not restore it. Code that also uses MPFR directly in the same
// thread must set the range it needs itself.
//
// Supported formats: 1 <= e <= 62 (MPFR's exponent range ends there) and any m >= 0,
// except (1,0), whose subnormal range would start above its normal one;
// from_number_model needs one exponent bit more, so e <= 61 there. Formats outside
// that range are rejected with std::invalid_argument.
//
// Typical use in a differential test:
//
//   oracle::Format f{5, 10};
//   oracle::OperandGenerator gen(f, seed);          // tests/oracle/operands.h
//   auto [a, b] = gen.pair(oracle::Operation::Mul);
//   mpz_class want = oracle::apply(f, oracle::Operation::Mul, a, b, oracle::TOWARD_ZERO);
//   if (!oracle::same_result(f, got, want))
//       FAIL() << oracle::describe(f, got) << " != " << oracle::describe(f, want);
//
// As a benchmark baseline, keep one Emulator per format and call its out-parameter
// methods with a reused result: a finite result allocates nothing.
#pragma once

#include <cstdint>
#include <gmpxx.h>
#include <iosfwd>
#include <mpfr.h>
#include <string>
#include <vector>

namespace oracle {

/// The number of bits of a non-negative integer; 0 for 0.
inline unsigned long bit_length(const mpz_class& n) {
    return mpz_sgn(n.get_mpz_t()) == 0 ? 0 : mpz_sizeinbase(n.get_mpz_t(), 2);
}

/// 2^n.
inline mpz_class pow2(unsigned long n) {
    mpz_class r;
    mpz_setbit(r.get_mpz_t(), n);
    return r;
}

/// q × 2^n, for an exponent n of either sign.
mpq_class times_pow2(mpq_class q, long n);

/// The rounding modes, numbered as the library numbers them.
enum Mode : int {
    NEAREST_EVEN = 0,
    TOWARD_ZERO = 1,
    TOWARD_POSITIVE = 2,
    TOWARD_NEGATIVE = 3,
    /// Nearest; a tie goes to the neighbour of larger magnitude, so it overflows to
    /// infinity from half a unit above the largest finite value.
    NEAREST_AWAY = 4,
    /// Toward zero, then the last significand bit is set when the result is inexact;
    /// an overflow gives the largest finite value of its sign. With m = 0 every normal
    /// significand is already odd, so only an inexact zero changes: it becomes the
    /// smallest normal value.
    TO_ODD = 5,
};

/// The four directions every format has had, for loops in tests.
constexpr int all_modes[] = {NEAREST_EVEN, TOWARD_ZERO, TOWARD_POSITIVE, TOWARD_NEGATIVE};
/// All six rounding directions.
constexpr int all_directions[] = {NEAREST_EVEN,    TOWARD_ZERO,  TOWARD_POSITIVE,
                                  TOWARD_NEGATIVE, NEAREST_AWAY, TO_ODD};

/// IEEE 754 status flags, as bits of the `flags` out-parameters.
constexpr unsigned FLAG_INEXACT = 0x01, FLAG_UNDERFLOW = 0x02, FLAG_OVERFLOW = 0x04,
                   FLAG_DIVBYZERO = 0x08, FLAG_INVALID = 0x10;

/// The correctly rounded operations, for code that picks one at run time.
enum class Operation { Add, Sub, Mul, Div, Sqrt };

/// "add", "sub", "mul", "div" or "sqrt".
const char* to_string(Operation op);

/// A binary interchange-style format: e exponent bits, m stored mantissa bits.
struct Format {
    unsigned e = 0; ///< exponent width
    unsigned m = 0; ///< mantissa width (without the hidden bit)

    /// Number of bits in a pattern of this format.
    unsigned width() const { return e + m + 1; }
    /// 2^(e-1) - 1.
    long bias() const { return (1L << (e - 1)) - 1; }

    friend bool operator==(Format a, Format b) { return a.e == b.e && a.m == b.m; }
};

/// Human-readable "(e,m)".
std::string to_string(Format fmt);

/// Writes "(e,m)"; also lets test frameworks print formats.
std::ostream& operator<<(std::ostream& out, Format fmt);

// ---------------------------------------------------------------------------
// Patterns: classification and special values
// ---------------------------------------------------------------------------

/// Class of a pattern, in the IEEE-754 sense.
enum class Kind { Zero, Subnormal, Normal, Infinite, NaN };

/// Class of `bits` in `fmt` (any bits above the sign are ignored).
Kind classify(Format fmt, const mpz_class& bits);

/// A NaN whose first mantissa bit is 0. With m = 1 the only NaNs are quiet, and
/// formats with m = 0 have no NaN at all.
bool is_signaling(Format fmt, const mpz_class& bits);

/// Neither an infinity nor a NaN.
inline bool is_finite(Format fmt, const mpz_class& bits) {
    const Kind k = classify(fmt, bits);
    return k != Kind::Infinite && k != Kind::NaN;
}

/// The sign bit of `bits`.
inline bool sign_of(Format fmt, const mpz_class& bits) {
    return mpz_tstbit(bits.get_mpz_t(), fmt.e + fmt.m) != 0;
}

/// A pattern of at most 64 bits as a word (the low 64 bits of `bits`).
inline std::uint64_t to_word(const mpz_class& bits) {
    return mpz_getlimbn(bits.get_mpz_t(), 0);
}

/// The canonical NaN: sign 1, exponent field all ones, mantissa 1.
mpz_class nan_pattern(Format fmt);
/// +infinity, or -infinity when `negative`.
mpz_class inf_pattern(Format fmt, bool negative);
/// The largest finite value, with the sign of `negative`.
mpz_class max_pattern(Format fmt, bool negative);
/// The smallest positive subnormal (pattern 1) with the sign of `negative`; for m = 0
/// the format has no subnormal and this is the smallest normal.
mpz_class min_pattern(Format fmt, bool negative);
/// The pattern built from its three fields (they are masked to their widths).
mpz_class make_pattern(Format fmt, bool negative, const mpz_class& biased_exponent,
                       const mpz_class& mantissa);

// ---------------------------------------------------------------------------
// The emulator: one format, preallocated MPFR state, no allocation per call
// ---------------------------------------------------------------------------

/// Emulates one format with MPFR: precision m+1, the format's exponent range and
/// mpfr_subnormalize, so overflow, underflow and subnormal results are those of
/// IEEE-754 (overflow gives infinity or the largest finite value as the mode says).
/// Each operation decodes the operand patterns into preallocated registers,
/// operates, and encodes the result back to a pattern; a finite result touches no
/// heap once `out` has grown to the format's width. Not thread-safe; use one per thread.
class Emulator {
public:
    /// Prepares registers for `fmt`; throws std::invalid_argument for unsupported formats.
    explicit Emulator(Format fmt);
    ~Emulator();
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    /// Correctly rounded a+b, a-b, a*b, a/b or sqrt(a) (b is ignored) under `mode`,
    /// IEEE-754 special cases included (x - x is +0, or -0 toward -infinity; sqrt(-0)
    /// is -0; NaN results are `nan_pattern`). `out` may be the same object as an operand.
    /// Flags: invalid for a signaling NaN operand, inf - inf, 0 x inf, 0/0, inf/inf and
    /// the root of a value below zero; divide-by-zero for finite non-zero / zero.
    void apply(Operation op, mpz_class& out, const mpz_class& a, const mpz_class& b, int mode,
               unsigned* flags = nullptr);
    /// a x b + c rounded once. Invalid for a signaling NaN operand, for 0 x inf unless
    /// c is a quiet NaN (as the hardware's fma) and for inf - inf; an exact zero is +0 (-0 toward
    /// -infinity) unless the product and c are zeros of one sign, which it keeps.
    void fma(mpz_class& out, const mpz_class& a, const mpz_class& b, const mpz_class& c, int mode,
             unsigned* flags = nullptr);
    /// The exact rational q rounded once to the format.
    void from_rational(mpz_class& out, const mpq_class& q, int mode, unsigned* flags = nullptr);
    /// The numeral `text` as MPFR reads it in base 0 (decimal, "0x" hexadecimal with
    /// an optional "p" exponent, "inf", "infinity", "nan") rounded once to the format.
    /// Returns false, leaving `out` alone, when MPFR does not read the whole text.
    bool read(mpz_class& out, const std::string& text, int mode, unsigned* flags = nullptr);

    /// @name Register access for composite references
    /// Decode a pattern exactly into `dst` (whose precision must be at least m+1) and
    /// encode `src` (which must already be a value of the format) into a pattern.
    /// The caller is responsible for MPFR's exponent range being wide enough.
    /// @{
    void decode(mpfr_ptr dst, const mpz_class& bits);
    void encode(mpz_class& out, mpfr_srcptr src);
    /// Rounds `x`, the correctly rounded (ternary `t`, mode `rnd`) value of some real
    /// computed in a wider exponent range at the precision of the format, into the
    /// format's range: overflow, underflow and subnormal rounding. Leaves the range
    /// set to the format's. Returns the ternary value of the result.
    int fit_to_format(mpfr_ptr x, int t, mpfr_rnd_t rnd) const;
    /// `x`, a value of any precision, rounded once to the format and encoded; MPFR's
    /// exponent range must hold `x` and the format's range (the widest does).
    void round_to_format(mpz_class& out, mpfr_srcptr x, int mode, unsigned* flags = nullptr);
    /// @}

private:
    void enter_range() const;
    mpfr_rnd_t begin(int mode) const;
    mpfr_ptr result(int mode) { return mode == NEAREST_AWAY ? w_ : r_; }
    unsigned finish(mpz_class& out, int t, int mode);
    int fit(int t, mpfr_rnd_t rnd, bool& tiny, bool& huge);

    Format fmt_;
    long bias_;
    mpfr_exp_t emin_, emax_;
    mpfr_t x_, y_, z_, r_;
    mpfr_t w_;      // ties-away: the result truncated to m+2 bits
    mpfr_t wide_;   // w_ with a sticky bit below it, at m+4 bits
    mpz_class sig_; // scratch of the codec, kept so that a call allocates nothing
};

// ---------------------------------------------------------------------------
// Convenience functions on mpz_class patterns. They allocate their result; each
// thread keeps an emulator for each format it has used, so they cost little more
// than the Emulator methods. Safe to call from several threads at once.
// ---------------------------------------------------------------------------

/// `op` applied to a and b (b is ignored for Sqrt), correctly rounded as Emulator.
mpz_class apply(Format fmt, Operation op, const mpz_class& a, const mpz_class& b, int mode,
                unsigned* flags = nullptr);

/// a x b + c rounded once, as Emulator::fma.
mpz_class fma(Format fmt, const mpz_class& a, const mpz_class& b, const mpz_class& c, int mode,
              unsigned* flags = nullptr);

/// `bits` of format `from` converted to format `to`: what changing the format of a
/// value must give. A NaN becomes `nan_pattern(to)`; when from == to, patterns are
/// returned unchanged (NaN payloads included). Invalid only for a signaling NaN.
mpz_class convert(Format from, const mpz_class& bits, Format to, int mode,
                  unsigned* flags = nullptr);

/// The rational q correctly rounded (once) to `fmt`. Zero gives +0.
mpz_class from_rational(const mpq_class& q, Format fmt, int mode, unsigned* flags = nullptr);

/// The integer v rounded once to `fmt`.
mpz_class from_integer(const mpz_class& v, Format fmt, int mode, unsigned* flags = nullptr);

/// The numeral `text` (decimal or "0x" hexadecimal, with exponent, or "inf",
/// "infinity", "nan") correctly rounded once to `fmt` under `mode`, as MPFR reads it.
/// A NaN gives `nan_pattern` and raises nothing. Throws std::invalid_argument when
/// MPFR does not read the whole text.
mpz_class read_numeral(Format fmt, const std::string& text, int mode, unsigned* flags = nullptr);

/// What the library's conversion of an exact number gives. An integer is rounded
/// once. A non-integer ±N/D (lowest terms) is rounded twice: first correctly to the
/// common format (e', m') with m' = max(bitlen N, bitlen D, m) and
/// e' = max(bitlen m', e) + 1, then that value is converted to (e, m), both under `mode`.
/// The flags are those of the two roundings or-ed together.
mpz_class from_number_model(const mpq_class& q, Format fmt, int mode, unsigned* flags = nullptr);

/// The exact value of a finite pattern (±0 give 0). Throws std::domain_error for
/// NaN and infinities. Beware: for wide exponent fields the rational can be huge.
mpq_class to_rational(Format fmt, const mpz_class& bits);

/// The value rounded to an integer under `mode` (1 and every number outside 0..3
/// round toward zero; 0 breaks ties to even). Zeros, NaN and infinities give 0.
/// With width > 0 the result is reduced to sign(n) × (|n| mod 2^width).
mpz_class to_integer(Format fmt, const mpz_class& bits, int mode, unsigned long width);

/// Rounding to an integral value of the same format: zeros, NaN and infinities are
/// returned unchanged; otherwise the value rounded to an integer in direction `mode`
/// (0..5; TO_ODD takes the odd one of the two neighbouring integers of an inexact
/// value), rounded to the format under `mode` (it can overflow in formats whose
/// largest finite value is not an integer), keeping the operand's sign when the
/// result is zero. Flags: invalid for a signaling NaN only, and inexact when `exact`
/// is set and the value changed.
mpz_class round_to_integral(Format fmt, const mpz_class& bits, int mode, bool exact = false,
                            unsigned* flags = nullptr);

/// IEEE convertToInteger into a `width`-bit (32 or 64) integer, signed or not: the value
/// rounded to an integer in direction `mode` (0..5, as round_to_integral). A NaN, an
/// infinity or a rounded value outside the type raises invalid and gives the type's
/// most negative value when signed, 2^width - 1 when not. With `exact`, a changed
/// value that fits raises inexact.
mpz_class to_int(Format fmt, const mpz_class& bits, int mode, unsigned width, bool is_signed,
                 bool exact, unsigned* flags = nullptr);

/// IEEE-754 comparison of two patterns: -1 when a < b, 0 when a = b (+0 equals -0),
/// 1 when a > b, and -2 when they are unordered (either is a NaN).
int compare(Format fmt, const mpz_class& a, const mpz_class& b);

/// The flags of comparing a and b: invalid for any NaN when `signaling` (as < and <=
/// are), else only for a signaling NaN (as == and the quiet compare are).
unsigned compare_flags(Format fmt, const mpz_class& a, const mpz_class& b, bool signaling);

/// The neighbour of `bits` toward +infinity (`up`) or -infinity: zeros step to the
/// smallest subnormal of the direction's sign, the smallest subnormal steps to the
/// zero of its own sign, the largest finite value steps out to infinity, an infinity
/// steps inward to the largest finite value or stays, a NaN stays unchanged.
mpz_class next_representable(Format fmt, const mpz_class& bits, bool up);

/// The adjacent pattern in the order in which the patterns' values and classes run:
/// negative NaNs (largest payload first), -infinity, the negative finite values, -0,
/// +0, the positive finite values, +infinity, positive NaNs (smallest payload first).
/// `up` steps toward the positive end. The two ends of that order (the positive NaN
/// with every mantissa bit set, and the pattern with every bit set) have no neighbour
/// beyond them and are returned unchanged.
mpz_class packed_next(Format fmt, const mpz_class& bits, bool up);

/// The shortest positional decimal numeral that identifies a finite value, as the
/// library writes it: n digits before the point, where 10^n is the least power of
/// ten (n >= 0) not below the upper end of the value's rounding interval; then the
/// fewest digits such that a numeral lies strictly inside the interval (its ends are
/// the midpoints to the neighbours; below a power of two the lower neighbour is the
/// finer one); of the two candidates next to the value the nearer, the lower on an
/// exact tie. "-" for negative values, "0" and "-0" for zeros, no exponent, no
/// trailing zeros after the point. Found by a search over digit counts on exact
/// rationals, not by generating digits. Throws std::domain_error for NaN and
/// infinities. Cost grows with the exponent range (exact rationals).
std::string shortest_decimal(Format fmt, const mpz_class& bits);

/// The exact value of a finite pattern as MPFR's printf writes it with
/// "%.*RN<style>" and `precision` (style 'e', 'f' or 'g', rounded to nearest,
/// ties to even); "nan" for every NaN, whatever its sign.
std::string printf_text(Format fmt, const mpz_class& bits, int precision, char style);

/// True when `got` is an acceptable result for the reference `want`: identical bits,
/// or both NaN (of any sign and payload).
bool same_result(Format fmt, const mpz_class& got, const mpz_class& want);

/// A one-line description for failure messages, e.g.
/// "0x3c00 (5,10) [s=0 e=0xf m=0x0] normal = 1*2^0".
std::string describe(Format fmt, const mpz_class& bits);

// ---------------------------------------------------------------------------
// IEEE 754's remaining general operations
// ---------------------------------------------------------------------------

/// The remainder a - n b (n = a/b rounded to nearest, ties to even) of a of format
/// `fa` and b of format `fb`, rounded once to `fa` under `mode`. A NaN operand or an
/// invalid case (b zero, a infinite) gives nan_pattern; a zero result has a's sign.
mpz_class remainder(Format fa, const mpz_class& a, Format fb, const mpz_class& b, int mode,
                    unsigned* flags = nullptr);

/// minimum (`maximum` false) or maximum of a and b, -0 below +0; with `number` a
/// single NaN loses to the number. A winning b of another format is converted to
/// `fa` under `mode`. Invalid for a signaling NaN operand.
mpz_class extreme(Format fa, const mpz_class& a, Format fb, const mpz_class& b, bool maximum,
                  bool number, int mode, unsigned* flags = nullptr);

/// bits × 2^n rounded once under `mode`; NaNs, infinities and zeros as they are.
mpz_class scale_b(Format fmt, const mpz_class& bits, long n, int mode, unsigned* flags = nullptr);

/// floor(log2 |x|); LONG_MIN for zeros and NaNs, LONG_MAX for infinities, with invalid.
long log_b(Format fmt, const mpz_class& bits, unsigned* flags = nullptr);

// ---------------------------------------------------------------------------
// Operands of different formats
// ---------------------------------------------------------------------------

/// `op` (Add to Div) on a of format fa and b of format fb or, when `c` is given (of
/// format fc), a x b + c: the exact result rounded once into fa under `mode`, with
/// the flags of Emulator::apply and Emulator::fma, a signaling NaN judged in its
/// own format.
mpz_class mixed(Operation op, Format fa, const mpz_class& a, Format fb, const mpz_class& b,
                int mode, unsigned* flags = nullptr, Format fc = {}, const mpz_class* c = nullptr);

/// compare() of a of format fa and b of format fb: their exact values compared.
int compare_mixed(Format fa, const mpz_class& a, Format fb, const mpz_class& b);

// ---------------------------------------------------------------------------
// Low-precision encodings: formats with other biases and other conventions at the
// top of the range, written from their definitions rather than from the library's.
// ---------------------------------------------------------------------------

/// An encoding of e exponent and m mantissa bits, any bias, an optional sign bit on
/// top. `top`: 0 IEEE infinities and NaNs; 1 no infinities, NaN only with exponent
/// and mantissa all ones; 2 no infinities, no -0, the one NaN is the sign bit alone;
/// 3 every pattern finite; 4 an unsigned scale 2^(pattern - bias), all ones NaN.
struct Encoding {
    unsigned e, m;
    long bias;
    bool has_sign;
    int top;
};

/// `bits` of `from` rounded once into `enc` in direction `mode` (0 to 5), on the
/// encoding's grid extended upward without limit (MPFR at precision m+1, subnormalized
/// at the encoding's smallest exponent); a result beyond the largest finite value is an
/// overflow: the largest finite value when `saturate` or when the direction would not
/// give an infinity, else the infinity, the NaN, or in encodings with neither the
/// largest finite value. Ties of the nearest direction go to the even pattern; to odd
/// makes the pattern odd. Special cases and flags as tarn/lowp/lowp.h documents them.
mpz_class encode(Format from, const mpz_class& bits, const Encoding& enc, int mode, bool saturate,
                 unsigned* flags = nullptr);

/// The class of pattern `bits` of `enc` (Normal for every finite non-zero value), with
/// its sign, and for a finite value its exact value.
Kind decode(const Encoding& enc, const mpz_class& bits, bool& negative, mpq_class& value);

/// Block scaling of `values` (patterns of `from`) in blocks of `block` (the last may be
/// short) into elements of `enc`, returning each block's float8_e8m0fnu scale pattern:
/// 2^(floor(log2 max |x|) - emax), emax the binade of enc's largest finite value,
/// clamped to 2^-127 .. 2^127 (2^-127 for an all-zero block). Each element is
/// x / scale rounded to nearest-even, saturating. A NaN or infinity makes the scale 255
/// and the block's elements 0 and raises invalid. The elements' flags are or-ed.
std::vector<unsigned> mx(Format from, const std::vector<mpz_class>& values, std::size_t block,
                         const Encoding& enc, std::vector<mpz_class>& elements, unsigned& flags);

} // namespace oracle
