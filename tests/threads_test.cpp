// The robustness sequences of tests/robustness.h on seeded bytes, first in one
// thread, where every step must pass its checks, then replayed by several
// threads at once. The library keeps no shared mutable state (scratch storage
// is per thread, the soft-float flags are thread-local), so the replay must
// give, step by step, the values, answers and errors of the first run.
#include "tests/robustness.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

constexpr int thread_count = 4, seeds_per_thread = 750;

/// The state and the answer or error after every step of one thread's
/// sequences, and any failed check.
std::string transcript(int thread) {
    std::string out;
    for (int seed = thread * seeds_per_thread; seed < (thread + 1) * seeds_per_thread; ++seed) {
        tarn_testing::RandomSource in(seed, 400);
        const std::string failure = tarn_testing::run_sequence(
            in, [&](int op, const tarn::IEEEFloat& x, const std::string& outcome) {
                out +=
                    std::to_string(op) + ": " + tarn_testing::describe(x) + " -> " + outcome + '\n';
            });
        if (!failure.empty()) out += "FAILED seed " + std::to_string(seed) + ": " + failure + '\n';
    }
    return out;
}

TEST(Threads, SequencesPassAndConcurrentRunsMatchOneThread) {
    std::vector<std::string> expected(thread_count), got(thread_count);
    for (int t = 0; t < thread_count; ++t) {
        expected[t] = transcript(t);
        for (std::size_t at = expected[t].find("FAILED"); at != std::string::npos;
             at = expected[t].find("FAILED", at + 1))
            ADD_FAILURE() << expected[t].substr(at, expected[t].find('\n', at) - at);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t)
        threads.emplace_back([&got, t] { got[t] = transcript(t); });
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < thread_count; ++t) {
        const auto diverges =
            std::mismatch(got[t].begin(), got[t].end(), expected[t].begin(), expected[t].end())
                .first;
        EXPECT_EQ(got[t], expected[t])
            << "from " << std::string(diverges, got[t].end()).substr(0, 300);
    }
    // The sequences must reach the error paths, where a shared buffer would show.
    EXPECT_NE(expected[0].find("bad rounding mode"), std::string::npos);
    EXPECT_NE(expected[0].find("can't convert NaN"), std::string::npos);
}

} // namespace
