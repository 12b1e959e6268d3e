#include "tarn/exception/exception.h"

#include <gtest/gtest.h>
#include <string>
#include <type_traits>

namespace {

using tarn::Exception;

static_assert(std::is_base_of_v<std::exception, Exception>, "caught as std::exception");

int hook_calls = 0;
std::string hook_saw;

void counting_handler(Exception const& e) noexcept {
    ++hook_calls;
    hook_saw = e.what();
}

TEST(Exception, AppendedValuesFollowTheMessage) {
    for (int appended : {4, -1, 1073741823}) {
        Exception e("bad rounding mode: ", false);
        e << appended;
        EXPECT_EQ(e.what(), "bad rounding mode: " + std::to_string(appended));
        EXPECT_EQ(e.what(), "bad rounding mode: " + std::to_string(appended)); // repeatable
    }
}

TEST(Exception, CopiesKeepTheMessageAndStayAppendable) {
    Exception original("x = ", false);
    Exception copy(original);
    copy << 7;
    EXPECT_STREQ(copy.what(), "x = 7");
    EXPECT_STREQ(original.what(), "x = ");

    Exception assigned("other", false);
    assigned = copy;
    assigned << '!';
    EXPECT_STREQ(assigned.what(), "x = 7!");
}

// The hook runs once per raising construction, never for copies, and by
// default does nothing at all.
TEST(Exception, HookRunsOncePerRaisingConstruction) {
    hook_calls = 0;
    Exception::assertion_handler previous = Exception::set_assertion_handler(counting_handler);
    Exception quiet("quiet", false);
    Exception loud("bad rounding mode: ", true);
    Exception copy(loud);
    EXPECT_EQ(hook_calls, 1);
    EXPECT_EQ(hook_saw, "bad rounding mode: ");

    Exception::set_assertion_handler(nullptr);
    Exception silent("nothing happens", true);
    EXPECT_STREQ(silent.what(), "nothing happens");
    EXPECT_EQ(hook_calls, 1);
    Exception::set_assertion_handler(previous);
}

} // namespace
