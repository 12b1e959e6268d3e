#include "tarn/exception/exception.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using tarn::Exception;

int hook_calls = 0;
std::string hook_saw;

void counting_handler(Exception const& e) noexcept {
    ++hook_calls;
    hook_saw = e.what();
}

// Installs the counting handler for one test and restores the previous one.
class ExceptionHook : public ::testing::Test {
protected:
    void SetUp() override {
        hook_calls = 0;
        hook_saw.clear();
        previous_ = Exception::set_assertion_handler(counting_handler);
    }
    void TearDown() override { Exception::set_assertion_handler(previous_); }

private:
    Exception::assertion_handler previous_ = nullptr;
};

TEST(Exception, WhatReturnsTheMessageAndIsRepeatable) {
    Exception e("abc", false);
    std::string first = e.what();
    EXPECT_EQ(first, "abc");
    EXPECT_EQ(std::string(e.what()), first);
}

TEST(Exception, AppendedValuesFollowTheMessage) {
    struct Case {
        int appended;
        char const* expected;
    };
    for (Case c : {Case{4, "bad rounding mode: 4"}, Case{-1, "bad rounding mode: -1"},
                   Case{1073741823, "bad rounding mode: 1073741823"}}) {
        Exception e("bad rounding mode: ", false);
        e << c.appended;
        EXPECT_STREQ(e.what(), c.expected);
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

TEST(Exception, CaughtAsStdException) {
    try {
        throw Exception("boom", false);
    } catch (std::exception const& e) {
        EXPECT_STREQ(e.what(), "boom");
        return;
    }
    FAIL() << "not caught as std::exception";
}

TEST_F(ExceptionHook, RunsOncePerRaisingConstructionAndSeesTheMessage) {
    Exception quiet("quiet", false);
    EXPECT_EQ(hook_calls, 0);

    Exception loud("bad rounding mode: ", true);
    EXPECT_EQ(hook_calls, 1);
    EXPECT_EQ(hook_saw, "bad rounding mode: ");

    Exception copy(loud);
    EXPECT_EQ(hook_calls, 1) << "copying must not run the diagnostic again";
}

TEST(Exception, DefaultHookIsSilent) {
    Exception::assertion_handler previous = Exception::set_assertion_handler(nullptr);
    Exception e("nothing happens", true);
    EXPECT_STREQ(e.what(), "nothing happens");
    Exception::set_assertion_handler(previous);
}

} // namespace
