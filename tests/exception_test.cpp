#include "tarn/exception/exception.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using tarn::Exception;

// Values appended to an exception or to its copies follow the message as
// written so far, and only there.
TEST(Exception, AppendedValuesFollowTheMessage) {
    Exception original("bad rounding mode: ", false), assigned("other", false);
    Exception copy(original);
    copy << -1;
    (assigned = copy) << '!';
    EXPECT_STREQ(original.what(), "bad rounding mode: ");
    EXPECT_STREQ(copy.what(), "bad rounding mode: -1");
    EXPECT_STREQ(assigned.what(), "bad rounding mode: -1!");
}

std::vector<std::string> hook_saw;

// The hook runs once per raising construction, never for copies, and by
// default does nothing at all.
TEST(Exception, HookRunsOncePerRaisingConstruction) {
    Exception::assertion_handler previous = Exception::set_assertion_handler(
        [](Exception const& e) noexcept { hook_saw.emplace_back(e.what()); });
    Exception quiet("quiet", false), loud("bad rounding mode: ", true), copy(loud);
    Exception::set_assertion_handler(nullptr);
    Exception silent("nothing happens", true);
    Exception::set_assertion_handler(previous);
    EXPECT_EQ(hook_saw, std::vector<std::string>{"bad rounding mode: "});
}

} // namespace
