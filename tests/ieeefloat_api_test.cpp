// The conveniences around IEEEFloat: named formats, value operators, stream
// output, hashing and hexadecimal text.

#include "tarn/ieeefloat/ieeefloat.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using tarn::IEEEFloat;
using tarn::QNumber;
using format = IEEEFloat::format;

static_assert(format::binary64() == format(11, 52), "named formats are usable at compile time");

/// (2^p - 1) * 2^shift, the largest finite value of a format of precision p.
QNumber all_ones_times_pow2(unsigned long p, unsigned long shift) {
    return QNumber(mpz_class(((mpz_class(1) << p) - 1) << shift));
}

struct NamedCase {
    const char* name;
    format fmt;
    format (*factory)();
    QNumber largest; // the largest finite value: checks the IEEE semantics claimed
};

const NamedCase named_cases[] = {
    {"binary16", {5, 10}, format::binary16, QNumber(65504L)},
    {"bfloat16", {8, 7}, format::bfloat16, all_ones_times_pow2(8, 120)},
    {"binary32", {8, 23}, format::binary32, all_ones_times_pow2(24, 104)},
    {"binary64", {11, 52}, format::binary64, all_ones_times_pow2(53, 971)},
    {"binary128", {15, 112}, format::binary128, all_ones_times_pow2(113, 16383 - 112)},
    {"binary256", {19, 236}, format::binary256, all_ones_times_pow2(237, 262143 - 236)},
    {"e5m2", {5, 2}, format::e5m2, QNumber(57344L)},
    {"e4m3", {4, 3}, format::e4m3, QNumber(240L)},
};

TEST(NamedFormats, FactoriesNamesAndLookupAgree) {
    ASSERT_EQ(format::known_names().size(), std::size(named_cases));
    for (const NamedCase& c : named_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.factory(), c.fmt);
        EXPECT_EQ(c.fmt.name(), c.name);
        EXPECT_EQ(format::by_name(c.name), c.fmt);
        EXPECT_EQ(IEEEFloat::max_value(c.fmt).to_number(), c.largest);
        EXPECT_NE(std::find(format::known_names().begin(), format::known_names().end(), c.name),
                  format::known_names().end());
    }
}

TEST(NamedFormats, LookupIgnoresCaseOnlyAndRejectsEverythingElse) {
    EXPECT_EQ(format::by_name("BFloat16"), format::bfloat16());
    EXPECT_EQ(format::by_name("E4M3"), format::e4m3());
    for (const char* unknown : {"", "binary", "binary8", " binary16", "binary16 ", "e4m3fn",
                                "binary1281", "float", "11,52"})
        EXPECT_EQ(format::by_name(unknown), std::nullopt) << '"' << unknown << '"';
    EXPECT_TRUE(format(8, 52).name().empty());
    EXPECT_TRUE(format().name().empty());
}

} // namespace
