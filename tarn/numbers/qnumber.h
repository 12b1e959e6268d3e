// tarn::QNumber, the exact rational number the float code computes with.
//
// Almost every value the generic float path touches (exponents, significands,
// biases, packed bit patterns of narrow formats) fits a machine word, so a
// QNumber is two words: numerator and denominator inline (the small form), or
// an owning pointer to a heap pair of GMP integers and a zero tag word (the
// big form). Small-form arithmetic detects overflow before it happens and
// restarts the operation in the big form; it never allocates. The form is an
// implementation detail as far as values go: every operation gives the same
// value whatever the forms of its operands. Which form a result takes is
// nevertheless fixed (callers rely on it for speed), and each operation
// documents it.
#pragma once

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <gmp.h>
#include <gmpxx.h>
#include <ostream>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace tarn {

class BVNumber;

/// Arithmetic types whose values a long does not always hold: unsigned 64-bit
/// integers and the floating types.
template <class T>
inline constexpr bool not_a_word =
    std::is_arithmetic_v<T> &&
    !(std::is_integral_v<T> && (std::is_signed_v<T> || sizeof(T) < sizeof(long)));

/// An exact rational number in lowest terms with a positive denominator.
///
/// Small form: numerator and denominator in two signed 64-bit words, the
/// numerator never -2^63, the denominator between 1 and 2^63-1. Big form: a
/// heap pair of GMP integers owned by this object. Results of arithmetic on
/// two small operands are small unless they do not fit; arithmetic with a big
/// operand gives a big result (the one exception: a big non-integer times a
/// small 0 gives the small 0). There is no general demotion from big to small.
///
/// Division by zero (`/=`, `/`, `inv()`, `divmod`) and a zero denominator in a
/// construction throw std::domain_error. The float code never does either;
/// the check is there because a zero denominator word would otherwise read as
/// the big-form tag and turn the numerator into a wild pointer, and one
/// compare per division is cheap next to the gcd work a division does.
class QNumber {
public:
    /// Zero, in the small form.
    QNumber() noexcept : num_(0), den_(1) {}

    /// The integer n, of any integer type up to 64 bits, exactly: small when
    /// it fits a signed word other than -2^63, held big otherwise (-2^63 and
    /// unsigned values from 2^63). Implicit on purpose: integers are rationals.
    template <class I, std::enable_if_t<std::is_integral_v<I>, int> = 0>
    QNumber(I n) : num_(0), den_(1) { // NOLINT(google-explicit-constructor)
        static_assert(sizeof(I) <= sizeof(long), "integers of up to 64 bits");
        if constexpr (std::is_signed_v<I> || sizeof(I) < sizeof(long)) {
            num_ = static_cast<long>(n);
            if (num_ == LONG_MIN) become_big_from_words();
        } else if (n <= static_cast<unsigned long>(LONG_MAX)) {
            num_ = static_cast<long>(n);
        } else {
            Pair* p = take_pair();
            mpz_set_ui(p->num, n);
            mpz_set_ui(p->den, 1);
            big_ = p;
            den_ = 0;
        }
    }

    /// The exact value of a finite double (0.1 is 3602879701896397/2^55):
    /// small when numerator and denominator fit words, big otherwise. Explicit,
    /// because a decimal literal's value is rarely what the reader expects; a
    /// NaN or an infinity throws std::domain_error.
    explicit QNumber(double d) : num_(0), den_(1) {
        if (!std::isfinite(d)) throw std::domain_error("tarn::QNumber: not a finite number");
        if (d == 0) return;
        int exponent;
        // d = mantissa * 2^exponent exactly, the mantissa odd and below 2^53.
        long mantissa = static_cast<long>(std::ldexp(std::frexp(d, &exponent), 53));
        const int twos = __builtin_ctzl(magnitude(mantissa));
        mantissa /= 1L << twos;
        exponent += twos - 53;
        if (exponent < 0 ? exponent >= -62
                         : exponent <= 62 && (magnitude(mantissa) >> (63 - exponent)) == 0) {
            num_ = exponent > 0 ? mantissa * (1L << exponent) : mantissa;
            den_ = exponent < 0 ? 1L << -exponent : 1;
            return;
        }
        Pair* p = take_pair();
        mpz_set_si(p->num, mantissa);
        mpz_set_ui(p->den, 1);
        mpz_mul_2exp(exponent > 0 ? p->num : p->den, exponent > 0 ? p->num : p->den,
                     static_cast<mp_bitcnt_t>(exponent > 0 ? exponent : -exponent));
        big_ = p;
        den_ = 0;
    }
    /// The exact value of a finite float, as for a double.
    explicit QNumber(float f) : QNumber(static_cast<double>(f)) {}
    /// A long double may hold more than a double: not converted.
    QNumber(long double) = delete;

    /// n/d brought to lowest terms with a positive denominator. Held big when
    /// either word is -2^63 (its magnitude has no small form); d = 0 throws.
    QNumber(long n, long d) : num_(n), den_(d) {
        if (d == 0) throw_division_by_zero();
        if (n == LONG_MIN || d == LONG_MIN) become_big_from_words();
        normalize();
    }
    /// Parts a word would not hold exactly (unsigned 64-bit integers, floating
    /// types) do not compile: build the parts as QNumbers and divide.
    template <class N, class D, std::enable_if_t<not_a_word<N> || not_a_word<D>, int> = 0>
    QNumber(N, D) = delete;

