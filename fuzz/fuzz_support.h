// What every fuzz target needs: reading integers of any width from the
// fuzzer's bytes, and stopping with a readable report when a check fails.
#pragma once

#include "tests/random_source.h"

#include <cstdio>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <gmpxx.h>
#include <sstream>
#include <string>

namespace fuzzing {

/// Collects the description of a failed check, prints it and aborts, so that
/// libFuzzer saves the input that led there.
class Failure {
public:
    template <class T>
    Failure& operator<<(const T& value) {
        text_ << value;
        return *this;
    }
    ~Failure() {
        std::fprintf(stderr, "\n*** check failed: %s\n", text_.str().c_str());
        std::abort();
    }

private:
    std::ostringstream text_;
};

/// Stops unless `condition` holds; stream what makes the failure reproducible
/// into the result: `check(ok) << "details";`.
#define FUZZ_CHECK(condition)                                                                      \
    if (condition) {                                                                               \
    } else                                                                                         \
        ::fuzzing::Failure() << #condition << " at " << __FILE__ << ":" << __LINE__ << ": "

using tarn_testing::consume_bits;

} // namespace fuzzing
