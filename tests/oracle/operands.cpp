#include "tests/oracle/operands.h"

#include <algorithm>
#include <string>
#include <vector>

namespace oracle {

namespace {

bool sign_of(Format fmt, const mpz_class& bits) {
    return mpz_tstbit(bits.get_mpz_t(), fmt.e + fmt.m) != 0;
}

// Exact rationals with exponents beyond this many bits cost more than they test.
constexpr long max_rational_exponent = 20000;

} // namespace

OperandGenerator::OperandGenerator(Format fmt, std::uint64_t seed)
    : fmt_(fmt), seed_(seed), rng_(seed), bias_(0), min_exponent_(0), emulator_(fmt) {
    bias_ = fmt.bias();
    min_exponent_ = 1 - bias_ - static_cast<long>(fmt.m);
}

long OperandGenerator::uniform(long lo, long hi) {
    unsigned long span = static_cast<unsigned long>(hi) - static_cast<unsigned long>(lo) + 1;
    unsigned long draw = span == 0 ? rng_() : rng_() % span;
    return static_cast<long>(static_cast<unsigned long>(lo) + draw);
}

mpz_class OperandGenerator::random_bits(unsigned long n) {
    std::vector<std::uint64_t> words((n + 63) / 64);
    for (auto& w : words)
        w = rng_();
    mpz_class r;
    mpz_import(r.get_mpz_t(), words.size(), -1, sizeof(std::uint64_t), 0, 0, words.data());
    mpz_fdiv_r_2exp(r.get_mpz_t(), r.get_mpz_t(), n);
    return r;
}

mpz_class OperandGenerator::random_odd(unsigned long bits) {
    if (bits <= 1) return 1;
    mpz_class r = random_bits(bits);
    mpz_setbit(r.get_mpz_t(), bits - 1);
    mpz_setbit(r.get_mpz_t(), 0);
    return r;
}

// Mantissa fields with structure (0, 1, all ones, lone top bit) turn up often, since
// carries and borrows through them are where alignment and rounding code breaks.
mpz_class OperandGenerator::random_mantissa() {
    if (fmt_.m == 0) return 0;
    switch (uniform(0, 7)) {
    case 0:
        return 0;
    case 1:
        return 1;
    case 2:
        return pow2(fmt_.m) - 1;
    case 3:
        return pow2(fmt_.m - 1);
    case 4:
        return pow2(fmt_.m) - 1 - random_bits(std::min(4u, fmt_.m));
    default:
        return random_bits(fmt_.m);
    }
}

mpz_class OperandGenerator::random_significand() {
    mpz_class sig = random_mantissa();
    mpz_setbit(sig.get_mpz_t(), fmt_.m);
    return sig;
}

long OperandGenerator::random_normal_exponent() {
    return uniform(1 - bias_, bias_);
}

long OperandGenerator::random_exponent() {
    if (one_in(6)) return uniform(min_exponent_, -bias_);
    return random_normal_exponent();
}

mpz_class OperandGenerator::value(bool negative, const mpz_class& sig, long exp2) {
    // Rounded toward zero so that out-of-range requests land on the largest finite
    // value or on zero rather than becoming infinite.
    mpz_class r;
    emulator_.from_scaled(r, negative, sig, exp2, TOWARD_ZERO);
    return r;
}

mpz_class OperandGenerator::random_value(bool negative, long leading_exponent) {
    mpz_class sig = random_significand();
    return scaled(negative, sig, leading_exponent);
}

mpz_class OperandGenerator::scaled(bool negative, const mpz_class& sig, long leading_exponent) {
    long exp2 = leading_exponent - static_cast<long>(std::max(1UL, bit_length(sig))) + 1;
    return value(negative, sig, exp2);
}

// Moves the magnitude by `ulps` patterns, staying within the finite values.
mpz_class OperandGenerator::step(const mpz_class& bits, long ulps) {
    bool negative = sign_of(fmt_, bits);
    mpz_class magnitude = bits;
    mpz_clrbit(magnitude.get_mpz_t(), fmt_.e + fmt_.m);
    magnitude += ulps;
    mpz_class largest = max_pattern(fmt_, false);
    if (magnitude < 0) magnitude = 0;
    if (magnitude > largest) magnitude = largest;
    if (negative) mpz_setbit(magnitude.get_mpz_t(), fmt_.e + fmt_.m);
    return magnitude;
}

mpz_class OperandGenerator::negate(const mpz_class& bits) {
    mpz_class r = bits;
    mpz_combit(r.get_mpz_t(), fmt_.e + fmt_.m);
    return r;
}

mpz_class OperandGenerator::special() {
    bool negative = coin();
    mpz_class all_ones_exponent = pow2(fmt_.e) - 1;
    switch (uniform(0, 6)) {
    case 0:
        return make_pattern(fmt_, negative, 0, 0);
    case 1:
        return min_pattern(fmt_, negative);
    case 2:
        return make_pattern(fmt_, negative, 0, pow2(fmt_.m) - 1);
    case 3:
        return make_pattern(fmt_, negative, 1, 0);
    case 4:
        return max_pattern(fmt_, negative);
    case 5:
        return inf_pattern(fmt_, negative);
    default: {
        mpz_class payload = random_mantissa();
        if (payload == 0 && fmt_.m > 0) payload = 1;
        return make_pattern(fmt_, negative, all_ones_exponent, payload);
    }
    }
}

mpz_class OperandGenerator::operand() {
    bool negative = coin();
    switch (uniform(0, 15)) {
    case 0:
    case 1:
    case 2:
    case 3:
        return special();
    case 4: {
        long ulps = uniform(-3, 3);
        return step(special(), ulps);
    }
    case 5:
    case 6:
        return random_value(negative, uniform(-2, 2));
    case 7:
    case 8:
    case 9: {
        mpz_class mantissa = random_mantissa();
        return make_pattern(fmt_, negative, uniform(1, (1L << fmt_.e) - 2), mantissa);
    }
    case 10:
        return make_pattern(fmt_, negative, 0, random_mantissa());
    case 11:
        return random_value(negative, random_exponent());
    default:
        return random_bits(fmt_.width());
    }
}

std::pair<mpz_class, mpz_class> OperandGenerator::pair(Operation op) {
    switch (op) {
    case Operation::Add:
        return add_pair();
    case Operation::Sub: {
        auto [a, b] = add_pair();
        return {a, negate(b)};
    }
    case Operation::Mul:
        return mul_pair();
    case Operation::Div:
        return div_pair();
    case Operation::Sqrt:
        break;
    }
    return {sqrt_operand(), 0};
}

std::pair<mpz_class, mpz_class> OperandGenerator::add_pair() {
    const long m = fmt_.m;
    bool sa = coin(), sb = coin();
    long ea = random_exponent();
    switch (uniform(0, 8)) {
    case 0:
    case 1:
        return {operand(), operand()};
    case 2: {
        // b's leading bit sits at (or just below) a's rounding position: with b a power
        // of two this is an exact tie, with more bits in b it is just off one.
        mpz_class b_sig = one_in(2) ? mpz_class(1) : random_significand();
        long eb = ea - m - 1 - uniform(0, 2);
        return {random_value(sa, ea), scaled(sb, b_sig, eb)};
    }
    case 3: {
        long gap = m + 2 + (one_in(4) ? uniform(0, 2 * bias_) : uniform(0, 2 * m + 8));
        return {random_value(sa, ea), random_value(sb, ea - gap)};
    }
    case 4: {
        // Sums at the overflow threshold: a near the largest finite value, b around
        // half its last place.
        mpz_class a = step(max_pattern(fmt_, sa), -uniform(0, 2));
        mpz_class b_sig = one_in(2) ? mpz_class(1) : random_significand();
        return {a, scaled(sa, b_sig, bias_ - m - 1 + uniform(-1, 2))};
    }
    case 5: {
        // Cancellation: b is -a, or -a moved by a few patterns.
        mpz_class a = random_value(sa, ea);
        return {a, negate(step(a, uniform(-3, 3)))};
    }
    case 6: {
        long low = min_exponent_, high = 2 - bias_;
        return {random_value(sa, uniform(low, high)), random_value(sb, uniform(low, high))};
    }
    default:
        return {random_value(sa, ea), random_value(sb, ea + uniform(-2, 2))};
    }
}

// Two factors whose exact product is a rounding tie. Normal range: the odd parts of
// the significands multiply to exactly m+2 bits, ending in the half-unit bit.
// Subnormal range: the odd product has at most m+1 bits and its last bit is worth
// half the smallest subnormal.
std::pair<mpz_class, mpz_class> OperandGenerator::mul_tie(bool subnormal) {
    const long m = fmt_.m;
    mpz_class oa, ob;
    for (int attempt = 0; attempt < 8; ++attempt) {
        long ja = uniform(1, m + 1);
        long jb = subnormal ? uniform(1, std::max(1L, m + 1 - ja)) : m + 2 - ja + uniform(0, 1);
        jb = std::clamp(jb, 1L, m + 1);
        oa = random_odd(static_cast<unsigned long>(ja));
        ob = random_odd(static_cast<unsigned long>(jb));
        unsigned long product_bits = bit_length(mpz_class(oa * ob));
        if (subnormal ? product_bits <= static_cast<unsigned long>(m + 1)
                      : product_bits == static_cast<unsigned long>(m + 2))
            break;
    }
    // Exponents of the last bits: ka + kb fixes where the product's last bit lies.
    long product_lsb;
    if (subnormal) {
        product_lsb = min_exponent_ - 1;
    } else {
        long leading = one_in(6) ? uniform(bias_ - 1, bias_) : random_normal_exponent();
        product_lsb = leading - (m + 1);
    }
    long a_leading = random_normal_exponent();
    long ka = a_leading - static_cast<long>(bit_length(oa)) + 1;
    long kb = product_lsb - ka;
    bool sa = coin(), sb = coin();
    return {value(sa, oa, ka), value(sb, ob, kb)};
}

std::pair<mpz_class, mpz_class> OperandGenerator::mul_pair() {
    bool sa = coin(), sb = coin();
    switch (uniform(0, 8)) {
    case 0:
    case 1:
        return {operand(), operand()};
    case 2:
    case 3:
        return mul_tie(false);
    case 4: {
        auto [a, b] = mul_tie(false);
        return {step(a, coin() ? 1 : -1), b};
    }
    case 5:
        return mul_tie(true);
    case 6: {
        // Products whose leading bit lands in or just below the subnormal range.
        long product = 1 - bias_ - uniform(0, static_cast<long>(fmt_.m) + 3);
        long ea = random_normal_exponent();
        return {random_value(sa, ea), random_value(sb, product - ea)};
    }
    case 7: {
        long product = bias_ + uniform(-1, 0);
        long ea = random_normal_exponent();
        return {random_value(sa, ea), random_value(sb, product - ea)};
    }
    default:
        return {special(), operand()};
    }
}

// A quotient cannot be an exact tie in the normal range, but it can be arbitrarily
// close to one: a ≈ t·b for a tie t of m+2 bits.
std::pair<mpz_class, mpz_class> OperandGenerator::div_near_tie() {
    const long m = fmt_.m;
    mpz_class tie = random_odd(static_cast<unsigned long>(m + 2));
    mpz_class b_sig = random_significand();
    mpz_class a_sig = tie * b_sig;
    // Keep the m+1 leading bits of t·b, rounded to nearest.
    unsigned long drop = bit_length(a_sig) - static_cast<unsigned long>(m + 1);
    mpz_class half = pow2(drop - 1);
    a_sig += half;
    mpz_fdiv_q_2exp(a_sig.get_mpz_t(), a_sig.get_mpz_t(), drop);
    long quotient = one_in(5)   ? uniform(min_exponent_, 1 - bias_ + 1)
                    : one_in(5) ? uniform(bias_ - 1, bias_)
                                : random_normal_exponent();
    long eb = random_normal_exponent();
    bool sa = coin(), sb = coin();
    return {scaled(sa, a_sig, eb + quotient), scaled(sb, b_sig, eb)};
}

// a / b = T × 2^(min_exponent - 1) with T odd of at most m+1 bits: an exact tie at
// subnormal precision.
std::pair<mpz_class, mpz_class> OperandGenerator::div_subnormal_tie() {
    const long m = fmt_.m;
    long t_bits = uniform(1, m + 1);
    mpz_class t = random_odd(static_cast<unsigned long>(t_bits));
    mpz_class b_sig = random_odd(static_cast<unsigned long>(uniform(1, m + 2 - t_bits)));
    long kb = uniform(0, std::max(0L, bias_ - static_cast<long>(bit_length(b_sig))));
    bool sa = coin(), sb = coin();
    return {value(sa, t * b_sig, kb + min_exponent_ - 1), value(sb, b_sig, kb)};
}

// a / b whose significand division leaves a remainder of 1, 2 or b - 1: the
// sticky bit then hangs on the lowest limb alone. A division scales the
// dividend by some 2^s before dividing, and s differs between implementations
// (about m or 2m bits), so s is drawn from around both and a_sig is solved
// from a_sig * 2^s = r (mod b_sig).
std::pair<mpz_class, mpz_class> OperandGenerator::div_small_remainder() {
    const long m = fmt_.m;
    const long shifts[] = {m, m + 1, m + 2, m + 3, 2 * m - 1, 2 * m, 2 * m + 1, 2 * m + 2};
    const long s = std::max(0L, shifts[uniform(0, 7)]);
    for (int attempt = 0; attempt < 8; ++attempt) {
        mpz_class b_sig = random_significand();
        mpz_setbit(b_sig.get_mpz_t(), 0);
        if (b_sig == 1) break;
        mpz_class inverse;
        mpz_class const shift_mod_b = pow2(static_cast<unsigned long>(s)) % b_sig;
        if (mpz_invert(inverse.get_mpz_t(), shift_mod_b.get_mpz_t(), b_sig.get_mpz_t()) == 0)
            continue;
        const long choice = uniform(0, 2);
        mpz_class const remainder = choice == 0   ? mpz_class(1)
                                    : choice == 1 ? mpz_class(2)
                                                  : b_sig - 1;
        mpz_class a_sig = remainder * inverse % b_sig;
        if (bit_length(a_sig) != static_cast<unsigned long>(m + 1)) continue;
        long eb = random_normal_exponent();
        long quotient = uniform(-3, 3);
        return {scaled(coin(), a_sig, eb + quotient), scaled(coin(), b_sig, eb)};
    }
    return div_near_tie();
}

std::pair<mpz_class, mpz_class> OperandGenerator::div_pair() {
    bool sa = coin(), sb = coin();
    switch (uniform(0, 8)) {
    case 0:
        return {operand(), operand()};
    case 1:
        return div_small_remainder();
    case 2:
    case 3:
        return div_near_tie();
    case 4:
        return div_subnormal_tie();
    case 5: {
        long eb = random_normal_exponent();
        long quotient = 1 - bias_ - uniform(0, static_cast<long>(fmt_.m) + 3);
        return {random_value(sa, eb + quotient), random_value(sb, eb)};
    }
    case 6: {
        long eb = random_normal_exponent();
        return {random_value(sa, eb + bias_ + uniform(-1, 0)), random_value(sb, eb)};
    }
    case 7: {
        // Exact quotients: a = b × k for a small k.
        mpz_class k = random_odd(static_cast<unsigned long>(uniform(1, 4)));
        mpz_class b_sig = random_significand();
        long eb = random_normal_exponent();
        return {scaled(sa, mpz_class(b_sig * k), eb + uniform(-3, 3)), scaled(sb, b_sig, eb)};
    }
    default:
        return coin() ? std::pair<mpz_class, mpz_class>{special(), operand()}
                      : std::pair<mpz_class, mpz_class>{operand(), special()};
    }
}

mpz_class OperandGenerator::sqrt_operand() {
    const long m = fmt_.m;
    switch (uniform(0, 6)) {
    case 0:
    case 1:
        return operand();
    case 2:
    case 3: {
        // t² for a tie t of m+2 bits, rounded to the format: its root lies next to t.
        mpz_class tie = random_odd(static_cast<unsigned long>(m + 2));
        mpz_class square = tie * tie;
        long exponent = 2 * uniform(-bias_ / 2, bias_ / 2);
        exponent += uniform(0, 1);
        return scaled(false, square, exponent);
    }
    case 4: {
        mpz_class root = random_odd(static_cast<unsigned long>(uniform(1, (m + 2) / 2)));
        return scaled(false, mpz_class(root * root), 2 * uniform(-bias_ / 2, bias_ / 2));
    }
    case 5:
        return make_pattern(fmt_, false, 0, random_mantissa());
    default:
        return negate(operand());
    }
}

mpq_class OperandGenerator::integer_rational() {
    const long m = fmt_.m;
    mpz_class n;
    if (coin()) {
        n = random_bits(static_cast<unsigned long>(uniform(1, m + 12)));
    } else {
        // m+2 significant bits ending in 1: a tie between two neighbours.
        n = random_odd(static_cast<unsigned long>(m + 2));
        n <<= static_cast<unsigned long>(uniform(0, 4));
    }
    return coin() ? mpq_class(-n) : mpq_class(n);
}

// A rational just off the midpoint of two neighbours of the format: the midpoint
// times (D ± 1)/D for a wide odd D, or the midpoint itself.
mpq_class OperandGenerator::near_tie_rational() {
    const long m = fmt_.m;
    long leading = std::clamp(random_exponent(), -max_rational_exponent, max_rational_exponent);
    mpz_class mid = random_odd(static_cast<unsigned long>(m + 2));
    long exp2 = leading - (m + 1);
    mpq_class q(mid);
    if (exp2 >= 0)
        mpq_mul_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(exp2));
    else
        mpq_div_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(-exp2));
    long nudge = uniform(-1, 1);
    if (nudge != 0) {
        mpz_class d = random_odd(static_cast<unsigned long>(uniform(m + 3, 2 * m + 40)));
        q *= mpq_class(d + nudge, d);
    }
    return coin() ? mpq_class(-q) : q;
}