    /// num/den brought to lowest terms. Small when both parts fit a signed
    /// 32-bit int, big otherwise (even when they would fit a word); den = 0
    /// throws.
    QNumber(mpz_class const& num, mpz_class const& den) {
        if (sgn(den) == 0) throw_division_by_zero();
        if (mpz_fits_sint_p(num.get_mpz_t()) && mpz_fits_sint_p(den.get_mpz_t())) {
            num_ = mpz_get_si(num.get_mpz_t());
            den_ = mpz_get_si(den.get_mpz_t());
        } else {
            big_ = new_pair(num.get_mpz_t(), den.get_mpz_t());
            den_ = 0;
        }
        normalize();
    }

    /// The integer z: small when it fits a word (other than -2^63), else big.
    explicit QNumber(mpz_class const& z) : num_(0), den_(1) {
        if (fits_small_word(z.get_mpz_t())) {
            num_ = mpz_get_si(z.get_mpz_t());
        } else {
            big_ = new_pair(z.get_mpz_t(), nullptr);
            den_ = 0;
        }
    }

    /// The rational q, brought to lowest terms (q need not be canonical):
    /// small when numerator and denominator fit a word, else big.
    explicit QNumber(mpq_class const& q) : num_(0), den_(1) {
        if (sgn(q.get_den()) == 0) throw_division_by_zero();
        mpz_srcptr n = q.get_num_mpz_t();
        mpz_srcptr d = q.get_den_mpz_t();
        if (fits_small_word(n) && fits_small_word(d)) {
            num_ = mpz_get_si(n);
            den_ = mpz_get_si(d);
        } else {
            big_ = new_pair(n, d);
            den_ = 0;
        }
        normalize();
    }

    /// A deep copy: a big source gets a heap pair of its own.
    QNumber(QNumber const& other) : den_(other.den_) {
        if (other.is_small())
            num_ = other.num_;
        else
            big_ = new_pair(other.big_->num, other.big_->den);
    }

    /// Takes the words, hence the heap pair, of `other`, which becomes 0.
    QNumber(QNumber&& other) noexcept : den_(other.den_) {
        if (other.is_small())
            num_ = other.num_;
        else
            big_ = other.big_;
        other.num_ = 0;
        other.den_ = 1;
    }

    /// Copies the value. A big target stays big and reuses its heap pair, so
    /// assigning into a scratch number that once grew costs no allocation.
    QNumber& operator=(QNumber const& other) {
        if (this == &other) return *this;
        if (other.is_small()) {
            if (is_small()) {
                num_ = other.num_;
                den_ = other.den_;
            } else {
                mpz_set_si(big_->num, other.num_);
                mpz_set_si(big_->den, other.den_);
            }
        } else if (is_small()) {
            big_ = new_pair(other.big_->num, other.big_->den);
            den_ = 0;
        } else {
            mpz_set(big_->num, other.big_->num);
            mpz_set(big_->den, other.big_->den);
        }
        return *this;
    }

    /// A big source hands over its heap pair by exchanging words with the
    /// target, so the moved-from object holds the target's previous value and
    /// frees no memory here. A small source is copied as by operator=, which
    /// keeps a big target big.
    QNumber& operator=(QNumber&& other) noexcept {
        if (other.is_big()) {
            Pair* const taken = other.big_;
            if (is_small()) {
                other.num_ = num_;
                other.den_ = den_;
            } else {
                other.big_ = big_;
            }
            big_ = taken;
            den_ = 0;
        } else if (is_small()) {
            num_ = other.num_;
            den_ = other.den_;
        } else {
            mpz_set_si(big_->num, other.num_);
            mpz_set_si(big_->den, other.den_);
        }
        return *this;
    }

    /// Releases the heap pair of a big value.
    ~QNumber() { release_pair(); }

    /// True when the value is held inline in two words.
    bool is_small() const noexcept { return den_ != 0; }
    /// True when the value is held in a heap pair of GMP integers.
    bool is_big() const noexcept { return den_ == 0; }
    /// True for the value 0 (in either form).
    bool is_zero() const noexcept { return is_small() ? num_ == 0 : mpz_sgn(big_->num) == 0; }
    /// True for a value below 0.
    bool is_negative() const noexcept { return is_small() ? num_ < 0 : mpz_sgn(big_->num) < 0; }
    /// True when the denominator is 1.
    bool is_integer() const noexcept {
        return is_small() ? den_ == 1 : mpz_cmp_ui(big_->den, 1) == 0;
    }
    /// -1, 0 or +1 by the sign of the value.
    int sign() const noexcept { return is_small() ? (num_ > 0) - (num_ < 0) : mpz_sgn(big_->num); }

    // The word forms of += -= *= and of the free operators take a long; an
    // argument a long would not hold exactly is refused at compile time
    // rather than converted to one: QNumber(x) states the exact conversion.
    template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
    QNumber& operator+=(T) = delete;
    template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
    QNumber& operator-=(T) = delete;
    template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
    QNumber& operator*=(T) = delete;

    /// this + other, exact.
    QNumber& operator+=(QNumber const& other) { return add_sub<false>(other); }
    /// this + n; -2^63 counts as a big operand, so it gives a big result.
    QNumber& operator+=(long n) { return add_sub_long<false>(n); }
    /// this - other, exact.
    QNumber& operator-=(QNumber const& other) { return add_sub<true>(other); }
    /// this - n; -2^63 counts as a big operand.
    QNumber& operator-=(long n) { return add_sub_long<true>(n); }

    /// this × other, exact.
    QNumber& operator*=(QNumber const& other) {
        if (other.is_small()) return mul_words(other.num_, other.den_);
        mul_by_big(other);
        return *this;
    }

    /// this × n; -2^63 counts as a big operand.
    QNumber& operator*=(long n) {
        if (n == LONG_MIN) return *this *= QNumber(n);
        return mul_words(n, 1);
    }

