#include "tests/oracle/oracle.h"

#include <algorithm>
#include <climits>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace oracle {

namespace {

// The MPFR direction each mode rounds with: ties-away is nearest-even moved off exact
// ties, and round-to-odd is toward zero with the last bit set afterwards.
mpfr_rnd_t to_mpfr_rounding(int mode) {
    if (mode < NEAREST_EVEN || mode > TO_ODD)
        throw std::invalid_argument("oracle: rounding mode " + std::to_string(mode));
    const mpfr_rnd_t rounding[] = {MPFR_RNDN, MPFR_RNDZ, MPFR_RNDU,
                                   MPFR_RNDD, MPFR_RNDN, MPFR_RNDZ};
    return rounding[mode];
}

// One ulp of x's precision further from zero.
void nudge_away(mpfr_ptr x) {
    if (mpfr_signbit(x))
        mpfr_nextbelow(x);
    else
        mpfr_nextabove(x);
}

bool signaling(Format fmt, mpfr_srcptr decoded, const mpz_class& bits) {
    return mpfr_nan_p(decoded) && mpz_tstbit(bits.get_mpz_t(), fmt.m - 1) == 0;
}

// Intermediate results (a decoded operand of another format, a rational) are rounded
// at the target precision in the widest range MPFR has, and only then brought into
// the target's range, so that no step sees a value outside the current range.
void enter_full_range() {
    mpfr_set_emin(mpfr_get_emin_min());
    mpfr_set_emax(mpfr_get_emax_max());
}

// The three fields of a pattern, as integers.
struct Fields {
    bool negative;
    mpz_class exponent, mantissa;
};

Fields split(Format fmt, const mpz_class& bits) {
    Fields f;
    f.negative = sign_of(fmt, bits);
    mpz_fdiv_q_2exp(f.exponent.get_mpz_t(), bits.get_mpz_t(), fmt.m);
    mpz_fdiv_r_2exp(f.exponent.get_mpz_t(), f.exponent.get_mpz_t(), fmt.e);
    mpz_fdiv_r_2exp(f.mantissa.get_mpz_t(), bits.get_mpz_t(), fmt.m);
    return f;
}

// The magnitude of a finite pattern as sig × 2^(returned exponent): the hidden bit
// joins a normal mantissa, and subnormals share the scale of the smallest normals.
long significand(Format fmt, const Fields& f, mpz_class& sig) {
    sig = f.mantissa;
    const bool normal = f.exponent != 0;
    if (normal) mpz_setbit(sig.get_mpz_t(), fmt.m);
    return (normal ? mpz_get_si(f.exponent.get_mpz_t()) : 1) - fmt.bias() -
           static_cast<long>(fmt.m);
}

} // namespace

// ---------------------------------------------------------------------------
// Formats and patterns
// ---------------------------------------------------------------------------

mpq_class times_pow2(mpq_class q, long n) {
    if (n >= 0)
        mpq_mul_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(n));
    else
        mpq_div_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(-n));
    return q;
}

std::string to_string(Format fmt) {
    return "(" + std::to_string(fmt.e) + "," + std::to_string(fmt.m) + ")";
}

std::ostream& operator<<(std::ostream& out, Format fmt) {
    return out << to_string(fmt);
}

const char* to_string(Operation op) {
    static const char* const names[] = {"add", "sub", "mul", "div", "sqrt"};
    return names[static_cast<int>(op)];
}

Kind classify(Format fmt, const mpz_class& bits) {
    Fields f = split(fmt, bits);
    bool mantissa_zero = mpz_sgn(f.mantissa.get_mpz_t()) == 0;
    if (mpz_scan0(f.exponent.get_mpz_t(), 0) >= fmt.e)
        return mantissa_zero ? Kind::Infinite : Kind::NaN;
    if (mpz_sgn(f.exponent.get_mpz_t()) == 0) return mantissa_zero ? Kind::Zero : Kind::Subnormal;
    return Kind::Normal;
}

bool is_signaling(Format fmt, const mpz_class& bits) {
    return classify(fmt, bits) == Kind::NaN && mpz_tstbit(bits.get_mpz_t(), fmt.m - 1) == 0;
}

mpz_class make_pattern(Format fmt, bool negative, const mpz_class& biased_exponent,
                       const mpz_class& mantissa) {
    mpz_class field, bits;
    mpz_fdiv_r_2exp(field.get_mpz_t(), biased_exponent.get_mpz_t(), fmt.e);
    mpz_mul_2exp(field.get_mpz_t(), field.get_mpz_t(), fmt.m);
    mpz_fdiv_r_2exp(bits.get_mpz_t(), mantissa.get_mpz_t(), fmt.m);
    bits += field;
    if (negative) mpz_setbit(bits.get_mpz_t(), fmt.e + fmt.m);
    return bits;
}

mpz_class nan_pattern(Format fmt) {
    return make_pattern(fmt, true, pow2(fmt.e) - 1, 1);
}

mpz_class inf_pattern(Format fmt, bool negative) {
    return make_pattern(fmt, negative, pow2(fmt.e) - 1, 0);
}

mpz_class max_pattern(Format fmt, bool negative) {
    return make_pattern(fmt, negative, pow2(fmt.e) - 2, pow2(fmt.m) - 1);
}

mpz_class min_pattern(Format fmt, bool negative) {
    return fmt.m == 0 ? make_pattern(fmt, negative, 1, 0) : make_pattern(fmt, negative, 0, 1);
}

// ---------------------------------------------------------------------------
// Emulator
// ---------------------------------------------------------------------------