mpq_class OperandGenerator::extreme_rational() {
    const long m = fmt_.m;
    mpz_class odd = random_odd(static_cast<unsigned long>(uniform(1, m + 4)));
    mpq_class q(odd);
    if (coin()) {
        long shift = std::clamp(bias_ + m + uniform(-2, 4), 0L, max_rational_exponent);
        mpq_div_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(shift));
    } else {
        long shift = std::min(bias_ - static_cast<long>(bit_length(odd)) + uniform(-1, 3),
                              max_rational_exponent);
        if (shift > 0)
            mpq_mul_2exp(q.get_mpq_t(), q.get_mpq_t(), static_cast<unsigned long>(shift));
    }
    if (one_in(3)) q /= mpq_class(random_odd(static_cast<unsigned long>(uniform(2, 8))));
    return coin() ? mpq_class(-q) : q;
}

// Off a midpoint of the format by less than half a unit of the first, wider rounding
// of a fraction, which therefore lands exactly on the midpoint: N/D = mid/2^t +
// c/(D 2^t) with mid odd of m + 2 bits, c = ±1 and D much wider than the precision.
// Rounding the quotient only once gives another result under nearest-even.
mpq_class OperandGenerator::first_rounding_midpoint() {
    const long m = fmt_.m;
    const mpz_class mid = random_odd(static_cast<unsigned long>(m + 2));
    // 2^(m + 1 - t) is the midpoint's binade, kept in the normal range.
    const unsigned long t =
        static_cast<unsigned long>(m + 3 + uniform(0, std::min(bias_, 23L) - 3));
    const long c = coin() ? 1 : -1;
    mpz_class d;
    mpz_invert(d.get_mpz_t(), mid.get_mpz_t(), pow2(t).get_mpz_t());
    d = -c * d;
    mpz_fdiv_r_2exp(d.get_mpz_t(), d.get_mpz_t(), t);
    d += random_bits(static_cast<unsigned long>(m + 20)) * pow2(t); // mid * d = -c (mod 2^t)
    mpq_class q(mpz_class((mid * d + c) >> t), d);
    q.canonicalize();
    return coin() ? mpq_class(-q) : q;
}