    /// this × (1/other); other = 0 throws. A small divisor's reciprocal is
    /// formed in words, so small / small never builds a temporary.
    QNumber& operator/=(QNumber const& other) {
        if (other.is_zero()) throw_division_by_zero();
        if (other.is_small()) {
            long const c = other.num_;
            long const d = other.den_;
            return mul_words(c < 0 ? -d : d, c < 0 ? -c : c);
        }
        div_by_big(other);
        return *this;
    }

    /// Negates in place.
    void self_neg() noexcept {
        // A small numerator is never -2^63, so its negation always fits.
        if (is_small())
            num_ = -num_;
        else
            mpz_neg(big_->num, big_->num);
    }

    /// The reciprocal 1/this; 0 throws. Small for a small value, big
    /// for a big one.
    QNumber inv() const {
        if (is_zero()) throw_division_by_zero();
        if (is_small()) return QNumber(den_, num_);
        QNumber r = make_big();
        mpz_set(r.big_->num, big_->den);
        mpz_set(r.big_->den, big_->num);
        // Both parts are already coprime: only the sign may need moving.
        if (mpz_sgn(r.big_->den) < 0) {
            mpz_neg(r.big_->num, r.big_->num);
            mpz_neg(r.big_->den, r.big_->den);
        }
        return r;
    }

    /// The greatest integer not above this, in the form of this.
    QNumber floor() const {
        if (is_small()) {
            // With a denominator above 1 the value in lowest terms is never an
            // exact quotient, so a negative one always rounds one further down.
            if (den_ == 1) return *this;
            return QNumber(num_ / den_ - (num_ < 0 ? 1 : 0));
        }
        QNumber r = make_big();
        if (mpz_cmp_ui(big_->den, 1) == 0)
            mpz_set(r.big_->num, big_->num);
        else
            mpz_fdiv_q(r.big_->num, big_->num, big_->den);
        return r;
    }

    /// Integer division of this by d, both integers (only the numerators are
    /// read), d = 0 throws: q = floor(this/d) and r = this - q×d, so r is 0 or has
    /// the sign of d. With two small operands q and r receive the results in
    /// place (a big q or r stays big); otherwise both become big integers.
    /// q and r must be distinct objects; either may be this or d.
    void divmod(QNumber const& d, QNumber& q, QNumber& r) const {
        if (d.is_zero()) throw_division_by_zero();
        if (is_small() && d.is_small()) {
            long const a = num_;
            long const b = d.num_;
            // a is never -2^63, so the word division cannot overflow.
            long quot = a / b;
            long rem = a % b;
            if (rem != 0 && ((rem < 0) != (b < 0))) {
                quot -= 1;
                rem += b;
            }
            q.assign_long(quot);
            r.assign_long(rem);
            return;
        }
        divmod_big(d, q, r);
    }

    /// The numerator as an integer QNumber. From a big value it is small when
    /// it fits a signed 32-bit int.
    QNumber get_num() const {
        if (is_small()) return QNumber(num_);
        return integer_from(big_->num);
    }

    /// The (positive) denominator as an integer QNumber, formed as get_num().
    QNumber get_den() const {
        if (is_small()) return QNumber(den_);
        return integer_from(big_->den);
    }

    /// Restores lowest terms and a positive denominator after the parts were
    /// set directly. Never changes the form.
    void normalize() {
        if (is_small())
            normalize_small();
        else
            normalize_big();
    }

    /// The value as a GMP rational.
    mpq_class to_mpq() const {
        mpq_class q;
        if (is_small()) {
            mpz_set_si(q.get_num_mpz_t(), num_);
            mpz_set_si(q.get_den_mpz_t(), den_);
        } else {
            mpz_set(q.get_num_mpz_t(), big_->num);
            mpz_set(q.get_den_mpz_t(), big_->den);
        }
        return q;
    }

    /// The value rounded toward minus infinity, as a GMP integer (the value
    /// itself for an integer).
    mpz_class to_mpz() const {
        mpz_class z;
        if (is_small())
            mpz_set_si(z.get_mpz_t(), den_ == 1 ? num_ : num_ / den_ - (num_ < 0 ? 1 : 0));
        else
            mpz_fdiv_q(z.get_mpz_t(), big_->num, big_->den);
        return z;
    }

    /// A hash of the value: equal values hash equally whatever their forms,
    /// because numerator and denominator are hashed through their 64-bit
    /// magnitude chunks and signs, which do not depend on the form. The same
    /// on every run and platform with 64-bit size_t.
    std::size_t hash() const noexcept;
    /// hash() of the non-negative integer `word`, computed without building a
    /// QNumber: a type that holds a number either as a machine word or as a
    /// QNumber integer (as IEEEFloat does) hashes both holdings alike with it.
    static std::size_t hash_of_word(std::uint64_t word) noexcept;
    /// The mixing step hash() is built from, for types that combine a
    /// QNumber's hash with further fields.
    static std::size_t hash_combine(std::size_t seed, std::uint64_t chunk) noexcept;

    friend bool operator==(QNumber const& a, QNumber const& b) noexcept;
    friend bool operator<(QNumber const& a, QNumber const& b);
    friend bool operator<(QNumber const& a, long n);
    friend std::ostream& operator<<(std::ostream& os, QNumber const& q);
    friend class BVNumber;

private:
    /// The big form's heap pair: numerator first, denominator second.
    struct Pair {
        mpz_t num;
        mpz_t den;
    };

    /// A GMP integer that lives for one big-form operation.
    class Scratch {
    public:
        Scratch() { mpz_init(z_); }
        ~Scratch() { mpz_clear(z_); }
        Scratch(Scratch const&) = delete;
        Scratch& operator=(Scratch const&) = delete;
        operator mpz_ptr() noexcept { return z_; }

    private:
        mpz_t z_;
    };