Emulator::Emulator(Format fmt) : fmt_(fmt) {
    // One exponent bit needs a mantissa bit: with none, the only finite values would be
    // zeros and the subnormal range would start above the normal one.
    if (fmt.e < 1 || fmt.e > 62 || (fmt.e == 1 && fmt.m == 0))
        throw std::invalid_argument("oracle: unsupported format " + to_string(fmt));
    bias_ = fmt.bias();
    // MPFR writes a value as 0.1xxx × 2^E: the largest finite value of the format is
    // 0.11..1 × 2^(bias+1) and its smallest subnormal 0.1 × 2^(2-bias-m).
    emax_ = bias_ + 1;
    emin_ = 2 - bias_ - static_cast<long>(fmt.m);
    const auto precision = static_cast<mpfr_prec_t>(fmt.m) + 1;
    mpfr_inits2(precision, x_, y_, z_, r_, static_cast<mpfr_ptr>(nullptr));
    mpfr_init2(w_, precision + 1);
    mpfr_init2(wide_, precision + 3);
}

Emulator::~Emulator() {
    mpfr_clears(x_, y_, z_, r_, w_, wide_, static_cast<mpfr_ptr>(nullptr));
}

void Emulator::enter_range() const {
    mpfr_set_emin(emin_);
    mpfr_set_emax(emax_);
}

int Emulator::fit_to_format(mpfr_ptr x, int t, mpfr_rnd_t rnd) const {
    enter_range();
    t = mpfr_check_range(x, t, rnd);
    return mpfr_subnormalize(x, t, rnd);
}

void Emulator::decode(mpfr_ptr dst, const mpz_class& bits) {
    mpz_srcptr p = bits.get_mpz_t();
    mpz_ptr sig = sig_.get_mpz_t();
    bool negative = sign_of(fmt_, bits);
    mpz_fdiv_q_2exp(sig, p, fmt_.m);
    unsigned long field = mpz_fdiv_ui(sig, 1UL << fmt_.e); // e <= 62
    mpz_fdiv_r_2exp(sig, p, fmt_.m);
    bool mantissa_zero = mpz_sgn(sig) == 0;
    if (field == (1UL << fmt_.e) - 1 && !mantissa_zero) {
        mpfr_set_nan(dst);
    } else if (field == (1UL << fmt_.e) - 1) {
        mpfr_set_inf(dst, negative ? -1 : 1);
    } else if (field == 0 && mantissa_zero) {
        mpfr_set_zero(dst, negative ? -1 : 1);
    } else {
        if (field != 0) mpz_setbit(sig, fmt_.m);
        if (negative) mpz_neg(sig, sig);
        long exponent = static_cast<long>(std::max(field, 1UL)) - bias_ - static_cast<long>(fmt_.m);
        mpfr_set_z_2exp(dst, sig, exponent, MPFR_RNDN);
    }
}

void Emulator::encode(mpz_class& out, mpfr_srcptr src) {
    mpz_ptr o = out.get_mpz_t();
    mpz_ptr sig = sig_.get_mpz_t();
    bool negative = mpfr_signbit(src) != 0;
    if (mpfr_nan_p(src) || mpfr_inf_p(src)) {
        out = mpfr_nan_p(src) ? nan_pattern(fmt_) : inf_pattern(fmt_, negative);
        return;
    }
    if (mpfr_zero_p(src)) {
        mpz_set_ui(o, 0);
    } else {
        // sig holds the significand as an integer of m+1 bits: src = sig × 2^(E - m - 1).
        mpfr_exp_t exponent = mpfr_get_exp(src);
        mpfr_get_z_2exp(sig, src);
        mpz_abs(sig, sig);
        long biased = exponent - 1 + bias_;
        if (biased >= 1) {
            // The hidden bit of the significand adds the missing 1 to the exponent field.
            mpz_set_ui(o, static_cast<unsigned long>(biased - 1));
            mpz_mul_2exp(o, o, fmt_.m);
            mpz_add(o, o, sig);
        } else {
            mpz_fdiv_q_2exp(o, sig, static_cast<unsigned long>(2 - bias_ - exponent));
        }
    }
    if (negative) mpz_setbit(o, fmt_.e + fmt_.m);
}

// Each operation computes its result in MPFR's widest range, where nothing the formats
// reach overflows or underflows unseen: at m+1 bits in the mode's MPFR direction
// (toward zero for round-to-odd), which is the unbounded-exponent rounding that decides
// tininess and overflow, and fit_to_format then brings it into the format.
// Ties-away has no MPFR direction, so its result (`result(mode)` is w_) is truncated to
// m+2 bits instead; one bit below those, set when something was cut off, stands for the
// rest: strictly between two neighbours of m+2 bits, that value rounds as the exact one
// does to any precision up to m+1, subnormal or not. Moved off an exact tie away from
// zero, it then rounds to nearest-even the way ties-away wants.
mpfr_rnd_t Emulator::begin(int mode) const {
    const mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    enter_full_range();
    return mode == NEAREST_AWAY ? MPFR_RNDZ : rnd;
}

// Returns the rounding's flags.
unsigned Emulator::finish(mpz_class& out, int t, int mode) {
    const mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    const mpfr_ptr x = result(mode);
    if (mpfr_nan_p(x) || mpfr_inf_p(x) || (mpfr_zero_p(x) && t == 0)) {
        encode(out, x);
        return 0;
    }
    bool tiny = false, huge = false;
    int r = 0;
    const auto round_wide = [&] {
        enter_full_range();
        return fit(mpfr_set(r_, wide_, rnd), rnd, tiny, huge);
    };
    if (mode != NEAREST_AWAY) {
        r = fit(t, rnd, tiny, huge);
    } else {
        mpfr_set(wide_, w_, MPFR_RNDN);
        if (t != 0) nudge_away(wide_);
        r = round_wide();
        if (r != 0 && t == 0) {
            nudge_away(wide_);
            r = round_wide();
        }
    }
    encode(out, r_);
    if (r == 0) return 0;
    // Formats of one exponent bit have no normal range: a finite result that lands
    // on infinity is their overflow, the rest of their results are tiny.
    if (classify(fmt_, out) == Kind::Infinite) {
        huge = true;
        tiny = false;
    }
    if (mode == TO_ODD && (fmt_.m > 0 || mpfr_zero_p(r_))) mpz_setbit(out.get_mpz_t(), 0);
    return FLAG_INEXACT | (huge ? FLAG_OVERFLOW : 0u) | (tiny ? FLAG_UNDERFLOW : 0u);
}