// Numerators and denominators whose widths sit at the limits of one and two machine
// words and of the precision, where conversions choose between word and big
// quotients and between one rounding and two; factors of two only scale the value.
mpq_class OperandGenerator::word_width_rational() {
    const long m = fmt_.m;
    const long widths[] = {1,  2,  31, m,  m + 1, m + 2, m + 9, m + 10,
                           62, 63, 64, 65, 125,   126,   128,   129};
    const unsigned long twos[] = {0, 1, 70, 300};
    mpz_class n = random_odd(static_cast<unsigned long>(std::max(1L, widths[uniform(0, 15)])));
    mpz_class d = random_odd(static_cast<unsigned long>(std::max(1L, widths[uniform(0, 15)])));
    n <<= twos[uniform(0, 3)];
    d <<= twos[uniform(0, 3)];
    mpq_class q(n, d);
    q.canonicalize();
    return coin() ? mpq_class(-q) : q;
}

mpq_class OperandGenerator::rational() {
    const long m = fmt_.m;
    switch (uniform(0, 9)) {
    case 8:
        if (bias_ > 3) return first_rounding_midpoint();
        return integer_rational();
    case 9:
        return word_width_rational();
    case 0:
        return integer_rational();
    case 7: {
        // A numerator a few bits wider than the precision over a small odd
        // denominator: the first of two roundings keeps only those few extra bits and
        // so often leaves an exact tie for the second.
        mpz_class n = random_odd(static_cast<unsigned long>(m + uniform(1, 2)));
        mpq_class q(n, random_odd(static_cast<unsigned long>(uniform(2, 7))));
        q.canonicalize();
        return coin() ? mpq_class(-q) : q;
    }
    case 1: {
        mpz_class d = uniform(1, 1000);
        mpq_class q(mpz_class(uniform(1, 1000)), d);
        q.canonicalize();
        return coin() ? mpq_class(-q) : q;
    }
    case 2:
    case 3: {
        // Numerators and denominators on both sides of the precision, so that the
        // conversion's intermediate format is sometimes wider than the target.
        mpz_class n = random_bits(static_cast<unsigned long>(uniform(1, 2 * m + 10))) + 1;
        mpz_class d = random_bits(static_cast<unsigned long>(uniform(1, 2 * m + 10))) + 1;
        mpq_class q(n, d);
        q.canonicalize();
        return coin() ? mpq_class(-q) : q;
    }
    case 4:
    case 5:
        return near_tie_rational();
    default:
        return extreme_rational();
    }
}