    /// A read-only GMP integer viewing one word, built without allocating:
    /// how a small operand takes part in a GMP call.
    class WordView {
    public:
        WordView() noexcept = default;
        WordView(WordView const&) = delete;
        WordView& operator=(WordView const&) = delete;

        /// Views v; valid until the next call or the end of this view.
        mpz_srcptr of(long v) noexcept {
            limb_ = magnitude(v);
            return mpz_roinit_n(z_, &limb_, v < 0 ? -1 : 1);
        }

    private:
        mp_limb_t limb_ = 0;
        mpz_t z_;
    };

    // ---- hashing ------------------------------------------------------------

    /// The start of an integer's hash: its sign.
    static std::size_t hash_seed(int sign) noexcept {
        return hash_combine(0, static_cast<std::uint64_t>(static_cast<long>(sign)));
    }
    /// The hash of a word integer, as hash_big_integer would give for it.
    static std::size_t hash_word_integer(long v) noexcept {
        const std::size_t seed = hash_seed((v > 0) - (v < 0));
        return v == 0 ? seed : hash_combine(seed, magnitude(v));
    }
    /// The hash of a GMP integer: its sign, then its magnitude in 64-bit
    /// chunks from the lowest, so a magnitude below 2^64 is one chunk as in
    /// hash_word_integer.
    static std::size_t hash_big_integer(mpz_srcptr z) noexcept;

    union {
        long num_;  ///< small form: the numerator
        Pair* big_; ///< big form: the owned heap pair
    };
    long den_; ///< small form: the denominator (>= 1); big form: 0

    // ---- word helpers -------------------------------------------------------

    [[noreturn]] static void throw_division_by_zero() {
        throw std::domain_error("tarn::QNumber: division by zero");
    }

    static unsigned long magnitude(long x) noexcept {
        return x < 0 ? 0UL - static_cast<unsigned long>(x) : static_cast<unsigned long>(x);
    }

    /// gcd of two words, gcd(0, x) = x. Binary gcd on trailing-zero counts:
    /// the same result as Euclid's algorithm without a division per step. The
    /// trailing zeros of v - u are those of |v - u|, so the count does not wait
    /// for the comparison, which keeps the loop's dependency chain short.
    static unsigned long gcd_words(unsigned long u, unsigned long v) noexcept {
        if (u == 0) return v;
        if (v == 0) return u;
        // An integer operand of a fraction operation brings a 1 here, which
        // the loop would take one step per bit to reduce.
        if (u == 1 || v == 1) return 1;
        int const shift = __builtin_ctzl(u | v);
        u >>= __builtin_ctzl(u);
        v >>= __builtin_ctzl(v);
        while (u != v) {
            unsigned long const diff = v - u;
            unsigned long const distance = v > u ? diff : u - v;
            u = v < u ? v : u;
            v = distance >> __builtin_ctzl(diff);
        }
        return u << shift;
    }

    // The overflow checks run before the word result is kept, so small words
    // never wrap. A product "overflows" when its magnitude exceeds 2^63-1 and
    // a sum or difference when it leaves [-(2^63-1), 2^63-1]: -2^63 counts as
    // overflow because it has no small form. The compiler's checked
    // arithmetic gives exactly these verdicts without a division.

    static bool mul_fits(long x, long y, long* out) noexcept {
        return !__builtin_mul_overflow(x, y, out) && *out != LONG_MIN;
    }
    static bool add_fits(long x, long y, long* out) noexcept {
        return !__builtin_add_overflow(x, y, out) && *out != LONG_MIN;
    }
    static bool sub_fits(long x, long y, long* out) noexcept {
        return !__builtin_sub_overflow(x, y, out) && *out != LONG_MIN;
    }
    template <bool Sub>
    static bool add_sub_fits(long x, long y, long* out) noexcept {
        return Sub ? sub_fits(x, y, out) : add_fits(x, y, out);
    }

    static bool fits_small_word(mpz_srcptr z) noexcept {
        return mpz_fits_slong_p(z) && mpz_cmp_si(z, LONG_MIN) != 0;
    }

    // ---- heap pairs ---------------------------------------------------------

    /// Heap pairs released by this thread, kept with their integers
    /// initialised for the next value that enters the big form. A copy of a
    /// two-word packed pattern would otherwise cost three allocations (the
    /// pair and the limbs of both integers) and three releases, more than the
    /// arithmetic on it; from the cache it costs two limb copies. Only a few
    /// pairs with short limb arrays are kept, so the cache never holds much
    /// memory, and it is emptied when the thread ends.
    ///
    /// Trivially constructible and destructible, so every thread's instance
    /// starts zeroed without an initialisation guard and stays readable while
    /// other thread-local and static objects are destroyed; `PairCacheDrain`
    /// empties it at thread exit and marks it closed, after which released
    /// pairs are freed at once.
    struct PairCache {
        static constexpr int capacity = 16;
        /// Integers with more limbs than this are not worth keeping.
        static constexpr int max_limbs = 8;

        Pair* pairs[capacity];
        int count;
        bool drain_registered;
        bool closed;

        static PairCache& local() noexcept {
            thread_local PairCache cache;
            return cache;
        }
    };

    /// Frees the calling thread's cached pairs when the thread ends.
    struct PairCacheDrain {
        PairCacheDrain() = default;
        PairCacheDrain(PairCacheDrain const&) = delete;
        PairCacheDrain& operator=(PairCacheDrain const&) = delete;
        ~PairCacheDrain() {
            PairCache& cache = PairCache::local();
            cache.closed = true;
            while (cache.count > 0)
                free_pair(cache.pairs[--cache.count]);
        }
    };

    static void free_pair(Pair* p) noexcept {
        mpz_clear(p->num);
        mpz_clear(p->den);
        delete p;
    }