// r_, rounded to m+1 bits (ternary t) in the widest range, into the format. The smallest
// normal 2^(1-bias) is 0.1 x 2^(2-bias) to MPFR; only the widest formats can leave
// MPFR's own range.
int Emulator::fit(int t, mpfr_rnd_t rnd, bool& tiny, bool& huge) {
    const bool regular = mpfr_regular_p(r_) != 0;
    tiny = mpfr_zero_p(r_) || (regular && mpfr_get_exp(r_) < 2 - bias_);
    huge = mpfr_inf_p(r_) || (regular && mpfr_get_exp(r_) > emax_);
    return fit_to_format(r_, t, rnd);
}

void Emulator::from_rational(mpz_class& out, const mpq_class& q, int mode, unsigned* flags) {
    const int t = mpfr_set_q(result(mode), q.get_mpq_t(), begin(mode));
    const unsigned raised = finish(out, t, mode);
    if (flags) *flags = raised;
}

bool Emulator::read(mpz_class& out, const std::string& text, int mode, unsigned* flags) {
    char* end = nullptr;
    const int t = mpfr_strtofr(result(mode), text.c_str(), &end, 0, begin(mode));
    if (text.empty() || end != text.c_str() + text.size()) return false;
    const unsigned raised = finish(out, t, mode);
    if (flags) *flags = raised;
    return true;
}

void Emulator::apply(Operation op, mpz_class& out, const mpz_class& a, const mpz_class& b, int mode,
                     unsigned* flags) {
    const mpfr_rnd_t rnd = begin(mode);
    const bool unary = op == Operation::Sqrt;
    decode(x_, a);
    if (!unary) decode(y_, b);
    const bool nan_operand = mpfr_nan_p(x_) || (!unary && mpfr_nan_p(y_));
    unsigned raised =
        signaling(fmt_, x_, a) || (!unary && signaling(fmt_, y_, b)) ? FLAG_INVALID : 0;
    if (op == Operation::Div && mpfr_zero_p(y_) && mpfr_regular_p(x_)) raised |= FLAG_DIVBYZERO;
    const mpfr_ptr r = result(mode);
    const int t = op == Operation::Add   ? mpfr_add(r, x_, y_, rnd)
                  : op == Operation::Sub ? mpfr_sub(r, x_, y_, rnd)
                  : op == Operation::Mul ? mpfr_mul(r, x_, y_, rnd)
                  : op == Operation::Div ? mpfr_div(r, x_, y_, rnd)
                                         : mpfr_sqrt(r, x_, rnd);
    if (mpfr_nan_p(r) && !nan_operand) raised |= FLAG_INVALID;
    raised |= finish(out, t, mode);
    if (flags) *flags = raised;
}

void Emulator::fma(mpz_class& out, const mpz_class& a, const mpz_class& b, const mpz_class& c,
                   int mode, unsigned* flags) {
    const mpfr_rnd_t rnd = begin(mode);
    decode(x_, a);
    decode(y_, b);
    decode(z_, c);
    const bool nan_operand = mpfr_nan_p(x_) || mpfr_nan_p(y_) || mpfr_nan_p(z_);
    // 0 x inf + a quiet NaN gives the NaN quietly, as the hardware's fma does.
    const bool zero_times_inf = !mpfr_nan_p(z_) && ((mpfr_zero_p(x_) && mpfr_inf_p(y_)) ||
                                                    (mpfr_inf_p(x_) && mpfr_zero_p(y_)));
    unsigned raised =
        zero_times_inf || signaling(fmt_, x_, a) || signaling(fmt_, y_, b) || signaling(fmt_, z_, c)
            ? FLAG_INVALID
            : 0;
    const int t = mpfr_fma(result(mode), x_, y_, z_, rnd);
    if (mpfr_nan_p(result(mode)) && !nan_operand) raised |= FLAG_INVALID;
    raised |= finish(out, t, mode);
    if (flags) *flags = raised;
}

void Emulator::round_to_format(mpz_class& out, mpfr_srcptr x, int mode, unsigned* flags) {
    const int t = mpfr_set(result(mode), x, begin(mode));
    const unsigned raised = finish(out, t, mode);
    if (flags) *flags = raised;
}

// ---------------------------------------------------------------------------
// Convenience functions
// ---------------------------------------------------------------------------

namespace {

// Tests call the convenience functions hundreds of thousands of times on a handful of
// formats, and setting up MPFR registers costs several times the operation itself,
// so each thread keeps one emulator per format it has used.
Emulator& emulator_for(Format fmt) {
    thread_local std::map<std::pair<unsigned, unsigned>, std::unique_ptr<Emulator>> made;
    std::unique_ptr<Emulator>& e = made[{fmt.e, fmt.m}];
    if (!e) e = std::make_unique<Emulator>(fmt);
    return *e;
}

// A pattern decoded exactly, at `extra` bits beyond its format's precision, with
// MPFR's range left at its widest.
struct Decoded {
    Decoded(Format fmt, const mpz_class& bits, mpfr_prec_t extra = 0) {
        mpfr_init2(v, static_cast<mpfr_prec_t>(fmt.m) + 1 + extra);
        enter_full_range();
        emulator_for(fmt).decode(v, bits);
    }
    ~Decoded() { mpfr_clear(v); }
    mpfr_t v;
};

} // namespace

mpz_class apply(Format fmt, Operation op, const mpz_class& a, const mpz_class& b, int mode,
                unsigned* flags) {
    mpz_class r;
    emulator_for(fmt).apply(op, r, a, b, mode, flags);
    return r;
}

