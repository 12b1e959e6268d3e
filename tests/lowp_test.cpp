// The bulk conversions of tarn/lowp against the scalar encode on float32 inputs
// at every boundary of every encoding, stochastic rounding's distribution and
// its independence of threads, and the facts of the named encodings. The
// scalar encode itself is held against the MPFR reference in tests/rows.h.

#include "tarn/lowp/lowp.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

using tarn::encoding;
using tarn::IEEEFloat;

std::uint32_t bits_of(float f) {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

/// Float32 patterns around each boundary of `e` (largest finite, half an ulp and an
/// ulp above it, half the smallest subnormal, the smallest subnormal and normal),
/// both signs, and a random sample; NaNs only as the library's own NaN.
std::vector<float> inputs(const encoding& e) {
    const auto top = static_cast<std::uint16_t>(e.max_pattern());
    float f[4];
    const std::uint16_t patterns[] = {top, static_cast<std::uint16_t>(top - 1), 1,
                                      static_cast<std::uint16_t>(1u << e.mantissa_width)};
    tarn::dequantize(patterns, 4, f, e);
    const float ulp = f[0] - f[1];
    const float centres[] = {f[0], f[0] + ulp / 2, f[0] + ulp, f[2] / 2, f[2], f[3]};
    std::vector<float> out;
    for (const float c : centres)
        for (int d = -40; d <= 40; ++d)
            for (const std::uint32_t sign : {0u, 0x80000000u}) {
                const std::uint32_t u = (bits_of(c) + static_cast<std::uint32_t>(d)) ^ sign;
                float v;
                std::memcpy(&v, &u, 4);
                out.push_back(v);
            }
    std::mt19937 gen(e.exponent_width * 100 + e.mantissa_width);
    for (int i = 0; i < 3000; ++i) {
        const std::uint32_t u =
            gen() % 3 ? gen() : (gen() & 0x80ffffffu) | (100 + gen() % 56) << 23;
        float v;
        std::memcpy(&v, &u, 4);
        out.push_back(v == v ? v : 0.0f);
    }
    const std::uint32_t library_nan = 0xFF800001u;
    float nan;
    std::memcpy(&nan, &library_nan, 4);
    out.push_back(nan);
    return out;
}

template <class Out>
void bulk_equals_scalar(const encoding& e, const std::vector<float>& in, tarn::rounding r,
                        tarn::overflow o) {
    std::vector<Out> out(in.size());
    tarn::clear_ieee_flags();
    tarn::quantize(in.data(), in.size(), out.data(), e, r, o, 3);
    const unsigned raised = tarn::ieee_flags();
    tarn::clear_ieee_flags();
    for (std::size_t i = 0; i < in.size(); ++i) {
        const IEEEFloat x = IEEEFloat::from_bits(tarn::QNumber(long{bits_of(in[i])}), {8, 23});
        const std::uint64_t want = tarn::encode(x, e, r, o);
        ASSERT_EQ(out[i], want) << "input bits " << std::hex << bits_of(in[i]) << " direction "
                                << static_cast<int>(r) << " saturate "
                                << (o == tarn::overflow::saturate);
    }
    EXPECT_EQ(raised, tarn::ieee_flags());
}

TEST(Lowp, BulkEqualsScalarAtEveryBoundary) {
    for (const auto name : encoding::known_names()) {
        const encoding e = *encoding::by_name(name);
        if (e.width() > 16) continue;
        const std::vector<float> in = inputs(e);
        for (int r = 0; r < 6; ++r)
            for (const auto o : {tarn::overflow::saturate, tarn::overflow::non_finite}) {
                SCOPED_TRACE(std::string(name));
                if (e.width() <= 8)
                    bulk_equals_scalar<std::uint8_t>(e, in, static_cast<tarn::rounding>(r), o);
                else
                    bulk_equals_scalar<std::uint16_t>(e, in, static_cast<tarn::rounding>(r), o);
            }
    }
}

// 1.3 lies 0.4 of an ulp above 1.25 in e4m3fn: the mean of many roundings is 1.3
// itself with 32 random bits, and 1.25 + ulp/4 when only two bits are read (0.4
// truncated to two bits is 1/4). The same elements come out whatever the threads.
TEST(Lowp, StochasticMeanAndThreadIndependence) {
    const encoding e = *encoding::by_name("float8_e4m3fn");
    const std::size_t n = 200001;
    const std::vector<float> in(n, 1.3f);
    for (const auto& [bits, mean] : {std::pair{32u, double{1.3f}}, std::pair{2u, 1.28125}}) {
        const tarn::stochastic s{0x5eed, 1000, bits};
        std::vector<std::uint8_t> one(n), many(n);
        tarn::quantize(in.data(), n, one.data(), e, s, tarn::overflow::saturate, 1);
        tarn::quantize(in.data(), n, many.data(), e, s, tarn::overflow::saturate, 7);
        EXPECT_EQ(one, many);
        const IEEEFloat x = IEEEFloat::from_bits(tarn::QNumber(long{bits_of(1.3f)}), {8, 23});
        EXPECT_EQ(one[n - 1],
                  tarn::encode(x, e, {s.seed, s.offset + n - 1, bits}, tarn::overflow::saturate));
        std::vector<double> values(n);
        tarn::dequantize(one.data(), n, values.data(), e);
        double sum = 0;
        for (const double v : values)
            sum += v;
        // The standard deviation of the mean is below ulp / 2 / sqrt(n) = 1.4e-4.
        EXPECT_NEAR(sum / n, mean, 1e-3) << bits << " random bits";
    }
}

TEST(Lowp, NamedEncodingsPackingAndErrors) {
    const std::pair<const char*, double> largest[] = {
        {"float8_e4m3fn", 448},     {"float8_e4m3fnuz", 240},   {"float8_e4m3b11fnuz", 30},
        {"float6_e3m2fn", 28},      {"float6_e2m3fn", 7.5},     {"float4_e2m1fn", 6},
        {"float8_e5m2fnuz", 57344}, {"float8_e8m0fnu", 0x1p127}};
    for (const auto& [name, value] : largest) {
        const encoding e = *encoding::by_name(name);
        EXPECT_EQ(tarn::decode(e.max_pattern(), e).to_number().to_mpq(), mpq_class(value)) << name;
    }
    EXPECT_FALSE(encoding::by_name("float8_e4m3"));
    const std::uint8_t four[] = {1, 2, 3}, six[] = {0x3f, 0, 0x15, 0x2a, 0x3f};
    std::uint8_t packed[4], back[5];
    tarn::pack_bits(four, 3, 4, packed);
    EXPECT_TRUE(packed[0] == 0x21 && packed[1] == 0x03);
    tarn::pack_bits(six, 5, 6, packed);
    tarn::unpack_bits(packed, 5, 6, back);
    EXPECT_TRUE(packed[0] == 0x3f && std::equal(six, six + 5, back));
    encoding bad = encoding::make(4, 3);
    bad.exponent_width = 0;
    EXPECT_THROW(bad.validate(), IEEEFloat::error);
    float f = 1;
    std::uint8_t out;
    EXPECT_THROW(tarn::quantize(&f, 1, &out, *encoding::by_name("float16"),
                                tarn::rounding::nearest_even, tarn::overflow::saturate),
                 IEEEFloat::error);
}

} // namespace