    /// A heap pair with both integers initialised to unspecified values.
    static Pair* take_pair() {
        PairCache& cache = PairCache::local();
        if (cache.count > 0) return cache.pairs[--cache.count];
        Pair* p = new Pair;
        mpz_init(p->num); // allocates nothing until a value is stored
        mpz_init(p->den);
        return p;
    }

    /// Hands a pair back to this thread's cache, or frees it.
    static void give_back_pair(Pair* p) noexcept {
        PairCache& cache = PairCache::local();
        bool const short_limbs =
            p->num->_mp_alloc <= PairCache::max_limbs && p->den->_mp_alloc <= PairCache::max_limbs;
        if (!short_limbs || cache.closed || cache.count == PairCache::capacity) {
            free_pair(p);
            return;
        }
        if (!cache.drain_registered) {
            cache.drain_registered = true;
            thread_local PairCacheDrain drain;
        }
        cache.pairs[cache.count++] = p;
    }

    /// A new heap pair holding copies of num and den (den null: 1).
    static Pair* new_pair(mpz_srcptr num, mpz_srcptr den) {
        Pair* p = take_pair();
        mpz_set(p->num, num);
        if (den)
            mpz_set(p->den, den);
        else
            mpz_set_ui(p->den, 1);
        return p;
    }

    // ---- form changes -------------------------------------------------------

    /// A big-form 0/1, to be filled in by the caller.
    static QNumber make_big() {
        QNumber r;
        Pair* p = take_pair();
        mpz_set_ui(p->num, 0);
        mpz_set_ui(p->den, 1);
        r.big_ = p;
        r.den_ = 0;
        return r;
    }

    /// A big-form integer that takes over the GMP integer z (left as 0).
    static QNumber adopt_big_integer(mpz_ptr z) {
        QNumber r = make_big();
        mpz_swap(r.big_->num, z);
        return r;
    }

    /// The integer z: small when it fits a signed 32-bit int, else big.
    static QNumber integer_from(mpz_srcptr z) {
        if (mpz_fits_sint_p(z)) return QNumber(mpz_get_si(z));
        QNumber r = make_big();
        mpz_set(r.big_->num, z);
        return r;
    }

    /// Moves the small words num_/den_ (any values, -2^63 included) into a new
    /// heap pair.
    void become_big_from_words() {
        Pair* p = take_pair();
        mpz_set_si(p->num, num_);
        mpz_set_si(p->den, den_);
        big_ = p;
        den_ = 0;
    }

    /// The same value in the big form.
    void ensure_big() {
        if (is_small()) become_big_from_words();
    }

    void release_pair() noexcept {
        if (is_big()) give_back_pair(big_);
    }

    /// *this = QNumber(v) without the temporary: a big target stays big.
    void assign_long(long v) {
        if (is_big()) {
            mpz_set_si(big_->num, v);
            mpz_set_ui(big_->den, 1);
        } else {
            num_ = v;
            den_ = 1;
            if (v == LONG_MIN) become_big_from_words();
        }
    }

    /// Turns this into a big integer in place, keeping its numerator (the
    /// denominator of an integer is 1 already; any other is dropped).
    void make_big_integer() {
        if (is_small()) {
            den_ = 1;
            become_big_from_words();
        } else {
            mpz_set_ui(big_->den, 1);
        }
    }

    // ---- normalisation ------------------------------------------------------

    void normalize_small() noexcept {
        if (num_ == 0) {
            den_ = 1;
            return;
        }
        unsigned long const g = gcd_words(magnitude(num_), magnitude(den_));
        if (g != 1) {
            num_ /= static_cast<long>(g);
            den_ /= static_cast<long>(g);
        }
        if (den_ < 0) {
            num_ = -num_;
            den_ = -den_;
        }
    }

    void normalize_big() {
        mpz_ptr n = big_->num;
        mpz_ptr d = big_->den;
        if (mpz_sgn(n) == 0) {
            mpz_set_ui(d, 1);
            return;
        }
        if (mpz_cmpabs_ui(d, 1) != 0) {
            Scratch g;
            mpz_gcd(g, n, d);
            if (mpz_cmp_ui(static_cast<mpz_ptr>(g), 1) != 0) {
                mpz_divexact(n, n, g);
                mpz_divexact(d, d, g);
            }
        }
        if (mpz_sgn(d) < 0) {
            mpz_neg(n, n);
            mpz_neg(d, d);
        }
    }

    // ---- addition and subtraction -------------------------------------------

    // The word paths are inlined into callers; the GMP paths are kept out of
    // line so that the word path needs no stack frame of its own.

    template <bool Sub>
    QNumber& add_sub(QNumber const& other) {
        if (!(is_small() && other.is_small() && add_sub_small<Sub>(other.num_, other.den_)))
            add_sub_slow<Sub>(other);
        return *this;
    }

    template <bool Sub>
    [[gnu::noinline]] void add_sub_slow(QNumber const& other) {
        if (this == &other) {
            QNumber const copy(other);
            add_sub_big<Sub>(copy);
        } else {
            add_sub_big<Sub>(other);
        }
    }

    template <bool Sub>
    QNumber& add_sub_long(long n) {
        if (n == LONG_MIN || !(is_small() && add_sub_small<Sub>(n, 1))) add_sub_long_slow<Sub>(n);
        return *this;
    }

    template <bool Sub>
    [[gnu::noinline]] void add_sub_long_slow(long n) {
        // -2^63 is a big operand; any other word joins a big this as a word.
        if (n == LONG_MIN) {
            add_sub_big<Sub>(QNumber(n));
        } else {
            ensure_big();
            add_sub_big_small<Sub>(n, 1);
        }
    }

