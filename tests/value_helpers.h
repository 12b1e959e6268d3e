// The older name of the shared test helpers, still included by some tests.
#pragma once

#include "tests/testing.h"

namespace testing_values {

using namespace tarn_testing;

/// As tarn_testing::sampled.
inline int case_count(int count) {
    return sampled(count);
}

} // namespace testing_values