mpz_class fma(Format fmt, const mpz_class& a, const mpz_class& b, const mpz_class& c, int mode,
              unsigned* flags) {
    mpz_class r;
    emulator_for(fmt).fma(r, a, b, c, mode, flags);
    return r;
}

mpz_class convert(Format from, const mpz_class& bits, Format to, int mode, unsigned* flags) {
    // Converting to the value's own format changes nothing and raises nothing.
    const unsigned invalid = is_signaling(from, bits) && !(from == to) ? FLAG_INVALID : 0;
    if (flags) *flags = invalid;
    if (from == to) return bits;
    const Decoded value(from, bits);
    mpz_class r;
    emulator_for(to).round_to_format(r, value.v, mode, flags);
    if (flags) *flags |= invalid;
    return r;
}

mpz_class from_rational(const mpq_class& q, Format fmt, int mode, unsigned* flags) {
    mpz_class r;
    emulator_for(fmt).from_rational(r, q, mode, flags);
    return r;
}

mpz_class from_integer(const mpz_class& v, Format fmt, int mode, unsigned* flags) {
    return from_rational(mpq_class(v), fmt, mode, flags);
}

mpz_class read_numeral(Format fmt, const std::string& text, int mode, unsigned* flags) {
    mpz_class r;
    if (!emulator_for(fmt).read(r, text, mode, flags))
        throw std::invalid_argument("oracle: MPFR does not read \"" + text + "\"");
    return r;
}

mpz_class from_number_model(const mpq_class& q, Format fmt, int mode, unsigned* flags) {
    if (q.get_den() == 1) return from_rational(q, fmt, mode, flags);
    unsigned long wide_m = std::max(
        {bit_length(q.get_num()), bit_length(q.get_den()), static_cast<unsigned long>(fmt.m)});
    unsigned long wide_e = std::max(bit_length(wide_m), static_cast<unsigned long>(fmt.e)) + 1;
    Format common{static_cast<unsigned>(wide_e), static_cast<unsigned>(wide_m)};
    unsigned first = 0;
    const mpz_class r = convert(common, from_rational(q, common, mode, &first), fmt, mode, flags);
    if (flags) *flags |= first;
    return r;
}

mpq_class to_rational(Format fmt, const mpz_class& bits) {
    if (!is_finite(fmt, bits))
        throw std::domain_error("oracle: no rational value for " + describe(fmt, bits));
    const Fields f = split(fmt, bits);
    mpz_class sig;
    const long exponent = significand(fmt, f, sig);
    const mpq_class value = times_pow2(mpq_class(sig), exponent);
    return f.negative ? mpq_class(-value) : value;
}

namespace {

// A finite non-zero value rounded to the integer n in direction `mode` (0..5); returns
// whether that changed the value.
bool round_integer(mpfr_srcptr v, int mode, mpz_class& n) {
    // An integer below 2^E needs E bits; one more holds a round-up to 2^E.
    mpfr_t integral;
    mpfr_init2(integral, std::max<mpfr_exp_t>(mpfr_get_exp(v), 1) + 1);
    const int t = mode == NEAREST_AWAY ? mpfr_round(integral, v)
                  : mode == TO_ODD     ? mpfr_trunc(integral, v)
                                       : mpfr_rint(integral, v, to_mpfr_rounding(mode));
    mpfr_get_z(n.get_mpz_t(), integral, MPFR_RNDN);
    mpfr_clear(integral);
    if (mode == TO_ODD && t != 0 && mpz_even_p(n.get_mpz_t())) n += mpfr_signbit(v) ? -1 : 1;
    return t != 0;
}

} // namespace

mpz_class to_integer(Format fmt, const mpz_class& bits, int mode, unsigned long width) {
    if (!is_finite(fmt, bits) || classify(fmt, bits) == Kind::Zero) return 0;
    const Decoded value(fmt, bits);
    mpz_class n;
    round_integer(value.v, mode >= 0 && mode <= 3 ? mode : TOWARD_ZERO, n);
    if (width > 0) mpz_tdiv_r_2exp(n.get_mpz_t(), n.get_mpz_t(), width);
    return n;
}

mpz_class round_to_integral(Format fmt, const mpz_class& bits, int mode, bool exact,
                            unsigned* flags) {
    if (flags) *flags = is_signaling(fmt, bits) ? FLAG_INVALID : 0;
    if (!is_finite(fmt, bits) || classify(fmt, bits) == Kind::Zero) return bits;
    const Decoded value(fmt, bits);
    // Spares the digits of huge values, which are all integers.
    if (mpfr_integer_p(value.v)) return bits;
    mpz_class n;
    if (round_integer(value.v, mode, n) && exact && flags) *flags |= FLAG_INEXACT;
    mpz_class r = from_rational(mpq_class(n), fmt, mode);
    if (classify(fmt, r) == Kind::Zero) r = make_pattern(fmt, sign_of(fmt, bits), 0, 0);
    return r;
}

mpz_class to_int(Format fmt, const mpz_class& bits, int mode, unsigned width, bool is_signed,
                 bool exact, unsigned* flags) {
    to_mpfr_rounding(mode);
    const mpz_class low = is_signed ? mpz_class(-pow2(width - 1)) : mpz_class(0);
    const mpz_class high = pow2(is_signed ? width - 1 : width) - 1;
    mpz_class n = 0;
    bool changed = false, fits = is_finite(fmt, bits);
    if (fits && classify(fmt, bits) != Kind::Zero) {
        const Decoded value(fmt, bits);
        // From 2^(width+1) on nothing fits, and the digits need not be computed.
        fits = mpfr_get_exp(value.v) <= static_cast<long>(width) + 1;
        if (fits) changed = round_integer(value.v, mode, n);
        fits = fits && low <= n && n <= high;
    }
    if (flags) *flags = !fits ? FLAG_INVALID : exact && changed ? FLAG_INEXACT : 0;
    return fits ? n : is_signed ? low : high;
}