    /// a/b ± c/d in words. Returns false, with this unchanged, when a check
    /// fails. Dividing by g = gcd(b, d) first keeps the products small and
    /// leaves only gcd(n, g) to cancel: the result is in lowest terms.
    template <bool Sub>
    bool add_sub_small(long c, long d) noexcept {
        if ((den_ | d) != 1) return add_sub_fraction<Sub>(c, d);
        long sum;
        if (!add_sub_fits<Sub>(num_, c, &sum)) return false;
        num_ = sum;
        return true;
    }

    /// The fraction half of add_sub_small, out of line: its gcd work dwarfs a
    /// call, and keeping it apart leaves the integer path without a frame.
    template <bool Sub>
    [[gnu::noinline]] bool add_sub_fraction(long c, long d) noexcept {
        long const a = num_;
        long const b = den_;
        long const g = static_cast<long>(
            gcd_words(static_cast<unsigned long>(b), static_cast<unsigned long>(d)));
        long const b1 = b / g;
        long const d1 = d / g;
        long ad;
        long cb;
        long n;
        if (!mul_fits(a, d1, &ad) || !mul_fits(c, b1, &cb) || !add_sub_fits<Sub>(ad, cb, &n))
            return false;
        long const g2 = static_cast<long>(gcd_words(magnitude(n), static_cast<unsigned long>(g)));
        long den;
        if (!mul_fits(b1, d / g2, &den)) return false;
        num_ = n / g2;
        den_ = den;
        return true;
    }

    template <bool Sub>
    void add_sub_big(QNumber const& other) {
        ensure_big();
        if (other.is_small())
            add_sub_big_small<Sub>(other.num_, other.den_);
        else
            add_sub_big_big<Sub>(other.big_->num, other.big_->den);
    }

    /// num ± c × f for a word c, without a temporary.
    template <bool Sub>
    static void add_sub_mul_word(mpz_ptr num, mpz_srcptr f, long c) {
        bool const add = (c >= 0) != Sub;
        if (add)
            mpz_addmul_ui(num, f, magnitude(c));
        else
            mpz_submul_ui(num, f, magnitude(c));
    }

    template <bool Sub>
    void add_sub_big_small(long c, long d) {
        mpz_ptr a = big_->num;
        mpz_ptr b = big_->den;
        if (d == 1 && mpz_cmp_ui(b, 1) == 0) {
            bool const add = (c >= 0) != Sub;
            if (add)
                mpz_add_ui(a, a, magnitude(c));
            else
                mpz_sub_ui(a, a, magnitude(c));
            return;
        }
        unsigned long const g = mpz_gcd_ui(nullptr, b, static_cast<unsigned long>(d));
        if (g != 1) mpz_divexact_ui(b, b, g);
        mpz_mul_si(a, a, d / static_cast<long>(g));
        add_sub_mul_word<Sub>(a, b, c);
        unsigned long const g2 = g == 1 ? 1 : mpz_gcd_ui(nullptr, a, g);
        if (g2 != 1) mpz_divexact_ui(a, a, g2);
        mpz_mul_si(b, b, d / static_cast<long>(g2));
    }

    template <bool Sub>
    void add_sub_big_big(mpz_srcptr c, mpz_srcptr d) {
        mpz_ptr a = big_->num;
        mpz_ptr b = big_->den;
        if (mpz_cmp_ui(b, 1) == 0 && mpz_cmp_ui(d, 1) == 0) {
            if (Sub)
                mpz_sub(a, a, c);
            else
                mpz_add(a, a, c);
            return;
        }
        Scratch g;
        Scratch t;
        mpz_gcd(g, b, d);
        mpz_divexact(b, b, g); // b' = b/g
        mpz_divexact(t, d, g); // d' = d/g
        mpz_mul(a, a, t);
        if (Sub)
            mpz_submul(a, c, b);
        else
            mpz_addmul(a, c, b);
        mpz_gcd(t, a, g); // g2; gcd(0, g) = g
        mpz_divexact(a, a, t);
        mpz_divexact(g, d, t);
        mpz_mul(b, b, g);
    }

    // ---- multiplication -----------------------------------------------------

    /// this × c/d for a small operand (c/d in lowest terms, d > 0).
    QNumber& mul_words(long c, long d) {
        if (!(is_small() && mul_small(c, d))) mul_words_slow(c, d);
        return *this;
    }

    [[gnu::noinline]] void mul_words_slow(long c, long d) {
        ensure_big();
        mul_big_small(c, d);
    }

    [[gnu::noinline]] void div_by_big(QNumber const& other) {
        QNumber const reciprocal = other.inv(); // a copy, so other may be this
        mul_big(reciprocal);
    }

    [[gnu::noinline]] void mul_by_big(QNumber const& other) {
        if (this == &other) {
            QNumber const copy(other);
            mul_big(copy);
        } else {
            mul_big(other);
        }
    }

    /// a/b × c/d in words; false, with this unchanged, when a check fails.
    /// Cancelling across (a with d, c with b) keeps the result in lowest terms.
    bool mul_small(long c, long d) noexcept {
        if ((den_ | d) != 1) return mul_fraction(c, d);
        long product;
        if (!mul_fits(num_, c, &product)) return false;
        num_ = product; // a zero factor never overflows
        return true;
    }

    /// The fraction half of mul_small, out of line like add_sub_fraction.
    [[gnu::noinline]] bool mul_fraction(long c, long d) noexcept {
        long const a = num_;
        long const b = den_;
        long const g1 = static_cast<long>(gcd_words(magnitude(a), static_cast<unsigned long>(d)));
        long const g2 = static_cast<long>(gcd_words(magnitude(c), static_cast<unsigned long>(b)));
        long n;
        long den;
        if (!mul_fits(a / g1, c / g2, &n) || !mul_fits(b / g2, d / g1, &den)) return false;
        num_ = n;
        den_ = den;
        return true;
    }

