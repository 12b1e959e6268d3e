// The older name of the shared exact-number helpers, still included by some tests.
#pragma once

#include "tests/testing.h"

namespace tarn::testing {

using tarn_testing::forced_big;
using tarn_testing::holds;
using tarn_testing::Operand;
using tarn_testing::pow2z;
using tarn_testing::random_operand;
using tarn_testing::random_word;
using tarn_testing::scaled;
using tarn_testing::show;

} // namespace tarn::testing