int compare(Format fmt, const mpz_class& a, const mpz_class& b) {
    const Decoded x(fmt, a), y(fmt, b);
    if (mpfr_unordered_p(x.v, y.v)) return -2;
    return (mpfr_cmp(x.v, y.v) > 0) - (mpfr_cmp(x.v, y.v) < 0);
}

unsigned compare_flags(Format fmt, const mpz_class& a, const mpz_class& b, bool signaling) {
    const bool nan = classify(fmt, a) == Kind::NaN || classify(fmt, b) == Kind::NaN;
    return is_signaling(fmt, a) || is_signaling(fmt, b) || (signaling && nan) ? FLAG_INVALID : 0;
}

mpz_class next_representable(Format fmt, const mpz_class& bits, bool up) {
    if (classify(fmt, bits) == Kind::NaN) return bits;
    // One step of MPFR at one bit more precision lands strictly between the value and
    // its neighbour in the format (subnormal spacing is coarser still, and MPFR's
    // infinities step to its own largest finite numbers), so rounding that point
    // outward gives the neighbour, with IEEE-754's signs for zeros.
    Decoded point(fmt, bits, 1);
    if (up)
        mpfr_nextabove(point.v);
    else
        mpfr_nextbelow(point.v);
    mpz_class r;
    emulator_for(fmt).round_to_format(r, point.v, up ? TOWARD_POSITIVE : TOWARD_NEGATIVE);
    return r;
}

mpz_class packed_next(Format fmt, const mpz_class& bits, bool up) {
    // Rank the patterns 0 .. 2^(e+m+1)-1 along the order: negative patterns in
    // decreasing magnitude below 2^(e+m), positive ones in increasing magnitude above.
    mpz_class half = pow2(fmt.e + fmt.m), magnitude = bits;
    bool negative = sign_of(fmt, bits);
    mpz_clrbit(magnitude.get_mpz_t(), fmt.e + fmt.m);
    mpz_class rank = negative ? mpz_class(half - 1 - magnitude) : mpz_class(half + magnitude);
    rank += up ? 1 : -1;
    if (rank < 0 || rank >= 2 * half) return bits;
    if (rank >= half) return rank - half;
    mpz_class r = half - 1 - rank;
    mpz_setbit(r.get_mpz_t(), fmt.e + fmt.m);
    return r;
}

namespace {

mpq_class pow10(long n) {
    mpz_class p;
    mpz_ui_pow_ui(p.get_mpz_t(), 10, static_cast<unsigned long>(n < 0 ? -n : n));
    return n < 0 ? mpq_class(mpz_class(1), p) : mpq_class(p);
}

mpz_class floor_of(const mpq_class& q) {
    mpz_class r;
    mpz_fdiv_q(r.get_mpz_t(), q.get_num_mpz_t(), q.get_den_mpz_t());
    return r;
}

} // namespace

std::string shortest_decimal(Format fmt, const mpz_class& bits) {
    if (!is_finite(fmt, bits))
        throw std::domain_error("oracle: no decimal for " + describe(fmt, bits));
    const Fields f = split(fmt, bits);
    if (classify(fmt, bits) == Kind::Zero) return f.negative ? "-0" : "0";

    // The rounding interval (low, high) of the magnitude x: its ends are the midpoints
    // to the neighbours, and below a power of two the lower neighbour is the finer one.
    mpz_class sig;
    const long exponent = significand(fmt, f, sig);
    const mpq_class ulp = times_pow2(1, exponent), x = sig * ulp;
    const bool finer_below = f.mantissa == 0 && f.exponent >= 2;
    const mpq_class low = x - (finer_below ? ulp / 4 : ulp / 2), high = x + ulp / 2;

    long before_point = 0;
    while (pow10(before_point) < high)
        ++before_point;
    // The fewest digits k for which a multiple of the grid 10^(n-k) lies inside; finer
    // grids contain coarser ones, so the property is monotone in k.
    const auto inside = [&](long k) {
        const mpq_class grid = pow10(before_point - k);
        return mpq_class(floor_of(low / grid) + 1) * grid < high;
    };
    long fewest = 1, most = 1;
    while (!inside(most))
        most *= 2;
    while (fewest < most) {
        const long middle = (fewest + most) / 2;
        if (inside(middle))
            most = middle;
        else
            fewest = middle + 1;
    }
    const mpq_class grid = pow10(before_point - fewest);
    const mpq_class lower = mpq_class(floor_of(x / grid)) * grid, upper = lower + grid;
    const bool take_upper = upper < high && (low >= lower || upper - x < x - lower);
    std::string digits = floor_of((take_upper ? upper : lower) / grid).get_str();
    const std::size_t n = static_cast<std::size_t>(before_point);
    digits.insert(0, static_cast<std::size_t>(fewest) - digits.size(), '0');
    if (digits.size() < n) digits.append(n - digits.size(), '0');
    const std::string fraction = digits.size() > n ? "." + digits.substr(n) : "";
    return (f.negative ? "-" : "") + (n == 0 ? "0" : digits.substr(0, n)) + fraction;
}

std::string printf_text(Format fmt, const mpz_class& bits, int precision, char style) {
    if (classify(fmt, bits) == Kind::NaN) return "nan";
    const Decoded value(fmt, bits);
    char* text = nullptr;
    mpfr_asprintf(&text, (std::string("%.*RN") + style).c_str(), precision, value.v);
    const std::string result(text);
    mpfr_free_str(text);
    return result;
}

bool same_result(Format fmt, const mpz_class& got, const mpz_class& want) {
    if (classify(fmt, want) == Kind::NaN) return classify(fmt, got) == Kind::NaN;
    return got == want;
}

