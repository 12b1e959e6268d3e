#include "tests/oracle/oracle.h"

#include <algorithm>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace oracle {

namespace {

mpfr_rnd_t to_mpfr_rounding(int mode) {
    if (mode < NEAREST_EVEN || mode > TOWARD_NEGATIVE)
        throw std::invalid_argument("oracle: rounding mode " + std::to_string(mode));
    const mpfr_rnd_t rounding[] = {MPFR_RNDN, MPFR_RNDZ, MPFR_RNDU, MPFR_RNDD};
    return rounding[mode];
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
    mpfr_inits2(static_cast<mpfr_prec_t>(fmt.m) + 1, x_, y_, r_, static_cast<mpfr_ptr>(nullptr));
}

Emulator::~Emulator() {
    mpfr_clears(x_, y_, r_, static_cast<mpfr_ptr>(nullptr));
}

void Emulator::enter_range() const {
    mpfr_set_emin(emin_);
    mpfr_set_emax(emax_);
}

void Emulator::fit_to_format(mpfr_ptr x, int t, mpfr_rnd_t rnd) const {
    enter_range();
    t = mpfr_check_range(x, t, rnd);
    mpfr_subnormalize(x, t, rnd);
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

void Emulator::from_rational(mpz_class& out, const mpq_class& q, int mode) {
    mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    enter_full_range();
    fit_to_format(r_, mpfr_set_q(r_, q.get_mpq_t(), rnd), rnd);
    encode(out, r_);
}

bool Emulator::read(mpz_class& out, const std::string& text, int mode) {
    mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    enter_full_range();
    char* end = nullptr;
    int t = mpfr_strtofr(r_, text.c_str(), &end, 0, rnd);
    if (text.empty() || end != text.c_str() + text.size()) return false;
    fit_to_format(r_, t, rnd);
    encode(out, r_);
    return true;
}

void Emulator::apply(Operation op, mpz_class& out, const mpz_class& a, const mpz_class& b,
                     int mode) {
    mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    enter_range();
    decode(x_, a);
    if (op != Operation::Sqrt) decode(y_, b);
    int t = op == Operation::Add   ? mpfr_add(r_, x_, y_, rnd)
            : op == Operation::Sub ? mpfr_sub(r_, x_, y_, rnd)
            : op == Operation::Mul ? mpfr_mul(r_, x_, y_, rnd)
            : op == Operation::Div ? mpfr_div(r_, x_, y_, rnd)
                                   : mpfr_sqrt(r_, x_, rnd);
    mpfr_subnormalize(r_, t, rnd);
    encode(out, r_);
}

void Emulator::round_to_format(mpz_class& out, mpfr_srcptr x, int mode) {
    mpfr_rnd_t rnd = to_mpfr_rounding(mode);
    fit_to_format(r_, mpfr_set(r_, x, rnd), rnd);
    encode(out, r_);
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

mpz_class apply(Format fmt, Operation op, const mpz_class& a, const mpz_class& b, int mode) {
    mpz_class r;
    emulator_for(fmt).apply(op, r, a, b, mode);
    return r;
}

mpz_class convert(Format from, const mpz_class& bits, Format to, int mode) {
    if (from == to) return bits;
    const Decoded value(from, bits);
    mpz_class r;
    emulator_for(to).round_to_format(r, value.v, mode);
    return r;
}

mpz_class from_rational(const mpq_class& q, Format fmt, int mode) {
    mpz_class r;
    emulator_for(fmt).from_rational(r, q, mode);
    return r;
}

mpz_class read_numeral(Format fmt, const std::string& text, int mode) {
    mpz_class r;
    if (!emulator_for(fmt).read(r, text, mode))
        throw std::invalid_argument("oracle: MPFR does not read \"" + text + "\"");
    return r;
}

mpz_class from_number_model(const mpq_class& q, Format fmt, int mode) {
    if (q.get_den() == 1) return from_rational(q, fmt, mode);
    unsigned long wide_m = std::max(
        {bit_length(q.get_num()), bit_length(q.get_den()), static_cast<unsigned long>(fmt.m)});
    unsigned long wide_e = std::max(bit_length(wide_m), static_cast<unsigned long>(fmt.e)) + 1;
    Format common{static_cast<unsigned>(wide_e), static_cast<unsigned>(wide_m)};
    return convert(common, from_rational(q, common, mode), fmt, mode);
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

mpz_class to_integer(Format fmt, const mpz_class& bits, int mode, unsigned long width) {
    if (!is_finite(fmt, bits) || classify(fmt, bits) == Kind::Zero) return 0;
    const Decoded value(fmt, bits);
    // An integer below 2^E needs E bits; one more holds a round-up to 2^E.
    mpfr_t integral;
    mpfr_init2(integral, std::max<mpfr_exp_t>(mpfr_get_exp(value.v), 1) + 1);
    mpfr_rint(integral, value.v, to_mpfr_rounding(mode >= 0 && mode <= 3 ? mode : TOWARD_ZERO));
    mpz_class n;
    mpfr_get_z(n.get_mpz_t(), integral, MPFR_RNDN);
    mpfr_clear(integral);
    if (width > 0) mpz_tdiv_r_2exp(n.get_mpz_t(), n.get_mpz_t(), width);
    return n;
}

mpz_class round_to_integral(Format fmt, const mpz_class& bits, int mode) {
    if (!is_finite(fmt, bits) || classify(fmt, bits) == Kind::Zero) return bits;
    mpz_class r = from_rational(mpq_class(to_integer(fmt, bits, mode, 0)), fmt, mode);
    if (classify(fmt, r) == Kind::Zero) r = make_pattern(fmt, sign_of(fmt, bits), 0, 0);
    return r;
}

int compare(Format fmt, const mpz_class& a, const mpz_class& b) {
    const Decoded x(fmt, a), y(fmt, b);
    if (mpfr_unordered_p(x.v, y.v)) return -2;
    return (mpfr_cmp(x.v, y.v) > 0) - (mpfr_cmp(x.v, y.v) < 0);
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

} // namespace oracle