    /// this × other for a big other that is not this object.
    QNumber& mul_big(QNumber const& other) {
        ensure_big();
        mpz_ptr a = big_->num;
        mpz_ptr b = big_->den;
        mpz_srcptr c = other.big_->num;
        mpz_srcptr d = other.big_->den;
        if (mpz_cmp_ui(b, 1) == 0 && mpz_cmp_ui(d, 1) == 0) {
            mpz_mul(a, a, c);
            return *this;
        }
        Scratch g1;
        Scratch g2;
        mpz_gcd(g1, a, d);
        mpz_gcd(g2, c, b);
        mpz_divexact(a, a, g1);
        mpz_divexact(b, b, g2);
        mpz_divexact(g2, c, g2); // c/g2
        mpz_divexact(g1, d, g1); // d/g1
        mpz_mul(a, a, g2);
        mpz_mul(b, b, g1);
        return *this;
    }

    void mul_big_small(long c, long d) {
        mpz_ptr a = big_->num;
        mpz_ptr b = big_->den;
        if (d == 1 && mpz_cmp_ui(b, 1) == 0) {
            mpz_mul_si(a, a, c); // may leave a big zero
            return;
        }
        if (c == 0) {
            release_pair();
            num_ = 0;
            den_ = 1;
            return;
        }
        unsigned long const g1 = mpz_gcd_ui(nullptr, a, static_cast<unsigned long>(d));
        unsigned long const g2 = mpz_gcd_ui(nullptr, b, magnitude(c));
        if (g1 != 1) mpz_divexact_ui(a, a, g1);
        mpz_mul_si(a, a, c / static_cast<long>(g2));
        if (g2 != 1) mpz_divexact_ui(b, b, g2);
        mpz_mul_si(b, b, d / static_cast<long>(g1));
    }

    // ---- integer division ---------------------------------------------------

    void divmod_big(QNumber const& d, QNumber& q, QNumber& r) const {
        // Read both numerators before q or r (which may alias them) change;
        // a view holds its own copy of a small word.
        WordView a_word;
        WordView d_word;
        mpz_srcptr const a = numerator_in(a_word);
        mpz_srcptr const b = d.numerator_in(d_word);
        // When q or r is this or d and big, its numerator is read in place by
        // GMP, which allows outputs to alias inputs.
        q.make_big_integer();
        r.make_big_integer();
        mpz_fdiv_qr(q.big_->num, r.big_->num, a, b);
    }

    /// The numerator as a GMP integer: a big value's own, or a view of the
    /// small numerator.
    mpz_srcptr numerator_in(WordView& view) const { return is_big() ? big_->num : view.of(num_); }

    /// The denominator as a GMP integer, read like numerator_in().
    mpz_srcptr denominator_in(WordView& view) const { return is_big() ? big_->den : view.of(den_); }
};

// ---- comparison -------------------------------------------------------------

/// Equal values. Both forms keep lowest terms with a positive denominator, so
/// this compares the parts.
inline bool operator==(QNumber const& a, QNumber const& b) noexcept {
    if (a.is_small() && b.is_small()) return a.num_ == b.num_ && a.den_ == b.den_;
    if (a.is_small())
        return mpz_cmp_si(b.big_->num, a.num_) == 0 && mpz_cmp_si(b.big_->den, a.den_) == 0;
    if (b.is_small())
        return mpz_cmp_si(a.big_->num, b.num_) == 0 && mpz_cmp_si(a.big_->den, b.den_) == 0;
    return mpz_cmp(a.big_->num, b.big_->num) == 0 && mpz_cmp(a.big_->den, b.big_->den) == 0;
}

/// a < b. Two small fractions are cross-multiplied in 128 bits, which is
/// exact (denominators are positive), instead of first cancelling gcds; with
/// a big operand, different signs settle the order before any GMP work.
inline bool operator<(QNumber const& a, QNumber const& b) {
    if (a.is_small() && b.is_small()) {
        if ((a.den_ | b.den_) == 1) return a.num_ < b.num_;
        __extension__ using wide = __int128;
        return static_cast<wide>(a.num_) * b.den_ < static_cast<wide>(b.num_) * a.den_;
    }
    int const sa = a.sign();
    int const sb = b.sign();
    if (sa != sb) return sa < sb;
    if (sa == 0) return false;
    QNumber::WordView an, ad, bn, bd;
    mpz_srcptr const a_num = a.numerator_in(an);
    mpz_srcptr const a_den = a.denominator_in(ad);
    mpz_srcptr const b_num = b.numerator_in(bn);
    mpz_srcptr const b_den = b.denominator_in(bd);
    if (mpz_cmp_ui(a_den, 1) == 0 && mpz_cmp_ui(b_den, 1) == 0) return mpz_cmp(a_num, b_num) < 0;
    QNumber::Scratch lhs, rhs;
    mpz_mul(lhs, a_num, b_den);
    mpz_mul(rhs, b_num, a_den);
    return mpz_cmp(lhs, rhs) < 0;
}

/// a < n, without making n a QNumber.
inline bool operator<(QNumber const& a, long n) {
    if (a.is_small()) {
        if (a.den_ == 1) return a.num_ < n;
        __extension__ using wide = __int128;
        return a.num_ < static_cast<wide>(n) * a.den_;
    }
    if (mpz_cmp_ui(a.big_->den, 1) == 0) return mpz_cmp_si(a.big_->num, n) < 0;
    QNumber::Scratch rhs;
    mpz_mul_si(rhs, a.big_->den, n);
    return mpz_cmp(a.big_->num, rhs) < 0;
}