std::string describe(Format fmt, const mpz_class& bits) {
    static const char* const kind_names[] = {"zero", "subnormal", "normal", "infinity", "NaN"};
    const Fields f = split(fmt, bits);
    const Kind kind = classify(fmt, bits);
    std::ostringstream out;
    out << "0x" << bits.get_str(16) << " " << fmt << " [s=" << f.negative << " e=0x"
        << f.exponent.get_str(16) << " m=0x" << f.mantissa.get_str(16) << "] "
        << kind_names[static_cast<int>(kind)];
    if (kind == Kind::Zero) out << " = " << (f.negative ? "-0" : "+0");
    if (kind == Kind::Subnormal || kind == Kind::Normal) {
        // Written as significand × 2^exponent so that wide exponent fields stay short.
        mpz_class sig;
        const long exponent = significand(fmt, f, sig);
        out << " = " << (f.negative ? "-" : "") << sig.get_str() << "*2^" << exponent;
    }
    return out.str();
}

// ---------------------------------------------------------------------------
// IEEE 754's remaining general operations
// ---------------------------------------------------------------------------

mpz_class remainder(Format fa, const mpz_class& a, Format fb, const mpz_class& b, int mode,
                    unsigned* flags) {
    if (flags) *flags = is_signaling(fa, a) || is_signaling(fb, b) ? FLAG_INVALID : 0;
    if (classify(fa, a) == Kind::NaN || classify(fb, b) == Kind::NaN) return nan_pattern(fa);
    // |r| <= min(|a|, |b|/2) is a multiple of the lower of the two last-bit weights,
    // so the wider precision holds it exactly.
    Decoded x(fa, a, fb.m > fa.m ? fb.m - fa.m : 0), y(fb, b);
    if (mpfr_inf_p(x.v) || mpfr_zero_p(y.v)) {
        if (flags) *flags = FLAG_INVALID;
        return nan_pattern(fa);
    }
    mpfr_remainder(x.v, x.v, y.v, MPFR_RNDN);
    mpz_class out;
    emulator_for(fa).round_to_format(out, x.v, mode, flags);
    return out;
}

mpz_class extreme(Format fa, const mpz_class& a, Format fb, const mpz_class& b, bool maximum,
                  bool number, int mode, unsigned* flags) {
    const unsigned invalid = is_signaling(fa, a) || is_signaling(fb, b) ? FLAG_INVALID : 0;
    if (flags) *flags = invalid;
    const bool a_nan = classify(fa, a) == Kind::NaN, b_nan = classify(fb, b) == Kind::NaN;
    if (a_nan || b_nan) {
        if (!number || (a_nan && b_nan)) return nan_pattern(fa);
        if (b_nan) return a;
    } else {
        const Decoded x(fa, a), y(fb, b);
        const int order = mpfr_zero_p(x.v) && mpfr_zero_p(y.v) // -0 below +0
                              ? !mpfr_signbit(x.v) - !mpfr_signbit(y.v)
                              : mpfr_cmp(x.v, y.v);
        if (maximum ? order >= 0 : order <= 0) return a;
    }
    const mpz_class r = convert(fb, b, fa, mode, flags);
    if (flags) *flags |= invalid;
    return r;
}

mpz_class scale_b(Format fmt, const mpz_class& bits, long n, int mode, unsigned* flags) {
    if (flags) *flags = is_signaling(fmt, bits) ? FLAG_INVALID : 0;
    if (!is_finite(fmt, bits)) return classify(fmt, bits) == Kind::NaN ? nan_pattern(fmt) : bits;
    // Beyond twice the exponent field's reach plus the precision every n gives the
    // same result; the clamp keeps MPFR's exponents in range.
    const long reach = (2L << std::min(fmt.e, 60U)) + 2L * fmt.m + 8;
    Decoded x(fmt, bits);
    mpfr_mul_2si(x.v, x.v, std::clamp(n, -reach, reach), MPFR_RNDN);
    mpz_class out;
    emulator_for(fmt).round_to_format(out, x.v, mode, flags);
    return out;
}

long log_b(Format fmt, const mpz_class& bits, unsigned* flags) {
    if (flags) *flags = FLAG_INVALID;
    const Kind kind = classify(fmt, bits);
    if (kind == Kind::Infinite) return LONG_MAX;
    if (kind == Kind::NaN || kind == Kind::Zero) return LONG_MIN;
    if (flags) *flags = 0;
    return mpfr_get_exp(Decoded(fmt, bits).v) - 1;
}

// ---------------------------------------------------------------------------
// Operands of different formats
// ---------------------------------------------------------------------------

// MPFR rounds the exact result of operands of any precisions. Rounded toward zero
// at three bits beyond fa's precision, in the widest range, with the last bit set
// when inexact (round to odd), it rounds once more into fa exactly as the exact
// result would, flags included. An exact zero is computed again in the mode's own
// direction, which alone decides the sign of a zero sum.
mpz_class mixed(Operation op, Format fa, const mpz_class& a, Format fb, const mpz_class& b,
                int mode, unsigned* flags, Format fc, const mpz_class* c) {
    const Decoded x(fa, a), y(fb, b), z(c ? fc : fb, c ? *c : b);
    const bool nan_operand = mpfr_nan_p(x.v) || mpfr_nan_p(y.v) || (c && mpfr_nan_p(z.v));
    const bool zero_times_inf =
        c && !mpfr_nan_p(z.v) &&
        ((mpfr_zero_p(x.v) && mpfr_inf_p(y.v)) || (mpfr_inf_p(x.v) && mpfr_zero_p(y.v)));
    unsigned raised = signaling(fa, x.v, a) || signaling(fb, y.v, b) ||
                              (c && signaling(fc, z.v, *c)) || zero_times_inf
                          ? FLAG_INVALID
                          : 0;
    if (!c && op == Operation::Div && mpfr_zero_p(y.v) && mpfr_regular_p(x.v))
        raised |= FLAG_DIVBYZERO;
    Decoded result(fa, 0, 3); // precision m + 4
    const mpfr_ptr r = result.v;
    const auto compute = [&](mpfr_rnd_t rnd) {
        enter_full_range();
        return c                      ? mpfr_fma(r, x.v, y.v, z.v, rnd)
               : op == Operation::Add ? mpfr_add(r, x.v, y.v, rnd)
               : op == Operation::Sub ? mpfr_sub(r, x.v, y.v, rnd)
               : op == Operation::Mul ? mpfr_mul(r, x.v, y.v, rnd)
                                      : mpfr_div(r, x.v, y.v, rnd);
    };
    if (compute(MPFR_RNDZ) != 0 && mpfr_min_prec(r) <= static_cast<mpfr_prec_t>(fa.m) + 3)
        nudge_away(r);
    if (mpfr_zero_p(r)) compute(to_mpfr_rounding(mode));
    if (mpfr_nan_p(r) && !nan_operand) raised |= FLAG_INVALID;
    unsigned rounding_flags = 0;
    mpz_class out;
    emulator_for(fa).round_to_format(out, r, mode, &rounding_flags);
    if (flags) *flags = raised | rounding_flags;
    return out;
}

