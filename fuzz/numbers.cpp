// Differential fuzzing of QNumber and BVNumber against GMP's rationals and
// integers. The checks, and the byte grammar they read, are shared with
// test_numbers, which runs them on seeded random bytes.
#include "fuzz/fuzz_support.h"
#include "tests/numbers_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string failure = tarn_testing::numbers::check_numbers(in);
    FUZZ_CHECK(failure.empty()) << failure;
    return 0;
}
