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
    return 0;
}