int compare_mixed(Format fa, const mpz_class& a, Format fb, const mpz_class& b) {
    const Decoded x(fa, a), y(fb, b);
    if (mpfr_nan_p(x.v) || mpfr_nan_p(y.v)) return -2;
    const int order = mpfr_cmp(x.v, y.v);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

// ---- Low-precision encodings ------------------------------------------------

namespace {

/// The grid of an encoding: exponent of the smallest normal binade, whether there
/// are subnormals, and the patterns that do not depend on a value.
struct Grid {
    const Encoding& enc;
    long emin;
    bool scale;
    mpz_class sign_bit, nan, largest, infinity;

    explicit Grid(const Encoding& x)
        : enc(x), emin(x.top == 4 ? -x.bias : 1 - x.bias), scale(x.top == 4),
          sign_bit(x.has_sign ? pow2(x.e + x.m) : mpz_class(0)) {
        const mpz_class all = pow2(x.e + x.m) - 1;
        infinity = (pow2(x.e) - 1) * pow2(x.m);
        nan = x.top == 0   ? infinity + (x.m ? pow2(x.m - 1) : mpz_class(0))
              : x.top == 2 ? pow2(x.e + x.m)
              : x.top == 3 ? mpz_class(0)
                           : all;
        largest = x.top == 0 ? infinity - 1 : x.top == 1 || x.top == 4 ? all - 1 : all;
    }

    /// The pattern of a non-negative value on the grid (beyond the top too).
    mpz_class pattern(mpfr_srcptr v) const {
        if (mpfr_zero_p(v)) return 0;
        const long E = mpfr_get_exp(v) - 1;
        const long low = E < emin ? emin : E;
        mpfr_t t;
        mpfr_init2(t, mpfr_get_prec(v));
        mpfr_mul_2si(t, v, enc.m - low, MPFR_RNDN);
        mpz_class sig;
        mpfr_get_z(sig.get_mpz_t(), t, MPFR_RNDN);
        mpfr_clear(t);
        if (E < emin) return sig;
        return mpz_class(low - emin + (scale ? 0 : 1)) * pow2(enc.m) + sig - pow2(enc.m);
    }

    /// Chooses between the neighbours z <= |x| <= a of the grid in direction `mode`;
    /// `odd` tells whether z is odd.
    static bool pick_a(mpfr_srcptr x, mpfr_srcptr z, mpfr_srcptr a, bool odd, bool negative,
                       int mode) {
        mpfr_t mid;
        mpfr_init2(mid, mpfr_get_prec(z) + 8);
        mpfr_add(mid, z, a, MPFR_RNDN);
        mpfr_div_2ui(mid, mid, 1, MPFR_RNDN);
        const int c = mpfr_cmp(x, mid);
        mpfr_clear(mid);
        switch (mode) {
        case NEAREST_EVEN:
            return c > 0 || (c == 0 && odd);
        case TOWARD_ZERO:
            return false;
        case TOWARD_POSITIVE:
            return !negative;
        case TOWARD_NEGATIVE:
            return negative;
        case NEAREST_AWAY:
            return c >= 0;
        default:
            return !odd;
        }
    }
};

/// |x| rounded toward zero and away from zero at precision p, and when `bounded` at
/// no bit below 2^low: where the subnormals of the encoding lie.
void neighbours(mpfr_srcptr x, long p, long low, bool bounded, mpfr_ptr z, mpfr_ptr a) {
    if (bounded) p = std::min(p, static_cast<long>(mpfr_get_exp(x)) - low);
    mpfr_set_prec(z, std::max(p, 1L));
    mpfr_set_prec(a, std::max(p, 1L));
    if (p <= 0) {
        mpfr_set_zero(z, 1);
        mpfr_set_ui_2exp(a, 1, low, MPFR_RNDN);
        return;
    }
    mpfr_set(z, x, MPFR_RNDZ);
    mpfr_set(a, x, MPFR_RNDA);
}

} // namespace

mpz_class encode(Format from, const mpz_class& bits, const Encoding& enc, int mode, bool saturate,
                 unsigned* flags) {
    const Grid g(enc);
    unsigned raised = 0;
    const bool negative = sign_of(from, bits);
    const mpz_class sign = negative ? g.sign_bit : mpz_class(0);
    const bool to_infinity = mode == NEAREST_EVEN || mode == NEAREST_AWAY ||
                             (mode == TOWARD_POSITIVE && !negative) ||
                             (mode == TOWARD_NEGATIVE && negative);
    const mpz_class beyond = enc.top == 0   ? g.infinity + sign
                             : enc.top == 3 ? g.largest + sign
                                            : g.nan;
    mpz_class result;
    const Kind kind = classify(from, bits);
    if (kind == Kind::NaN) {
        result = g.nan;
        raised = enc.top == 3 || is_signaling(from, bits) ? FLAG_INVALID : 0;
    } else if (negative && (g.scale || (!enc.has_sign && kind == Kind::Infinite))) {
        result = g.nan;
        raised = FLAG_INVALID;
    } else if (kind == Kind::Infinite) {
        result = saturate ? g.largest + sign : beyond;
        raised = enc.top == 0 ? 0 : FLAG_INVALID;
    } else if (kind == Kind::Zero) {
        result = g.scale ? g.nan : enc.has_sign && enc.top != 2 ? sign : mpz_class(0);
        raised = g.scale ? FLAG_INVALID : 0;
    } else {
        mpfr_set_emin(mpfr_get_emin_min());
        mpfr_set_emax(mpfr_get_emax_max());
        mpfr_t x, z, a, threshold;
        mpfr_inits2(from.m + 2, x, z, a, threshold, static_cast<mpfr_ptr>(nullptr));
        mpfr_set_q(x, to_rational(from, bits).get_mpq_t(), MPFR_RNDN);
        mpfr_abs(x, x, MPFR_RNDN);
        mpfr_set_ui_2exp(threshold, 1, g.emin, MPFR_RNDN);
        const bool below = mpfr_cmp(x, threshold) < 0;
        mpz_class p;
        bool inexact = true, tiny = below;
        if (g.scale && below) {
            p = 0; // nothing lies below the smallest scale
        } else {
            neighbours(x, enc.m + 1, g.emin - enc.m, true, z, a);
            inexact = !mpfr_equal_p(z, a);
            const mpz_class pz = g.pattern(z);
            p = pz;
            if (inexact && Grid::pick_a(x, z, a, mpz_odd_p(pz.get_mpz_t()), negative, mode))
                p = g.pattern(a);
            if (below && inexact) {
                // Tininess after rounding: at full precision with an unbounded exponent.
                neighbours(x, enc.m + 1, 0, false, z, a);
                mpz_class sig;
                mpfr_get_z_2exp(sig.get_mpz_t(), z);
                const bool up = Grid::pick_a(x, z, a, mpz_odd_p(sig.get_mpz_t()), negative, mode);
                tiny = mpfr_cmp(up ? a : z, threshold) < 0;
            }
        }
        mpfr_clears(x, z, a, threshold, static_cast<mpfr_ptr>(nullptr));
        if (p > g.largest) {
            result = !saturate && to_infinity ? beyond : g.largest + sign;
            raised = FLAG_OVERFLOW | FLAG_INEXACT;
        } else {
            result = p == 0 && !g.scale ? (enc.has_sign && enc.top != 2 ? sign : mpz_class(0))
                                        : p + sign;
            raised = inexact ? FLAG_INEXACT | (tiny ? FLAG_UNDERFLOW : 0) : 0;
        }
        if (negative && !enc.has_sign && (p != 0 || g.scale)) {
            result = g.nan;
            raised = FLAG_INVALID;
        }
    }
    if (flags) *flags = raised;
    return result;
}

Kind decode(const Encoding& enc, const mpz_class& bits, bool& negative, mpq_class& value) {
    const Grid g(enc);
    const mpz_class magnitude = bits % pow2(enc.e + enc.m);
    negative = enc.has_sign && mpz_tstbit(bits.get_mpz_t(), enc.e + enc.m);
    const mpz_class field = magnitude / pow2(enc.m), mantissa = magnitude % pow2(enc.m);
    const bool top_field = field == pow2(enc.e) - 1;
    if ((enc.top == 0 && top_field && mantissa != 0) ||
        ((enc.top == 1 || enc.top == 4) && magnitude == g.nan) ||
        (enc.top == 2 && negative && magnitude == 0))
        return Kind::NaN;
    if (enc.top == 0 && top_field) return Kind::Infinite;
    if (magnitude == 0 && !g.scale) return Kind::Zero;
    const bool normal = field != 0 || g.scale;
    const long exponent = normal ? field.get_si() - (g.scale ? 0 : 1) + g.emin : g.emin;
    value = times_pow2(mpq_class(normal ? mantissa + pow2(enc.m) : mantissa), exponent - enc.m);
    if (negative) value = -value;
    return Kind::Normal;
}

std::vector<unsigned> mx(Format from, const std::vector<mpz_class>& values, std::size_t block,
                         const Encoding& enc, std::vector<mpz_class>& elements, unsigned& flags) {
    const Grid g(enc);
    const long emax = mpz_class(g.largest >> enc.m).get_si() - (g.scale ? 0 : 1) + g.emin;
    // The quotients exactly, in a format of the same precision and a wider range.
    const Format wide{from.e + 2, from.m};
    std::vector<unsigned> scales;
    elements.assign(values.size(), 0);
    for (std::size_t begin = 0; begin < values.size(); begin += block) {
        const std::size_t end = std::min(values.size(), begin + block);
        mpq_class largest = 0;
        bool special = false;
        for (std::size_t i = begin; i < end; ++i) {
            special |= !is_finite(from, values[i]);
            if (!special) largest = std::max<mpq_class>(largest, abs(to_rational(from, values[i])));
        }
        enter_full_range();
        mpfr_t t;
        mpfr_init2(t, 8);
        mpfr_set_q(t, largest.get_mpq_t(), MPFR_RNDZ); // keeps the binade
        const long s = largest == 0 ? -127 : std::clamp(mpfr_get_exp(t) - 1 - emax, -127L, 127L);
        mpfr_clear(t);
        scales.push_back(special ? 255 : static_cast<unsigned>(s + 127));
        flags |= special ? FLAG_INVALID : 0;
        for (std::size_t i = begin; i < end && !special; ++i) {
            unsigned raised = 0;
            const mpz_class q = scale_b(wide, convert(from, values[i], wide, 0), -s, 0);
            elements[i] = encode(wide, q, enc, NEAREST_EVEN, true, &raised);
            flags |= raised;
        }
    }
    return scales;
}

} // namespace oracle
