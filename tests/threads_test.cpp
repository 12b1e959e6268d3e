// Concurrent use: the library keeps no shared mutable state (scratch storage is
// per thread, the soft-float flags are thread-local), so robustness sequences
// replayed by several threads at once must give, step by step, the values,
// answers and errors that one thread gives alone.
#include "tests/robustness.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

/// The state and the answer or error after every step of 200 seeded sequences.
std::string transcript(std::uint64_t first_seed) {
    std::string out;
    for (std::uint64_t seed = first_seed; seed < first_seed + 200; ++seed) {
        tarn_testing::RandomSource in(seed, 400);
        const std::string failure = tarn_testing::run_sequence(
            in, [&](int op, const tarn::IEEEFloat& x, const std::string& outcome) {
                out +=
                    std::to_string(op) + ": " + tarn_testing::describe(x) + " -> " + outcome + '\n';
            });
        out += failure;
    }
    return out;
}

TEST(Threads, ConcurrentSequencesMatchOneThread) {
    constexpr int thread_count = 4;
    std::vector<std::string> expected(thread_count), got(thread_count);
    for (int t = 0; t < thread_count; ++t)
        expected[t] = transcript(1000 * t);
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; ++t)
        threads.emplace_back([&got, t] { got[t] = transcript(1000 * t); });
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