mpz_class OperandGenerator::related(const mpz_class& a) {
    switch (uniform(0, 4)) {
    case 0:
        return a;
    case 1:
        return negate(a); // the two zeros among them
    case 2:
        return step(a, coin() ? 1 : -1);
    default:
        return operand();
    }
}

namespace {

/// d / 10^t written positionally with t digits after the point (d >= 0).
std::string with_point(const mpz_class& d, unsigned long t) {
    std::string digits = d.get_str();
    if (digits.size() <= t) digits.insert(0, t + 1 - digits.size(), '0');
    digits.insert(digits.size() - t, ".");
    return digits;
}

} // namespace

std::string OperandGenerator::numeral() {
    const bool negative = coin();
    std::string text = negative ? "-" : "";
    switch (uniform(0, 3)) {
    case 0: {
        // The midpoint between a finite value and its successor written with every
        // digit, or one unit of the last digit either side: a reader that does not
        // carry the whole numeral goes wrong there.
        const mpz_class top = max_pattern(fmt_, false);
        mpz_class bits = one_in(4) ? mpz_class(uniform(0, 3)) : random_bits(fmt_.width() - 1);
        if (bits >= top) bits = top - uniform(1, 3);
        if (bits < 0) bits = 0;
        const mpq_class mid = (to_rational(fmt_, bits) + to_rational(fmt_, bits + 1)) / 2;
        const unsigned long t = mpz_scan1(mid.get_den_mpz_t(), 0);
        mpz_class digits; // mid = num / 2^t = num * 5^t / 10^t
        mpz_ui_pow_ui(digits.get_mpz_t(), 5, t);
        digits = digits * mid.get_num() + uniform(-1, 1);
        return text + with_point(digits, t) + (one_in(4) ? "000e0" : "");
    }
    case 1: {
        // Both sides of the thresholds decided from the exponent alone: around
        // overflow and around half the smallest subnormal.
        const long over2 = bias_ + 1, under2 = bias_ + static_cast<long>(fmt_.m) + 1;
        const long k = uniform(-6, 6);
        static const char* const leads[] = {"1e", "9.99e", "0x1p", "0x1.fffp"};
        const int lead = static_cast<int>(uniform(0, 3));
        const long centre = coin() ? over2 : -under2;
        return text + leads[lead] +
               std::to_string((lead < 2 ? centre * 30103 / 100000 : centre) + k);
    }
    default: {
        // Decimal or hexadecimal, up to a few hundred digits, with or without a point
        // and an exponent, aimed a little beyond the normal and subnormal range.
        const bool hex = one_in(4);
        const long roll = uniform(0, 99);
        const long length = roll < 70   ? uniform(1, 20)
                            : roll < 95 ? uniform(21, 60)
                                        : uniform(61, 400);
        std::string digits;
        for (long i = 0; i < length; ++i)
            digits += "0123456789abcdef"[uniform(i == 0 ? 1 : 0, hex ? 15 : 9)];
        const long point = uniform(-1, length); // -1: no point
        const long target2 = uniform(-bias_ - static_cast<long>(fmt_.m) - 8, bias_ + 8);
        const long whole = point < 0 ? length : point;
        if (hex) text += "0x";
        text += point < 0 ? digits : digits.substr(0, point) + "." + digits.substr(point);
        const long exponent = hex ? target2 - 4 * whole : target2 * 3 / 10 - whole; // 2^10 ~ 10^3
        if (exponent != 0 || coin())
            text += (hex      ? "p"
                     : coin() ? "e"
                              : "E") +
                    std::string(exponent >= 0 && coin() ? "+" : "") + std::to_string(exponent);
        return text;
    }
    }
}

} // namespace oracle