/// -1 if a < b, 0 if a == b, +1 otherwise.
inline int cmp(QNumber const& a, QNumber const& b) {
    if (a < b) return -1;
    return a == b ? 0 : 1;
}

/// Not equal.
inline bool operator!=(QNumber const& a, QNumber const& b) noexcept {
    return !(a == b);
}
/// Greater than.
inline bool operator>(QNumber const& a, QNumber const& b) {
    return b < a;
}
/// Less than or equal.
inline bool operator<=(QNumber const& a, QNumber const& b) {
    return !(b < a);
}
/// Greater than or equal.
inline bool operator>=(QNumber const& a, QNumber const& b) {
    return !(a < b);
}

// ---- free arithmetic ----------------------------------------------------------

/// a + b.
inline QNumber operator+(QNumber const& a, QNumber const& b) {
    return QNumber(a) += b;
}
/// a + b, reusing a temporary left operand.
inline QNumber operator+(QNumber&& a, QNumber const& b) {
    return std::move(a += b);
}
/// a + n.
inline QNumber operator+(QNumber const& a, long n) {
    return QNumber(a) += n;
}
/// a - b.
inline QNumber operator-(QNumber const& a, QNumber const& b) {
    return QNumber(a) -= b;
}
/// a - b, reusing a temporary left operand.
inline QNumber operator-(QNumber&& a, QNumber const& b) {
    return std::move(a -= b);
}
/// a - n.
inline QNumber operator-(QNumber const& a, long n) {
    return QNumber(a) -= n;
}
/// a × b.
inline QNumber operator*(QNumber const& a, QNumber const& b) {
    return QNumber(a) *= b;
}
/// a × b, reusing a temporary left operand.
inline QNumber operator*(QNumber&& a, QNumber const& b) {
    return std::move(a *= b);
}
/// a × n.
inline QNumber operator*(QNumber const& a, long n) {
    return QNumber(a) *= n;
}
/// n / b; b = 0 throws.
inline QNumber operator/(long n, QNumber const& b) {
    return QNumber(n) /= b;
}
// As for the compound operators: no lossy conversion to a long operand.
template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
bool operator<(QNumber const&, T) = delete;
template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
QNumber operator+(QNumber const&, T) = delete;
template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
QNumber operator-(QNumber const&, T) = delete;
template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
QNumber operator*(QNumber const&, T) = delete;
template <class T, std::enable_if_t<not_a_word<T>, int> = 0>
QNumber operator/(T, QNumber const&) = delete;
/// a / b; b = 0 throws.
inline QNumber operator/(QNumber const& a, QNumber const& b) {
    return QNumber(a) /= b;
}
/// -a.
inline QNumber operator-(QNumber const& a) {
    QNumber r(a);
    r.self_neg();
    return r;
}

/// Writes the value in decimal: "n" for an integer, "n/d" otherwise.
inline std::ostream& operator<<(std::ostream& os, QNumber const& q) {
    if (q.is_small()) {
        os << q.num_;
        if (q.den_ != 1) os << '/' << q.den_;
    } else {
        os << static_cast<mpz_srcptr>(q.big_->num);
        if (mpz_cmp_ui(q.big_->den, 1) != 0) os << '/' << static_cast<mpz_srcptr>(q.big_->den);
    }
    return os;
}

inline std::size_t QNumber::hash_combine(std::size_t seed, std::uint64_t chunk) noexcept {
    // The seed is scaled before the chunk is added so that combining is not
    // symmetric (2/3 and 3/2 must not meet); the finaliser of splitmix64 then
    // carries every input bit to every output bit, so unordered containers
    // keyed on nearby integers (consecutive bit patterns, say) do not cluster.
    std::uint64_t x = (static_cast<std::uint64_t>(seed) + 1) * 0x9e3779b97f4a7c15ULL + chunk;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return static_cast<std::size_t>(x ^ (x >> 31));
}

inline std::size_t QNumber::hash_big_integer(mpz_srcptr z) noexcept {
    // Limbs are gathered into 64-bit chunks, so the hash does not depend on
    // the limb size GMP was built with.
    static_assert(GMP_NAIL_BITS == 0 && 64 % GMP_NUMB_BITS == 0, "limbs must tile 64 bits");
    constexpr std::size_t limbs_per_chunk = 64 / GMP_NUMB_BITS;
    std::size_t h = hash_seed(mpz_sgn(z));
    const std::size_t limbs = mpz_size(z);
    for (std::size_t i = 0; i < limbs; i += limbs_per_chunk) {
        std::uint64_t chunk = 0;
        for (std::size_t j = 0; j < limbs_per_chunk && i + j < limbs; ++j)
            chunk |= static_cast<std::uint64_t>(mpz_getlimbn(z, static_cast<mp_size_t>(i + j)))
                     << (j * GMP_NUMB_BITS);
        h = hash_combine(h, chunk);
    }
    return h;
}

inline std::size_t QNumber::hash() const noexcept {
    if (is_small()) return hash_combine(hash_word_integer(num_), hash_word_integer(den_));
    return hash_combine(hash_big_integer(big_->num), hash_big_integer(big_->den));
}

inline std::size_t QNumber::hash_of_word(std::uint64_t word) noexcept {
    const std::size_t magnitude_hash = word == 0 ? hash_seed(0) : hash_combine(hash_seed(1), word);
    return hash_combine(magnitude_hash, hash_word_integer(1));
}

} // namespace tarn

/// Hashes QNumbers by value (QNumber::hash), for unordered containers.
namespace std {
template <>
struct hash<tarn::QNumber> {
    std::size_t operator()(tarn::QNumber const& q) const noexcept { return q.hash(); }
};
} // namespace std
