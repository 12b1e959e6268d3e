#include "tests/oracle/operands.h"

#include <algorithm>
#include <string>
#include <vector>

namespace oracle {

namespace {

// Exact rationals with exponents beyond this many bits cost more than they test.
constexpr long max_rational_exponent = 20000;

mpz_class negate(Format fmt, mpz_class bits) {
    mpz_combit(bits.get_mpz_t(), fmt.e + fmt.m);
    return bits;
}

// Moves the magnitude by `ulps` patterns, staying within the finite values.
mpz_class step(Format fmt, const mpz_class& bits, long ulps) {
    mpz_class magnitude = bits;
    mpz_clrbit(magnitude.get_mpz_t(), fmt.e + fmt.m);
    magnitude += ulps;
    magnitude = std::clamp(magnitude, mpz_class(0), max_pattern(fmt, false));
    if (sign_of(fmt, bits)) mpz_setbit(magnitude.get_mpz_t(), fmt.e + fmt.m);
    return magnitude;
}

} // namespace

OperandGenerator::OperandGenerator(Format fmt, std::uint64_t seed)
    : fmt_(fmt), rng_(seed), bias_(fmt.bias()), min_exponent_(1 - bias_ - long(fmt.m)) {}

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

mpq_class OperandGenerator::random_sign(mpq_class q) {
    q.canonicalize();
    return coin() ? mpq_class(-q) : q;
}

// Mantissa fields with structure (0, 1, all ones, lone top bit) turn up often, since
// carries and borrows through them are where alignment and rounding code breaks.
mpz_class OperandGenerator::random_mantissa() {
    if (fmt_.m == 0) return 0;
    const long roll = uniform(0, 7);
    if (roll < 2) return roll;
    if (roll == 2) return pow2(fmt_.m) - 1;
    if (roll == 3) return pow2(fmt_.m - 1);
    if (roll == 4) return pow2(fmt_.m) - 1 - random_bits(std::min(4u, fmt_.m));
    return random_bits(fmt_.m);
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

// Rounded toward zero so that out-of-range requests land on the largest finite value
// or on zero rather than becoming infinite.
mpz_class OperandGenerator::value(bool negative, const mpz_class& sig, long exp2) {
    if (sig == 0) return make_pattern(fmt_, negative, 0, 0);
    // Beyond these bounds the result is the largest finite value or zero anyway.
    exp2 = std::clamp(exp2, min_exponent_ - long(bit_length(sig)) - 2, bias_ + 1);
    const mpq_class q = times_pow2(mpq_class(sig), exp2);
    return from_rational(negative ? mpq_class(-q) : q, fmt_, TOWARD_ZERO);
}

mpz_class OperandGenerator::random_value(bool negative, long leading_exponent) {
    return scaled(negative, random_significand(), leading_exponent);
}

mpz_class OperandGenerator::scaled(bool negative, const mpz_class& sig, long leading_exponent) {
    return value(negative, sig, leading_exponent - long(std::max(1UL, bit_length(sig))) + 1);
}

mpz_class OperandGenerator::special() {
    const bool negative = coin();
    const long roll = uniform(0, 6);
    if (roll == 0) return make_pattern(fmt_, negative, 0, 0);
    if (roll == 1) return min_pattern(fmt_, negative);
    if (roll == 2) return make_pattern(fmt_, negative, 0, pow2(fmt_.m) - 1);
    if (roll == 3) return make_pattern(fmt_, negative, 1, 0);
    if (roll == 4) return max_pattern(fmt_, negative);
    if (roll == 5) return inf_pattern(fmt_, negative);
    mpz_class payload = random_mantissa();
    if (payload == 0 && fmt_.m > 0) payload = 1;
    return make_pattern(fmt_, negative, pow2(fmt_.e) - 1, payload);
}

mpz_class OperandGenerator::operand() {
    const bool negative = coin();
    const long roll = uniform(0, 15);
    if (roll < 4) return special();
    if (roll == 4) {
        const long ulps = uniform(-3, 3);
        return step(fmt_, special(), ulps);
    }
    if (roll < 7) return random_value(negative, uniform(-2, 2));
    if (roll < 10) {
        const mpz_class mantissa = random_mantissa();
        return make_pattern(fmt_, negative, uniform(1, (1L << fmt_.e) - 2), mantissa);
    }
    if (roll == 10) return make_pattern(fmt_, negative, 0, random_mantissa());
    if (roll == 11) return random_value(negative, random_exponent());
    return random_bits(fmt_.width());
}

std::pair<mpz_class, mpz_class> OperandGenerator::pair(Operation op) {
    if (op == Operation::Mul) return mul_pair();
    if (op == Operation::Div) return div_pair();
    if (op == Operation::Sqrt) return {sqrt_operand(), 0};
    auto [a, b] = add_pair();
    return {a, op == Operation::Sub ? negate(fmt_, b) : b};
}

std::pair<mpz_class, mpz_class> OperandGenerator::add_pair() {
    const long m = fmt_.m;
    const bool sa = coin(), sb = coin();
    const long ea = random_exponent();
    const long roll = uniform(0, 8);
    if (roll < 2) return {operand(), operand()};
    if (roll == 2) {
        // b's leading bit sits at (or just below) a's rounding position: with b a power
        // of two this is an exact tie, with more bits in b it is just off one.
        const mpz_class b_sig = one_in(2) ? mpz_class(1) : random_significand();
        const long eb = ea - m - 1 - uniform(0, 2);
        return {random_value(sa, ea), scaled(sb, b_sig, eb)};
    }
    if (roll == 3) {
        const long gap = m + 2 + (one_in(4) ? uniform(0, 2 * bias_) : uniform(0, 2 * m + 8));
        return {random_value(sa, ea), random_value(sb, ea - gap)};
    }
    if (roll == 4) {
        // Sums at the overflow threshold: a near the largest finite value, b around
        // half its last place.
        const mpz_class a = step(fmt_, max_pattern(fmt_, sa), -uniform(0, 2));
        const mpz_class b_sig = one_in(2) ? mpz_class(1) : random_significand();
        return {a, scaled(sa, b_sig, bias_ - m - 1 + uniform(-1, 2))};
    }
    if (roll == 5) {
        // Cancellation: b is -a, or -a moved by a few patterns.
        const mpz_class a = random_value(sa, ea);
        return {a, negate(fmt_, step(fmt_, a, uniform(-3, 3)))};
    }
    if (roll == 6) {
        const long low = min_exponent_, high = 2 - bias_;
        return {random_value(sa, uniform(low, high)), random_value(sb, uniform(low, high))};
    }
    return {random_value(sa, ea), random_value(sb, ea + uniform(-2, 2))};
}

std::tuple<mpz_class, mpz_class, mpz_class> OperandGenerator::triple() {
    const long m = fmt_.m;
    const long roll = uniform(0, 7);
    if (roll < 2) return {operand(), operand(), operand()};
    if (roll == 2) {
        const mpz_class zero = make_pattern(fmt_, coin(), 0, 0);
        const mpz_class other = one_in(2)   ? inf_pattern(fmt_, coin())
                                : one_in(2) ? make_pattern(fmt_, coin(), 0, 0)
                                            : operand();
        const mpz_class c = one_in(2) ? special() : operand();
        if (coin()) return {zero, other, c};
        return {other, zero, c};
    }
    // P = p 2^k, its leading bit at `lead`; the factors share the exponent evenly so that
    // both stay in range wherever the product lands.
    const mpz_class sa = random_significand(), sb = random_significand(), p = sa * sb;
    const long lead = roll == 3   ? uniform(min_exponent_ - 2, 1 - bias_)
                      : roll == 4 ? bias_ + uniform(-1, 0)
                                  : random_normal_exponent();
    const long k = lead - long(bit_length(p)) + 1, ka = (k - uniform(-2, 2)) / 2;
    const bool na = coin(), nb = coin(), np = na != nb;
    const mpz_class a = value(na, sa, ka), b = value(nb, sb, k - ka);
    const long which = uniform(0, 3);
    if (which == 0) return {a, b, negate(fmt_, step(fmt_, value(np, p, k), uniform(-2, 2)))};
    if (which == 1 && long(bit_length(p)) >= m + 2) {
        // c = T - P for T, the product's leading m+2 bits with the last one set: a tie,
        // or one unit of the product's last bit off it. c has at most m+1 bits.
        const unsigned long drop = bit_length(p) - (m + 2);
        const mpz_class t = ((p >> drop) | 1) << drop, diff = t - p + uniform(-1, 1);
        return {a, b, value(np != (diff < 0), abs(diff), k)};
    }
    const bool nc = coin();
    if (which == 2) return {a, b, random_value(nc, lead - m - 3 - uniform(0, 2 * m + 8))};
    const long lead_c = coin() ? lead + uniform(-2, 2) : 1 - bias_ - uniform(0, m);
    return {a, b, random_value(nc, lead_c)};
}

mpz_class OperandGenerator::integral_operand() {
    const long roll = uniform(0, 5);
    const bool negative = coin();
    if (roll == 0) return operand();
    if (roll == 1) return random_value(negative, uniform(std::min(bias_, 60L), bias_));
    const unsigned long edges[] = {31, 32, 63, 64};
    const mpz_class edge = pow2(edges[uniform(0, 3)]);
    mpq_class q = roll == 2   ? mpq_class(uniform(-20, 20))
                  : roll == 3 ? mpq_class(-uniform(1, 1000), 1001)
                  : roll == 4 ? mpq_class(2 * random_bits(uniform(1, fmt_.m + 1)) + 1, 2)
                              : edge + mpq_class(uniform(-3, 3), 2);
    q.canonicalize();
    if (roll > 3 && negative) q = -q;
    const long ulps = one_in(3) ? uniform(-2, 2) : 0;
    return step(fmt_, from_rational(q, fmt_, TOWARD_ZERO), ulps);
}

mpz_class OperandGenerator::integer(unsigned width, bool is_signed) {
    const mpz_class low = is_signed ? mpz_class(-pow2(width - 1)) : 0;
    const mpz_class high = pow2(is_signed ? width - 1 : width) - 1;
    const long roll = uniform(0, 5);
    const long m = fmt_.m, room = long(width) - m - 2;
    const bool negative = coin();
    const long nudge = uniform(-2, 2);
    mpz_class v = random_bits(width) + low;
    if (roll == 0) v = nudge;
    if (roll == 1) v = (negative ? low : high) + nudge;
    if (roll == 2) v = pow2(uniform(0, width - 1)) + nudge / 2;
    if (roll == 3 && room > 0) {
        const unsigned long shift = uniform(1, room);
        v = (random_significand() << shift) + pow2(shift - 1) + nudge / 2;
    }
    if (roll > 1 && roll < 4 && is_signed && negative) v = -v;
    return std::clamp(v, low, high);
}

// Two factors whose exact product is a rounding tie. Normal range: the odd parts of
// the significands multiply to exactly m+2 bits, ending in the half-unit bit.
// Subnormal range: the odd product has at most m+1 bits and its last bit is worth
// half the smallest subnormal.
std::pair<mpz_class, mpz_class> OperandGenerator::mul_tie(bool subnormal) {
    const long m = fmt_.m;
    mpz_class oa, ob;
    for (int attempt = 0; attempt < 8; ++attempt) {
        const long ja = uniform(1, m + 1);
        const long jb =
            subnormal ? uniform(1, std::max(1L, m + 1 - ja)) : m + 2 - ja + uniform(0, 1);
        oa = random_odd(ja);
        ob = random_odd(std::clamp(jb, 1L, m + 1));
        const long product_bits = long(bit_length(mpz_class(oa * ob)));
        if (subnormal ? product_bits <= m + 1 : product_bits == m + 2) break;
    }
    // Exponents of the last bits: ka + kb fixes where the product's last bit lies.
    long product_lsb = min_exponent_ - 1;
    if (!subnormal)
        product_lsb = (one_in(6) ? uniform(bias_ - 1, bias_) : random_normal_exponent()) - (m + 1);
    const long ka = random_normal_exponent() - long(bit_length(oa)) + 1;
    const bool sa = coin(), sb = coin();
    return {value(sa, oa, ka), value(sb, ob, product_lsb - ka)};
}

std::pair<mpz_class, mpz_class> OperandGenerator::mul_pair() {
    const bool sa = coin(), sb = coin();
    const long roll = uniform(0, 8);
    if (roll < 2) return {operand(), operand()};
    if (roll < 4 || roll == 5) return mul_tie(roll == 5);
    if (roll == 4) {
        auto [a, b] = mul_tie(false);
        return {step(fmt_, a, coin() ? 1 : -1), b};
    }
    if (roll == 8) return {special(), operand()};
    // Products whose leading bit lands in or just below the subnormal range, or at the
    // overflow edge.
    const long product =
        roll == 6 ? 1 - bias_ - uniform(0, long(fmt_.m) + 3) : bias_ + uniform(-1, 0);
    const long ea = random_normal_exponent();
    return {random_value(sa, ea), random_value(sb, product - ea)};
}

// A quotient cannot be an exact tie in the normal range, but it can be arbitrarily
// close to one: a ≈ t·b for a tie t of m+2 bits.
std::pair<mpz_class, mpz_class> OperandGenerator::div_near_tie() {
    const long m = fmt_.m;
    const mpz_class tie = random_odd(m + 2);
    const mpz_class b_sig = random_significand();
    mpz_class a_sig = tie * b_sig;
    // Keep the m+1 leading bits of t·b, rounded to nearest.
    const unsigned long drop = bit_length(a_sig) - (m + 1);
    a_sig += pow2(drop - 1);
    mpz_fdiv_q_2exp(a_sig.get_mpz_t(), a_sig.get_mpz_t(), drop);
    const long quotient = one_in(5)   ? uniform(min_exponent_, 1 - bias_ + 1)
                          : one_in(5) ? uniform(bias_ - 1, bias_)
                                      : random_normal_exponent();
    const long eb = random_normal_exponent();
    const bool sa = coin(), sb = coin();
    return {scaled(sa, a_sig, eb + quotient), scaled(sb, b_sig, eb)};
}

// a / b = T × 2^(min_exponent - 1) with T odd of at most m+1 bits: an exact tie at
// subnormal precision.
std::pair<mpz_class, mpz_class> OperandGenerator::div_subnormal_tie() {
    const long m = fmt_.m;
    const long t_bits = uniform(1, m + 1);
    const mpz_class t = random_odd(t_bits);
    const mpz_class b_sig = random_odd(uniform(1, m + 2 - t_bits));
    const long kb = uniform(0, std::max(0L, bias_ - long(bit_length(b_sig))));
    const bool sa = coin(), sb = coin();
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
        const mpz_class shift_mod_b = pow2(s) % b_sig;
        if (mpz_invert(inverse.get_mpz_t(), shift_mod_b.get_mpz_t(), b_sig.get_mpz_t()) == 0)
            continue;
        const long choice = uniform(0, 2);
        const mpz_class remainder = choice == 2 ? mpz_class(b_sig - 1) : mpz_class(choice + 1);
        const mpz_class a_sig = remainder * inverse % b_sig;
        if (long(bit_length(a_sig)) != m + 1) continue;
        const long eb = random_normal_exponent();
        const long quotient = uniform(-3, 3);
        return {scaled(coin(), a_sig, eb + quotient), scaled(coin(), b_sig, eb)};
    }
    return div_near_tie();
}

std::pair<mpz_class, mpz_class> OperandGenerator::div_pair() {
    const bool sa = coin(), sb = coin();
    const long roll = uniform(0, 8);
    if (roll == 0) return {operand(), operand()};
    if (roll == 1) return div_small_remainder();
    if (roll < 4) return div_near_tie();
    if (roll == 4) return div_subnormal_tie();
    if (roll < 7) {
        // Quotients that underflow, or that overflow.
        const long eb = random_normal_exponent();
        const long quotient =
            roll == 5 ? 1 - bias_ - uniform(0, long(fmt_.m) + 3) : bias_ + uniform(-1, 0);
        return {random_value(sa, eb + quotient), random_value(sb, eb)};
    }
    if (roll == 7) {
        // Exact quotients: a = b × k for a small k.
        const mpz_class k = random_odd(uniform(1, 4));
        const mpz_class b_sig = random_significand();
        const long eb = random_normal_exponent();
        return {scaled(sa, mpz_class(b_sig * k), eb + uniform(-3, 3)), scaled(sb, b_sig, eb)};
    }
    if (coin()) return {special(), operand()};
    return {operand(), special()};
}

mpz_class OperandGenerator::sqrt_operand() {
    const long m = fmt_.m;
    const long roll = uniform(0, 6);
    if (roll < 2) return operand();
    if (roll < 4) {
        // t² for a tie t of m+2 bits, rounded to the format: its root lies next to t.
        const mpz_class tie = random_odd(m + 2);
        const long exponent = 2 * uniform(-bias_ / 2, bias_ / 2);
        return scaled(false, mpz_class(tie * tie), exponent + uniform(0, 1));
    }
    if (roll == 4) {
        const mpz_class root = random_odd(uniform(1, (m + 2) / 2));
        return scaled(false, mpz_class(root * root), 2 * uniform(-bias_ / 2, bias_ / 2));
    }
    if (roll == 5) return make_pattern(fmt_, false, 0, random_mantissa());
    return negate(fmt_, operand());
}

mpq_class OperandGenerator::integer_rational() {
    const long m = fmt_.m;
    mpz_class n;
    if (coin()) {
        n = random_bits(uniform(1, m + 12));
    } else {
        // m+2 significant bits ending in 1: a tie between two neighbours.
        n = random_odd(m + 2);
        n <<= uniform(0, 4);
    }
    return random_sign(mpq_class(n));
}

// A rational just off the midpoint of two neighbours of the format: the midpoint
// times (D ± 1)/D for a wide odd D, or the midpoint itself.
mpq_class OperandGenerator::near_tie_rational() {
    const long m = fmt_.m;
    const long leading =
        std::clamp(random_exponent(), -max_rational_exponent, max_rational_exponent);
    mpq_class q = times_pow2(mpq_class(random_odd(m + 2)), leading - (m + 1));
    const long nudge = uniform(-1, 1);
    if (nudge != 0) {
        const mpz_class d = random_odd(uniform(m + 3, 2 * m + 40));
        q *= mpq_class(d + nudge, d);
    }
    return random_sign(q);
}

// Magnitudes next to the overflow threshold, or below half the smallest subnormal.
mpq_class OperandGenerator::extreme_rational() {
    const long m = fmt_.m;
    const mpz_class odd = random_odd(uniform(1, m + 4));
    const long shift = coin() ? -std::clamp(bias_ + m + uniform(-2, 4), 0L, max_rational_exponent)
                              : std::clamp(bias_ - long(bit_length(odd)) + uniform(-1, 3), 0L,
                                           max_rational_exponent);
    mpq_class q = times_pow2(mpq_class(odd), shift);
    if (one_in(3)) q /= mpq_class(random_odd(uniform(2, 8)));
    return random_sign(q);
}

// Off a midpoint of the format by less than half a unit of the first, wider rounding
// of a fraction, which therefore lands exactly on the midpoint: N/D = mid/2^t +
// c/(D 2^t) with mid odd of m + 2 bits, c = ±1 and D much wider than the precision.
// Rounding the quotient only once gives another result under nearest-even.
mpq_class OperandGenerator::first_rounding_midpoint() {
    const long m = fmt_.m;
    const mpz_class mid = random_odd(m + 2);
    // 2^(m + 1 - t) is the midpoint's binade, kept in the normal range.
    const unsigned long t = m + 3 + uniform(0, std::min(bias_, 23L) - 3);
    const long c = coin() ? 1 : -1;
    mpz_class d;
    mpz_invert(d.get_mpz_t(), mid.get_mpz_t(), pow2(t).get_mpz_t());
    d = -c * d;
    mpz_fdiv_r_2exp(d.get_mpz_t(), d.get_mpz_t(), t);
    d += random_bits(m + 20) * pow2(t); // mid * d = -c (mod 2^t)
    return random_sign(mpq_class(mpz_class((mid * d + c) >> t), d));
}

// Numerators and denominators whose widths sit at the limits of one and two machine
// words and of the precision, where conversions choose between word and big
// quotients and between one rounding and two; factors of two only scale the value.
mpq_class OperandGenerator::word_width_rational() {
    const long m = fmt_.m;
    const long widths[] = {1,  2,  31, m,  m + 1, m + 2, m + 9, m + 10,
                           62, 63, 64, 65, 125,   126,   128,   129};
    const unsigned long twos[] = {0, 1, 70, 300};
    mpz_class n = random_odd(std::max(1L, widths[uniform(0, 15)]));
    mpz_class d = random_odd(std::max(1L, widths[uniform(0, 15)]));
    n <<= twos[uniform(0, 3)];
    d <<= twos[uniform(0, 3)];
    return random_sign(mpq_class(n, d));
}

mpq_class OperandGenerator::rational() {
    const long m = fmt_.m;
    const long roll = uniform(0, 9);
    if (roll == 8 && bias_ > 3) return first_rounding_midpoint();
    if (roll == 0 || roll == 8) return integer_rational();
    if (roll == 9) return word_width_rational();
    if (roll == 7) {
        // A numerator a few bits wider than the precision over a small odd
        // denominator: the first of two roundings keeps only those few extra bits and
        // so often leaves an exact tie for the second.
        const mpz_class n = random_odd(m + uniform(1, 2));
        return random_sign(mpq_class(n, random_odd(uniform(2, 7))));
    }
    if (roll == 1) {
        const mpz_class d = uniform(1, 1000);
        return random_sign(mpq_class(mpz_class(uniform(1, 1000)), d));
    }
    if (roll < 4) {
        // Numerators and denominators on both sides of the precision, so that the
        // conversion's intermediate format is sometimes wider than the target.
        const mpz_class n = random_bits(uniform(1, 2 * m + 10)) + 1;
        const mpz_class d = random_bits(uniform(1, 2 * m + 10)) + 1;
        return random_sign(mpq_class(n, d));
    }
    return roll < 6 ? near_tie_rational() : extreme_rational();
}

mpz_class OperandGenerator::related(const mpz_class& a) {
    const long roll = uniform(0, 4);
    if (roll == 0) return a;
    if (roll == 1) return negate(fmt_, a); // the two zeros among them
    if (roll == 2) return step(fmt_, a, coin() ? 1 : -1);
    return operand();
}

std::string OperandGenerator::numeral() {
    std::string text = coin() ? "-" : "";
    const long roll = uniform(0, 3);
    if (roll == 0) {
        // The midpoint between a finite value and its successor written with every
        // digit, or one unit of the last digit either side: a reader that does not
        // carry the whole numeral goes wrong there.
        const mpz_class top = max_pattern(fmt_, false);
        mpz_class bits = one_in(4) ? mpz_class(uniform(0, 3)) : random_bits(fmt_.width() - 1);
        if (bits >= top) bits = top - uniform(1, 3);
        if (bits < 0) bits = 0;
        const mpq_class mid = (to_rational(fmt_, bits) + to_rational(fmt_, bits + 1)) / 2;
        const unsigned long t = mpz_scan1(mid.get_den_mpz_t(), 0);
        mpz_class digits; // mid = num / 2^t = num * 5^t / 10^t, written with t decimals
        mpz_ui_pow_ui(digits.get_mpz_t(), 5, t);
        std::string d = mpz_class(digits * mid.get_num() + uniform(-1, 1)).get_str();
        if (d.size() <= t) d.insert(0, t + 1 - d.size(), '0');
        d.insert(d.size() - t, ".");
        return text + d + (one_in(4) ? "000e0" : "");
    }
    if (roll == 1) {
        // Both sides of the thresholds decided from the exponent alone: around
        // overflow and around half the smallest subnormal.
        const long over2 = bias_ + 1, under2 = bias_ + long(fmt_.m) + 1;
        const long k = uniform(-6, 6);
        static const char* const leads[] = {"1e", "9.99e", "0x1p", "0x1.fffp"};
        const long lead = uniform(0, 3);
        const long centre = coin() ? over2 : -under2;
        return text + leads[lead] +
               std::to_string((lead < 2 ? centre * 30103 / 100000 : centre) + k);
    }
    // Decimal or hexadecimal, up to a few hundred digits, with or without a point and
    // an exponent, aimed a little beyond the normal and subnormal range.
    const bool hex = one_in(4);
    const long roll_length = uniform(0, 99);
    const long length = roll_length < 70   ? uniform(1, 20)
                        : roll_length < 95 ? uniform(21, 60)
                                           : uniform(61, 400);
    std::string digits;
    for (long i = 0; i < length; ++i)
        digits += "0123456789abcdef"[uniform(i == 0 ? 1 : 0, hex ? 15 : 9)];
    const long point = uniform(-1, length); // -1: no point
    const long target2 = uniform(-bias_ - long(fmt_.m) - 8, bias_ + 8);
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

} // namespace oracle
