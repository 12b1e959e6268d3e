// Robustness fuzzing: the sequences of tests/robustness.h on the fuzzer's bytes.
// With FUZZ_TRACE set, each step is written to stderr, to read a finding's input
// as the sequence of operations it runs.
#include "tests/robustness.h"

#include "fuzz/fuzz_support.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool trace = std::getenv("FUZZ_TRACE") != nullptr;
    FuzzedDataProvider in(data, size);
    const std::string failure = tarn_testing::run_sequence(
        in, [](int op, const tarn::IEEEFloat& x, const std::string& outcome) {
            if (trace)
                std::fprintf(stderr, "op %d -> %s: %s\n", op, tarn_testing::describe(x).c_str(),
                             outcome.c_str());
        });
    FUZZ_CHECK(failure.empty()) << failure;
    // Bytes the sequence left give a format of any widths, mostly far past
    // max_width: every way of making a value of it must refuse at once.
    if (in.remaining_bytes() < 16) return 0;
    using tarn::IEEEFloat;
    const IEEEFloat::format f{in.ConsumeIntegral<unsigned long>(),
                              in.ConsumeIntegral<unsigned long>()};
    if (f.exponent_width <= IEEEFloat::max_width &&
        f.mantissa_width <= IEEEFloat::max_width - f.exponent_width)
        return 0;
    for (int op = 0; op < 4; ++op) {
        try {
            op == 0   ? IEEEFloat::from_bits(1, f)
            : op == 1 ? IEEEFloat::max_value(f)
            : op == 2 ? IEEEFloat::from_string("1.5", f, {})
                      : IEEEFloat(f, {});
            FUZZ_CHECK(false) << "a value of a format past max_width, op " << op;
        } catch (const IEEEFloat::error& e) {
            FUZZ_CHECK(std::string(e.what()) == "reached limit on float precision") << e.what();
        }
    }
    return 0;
}
