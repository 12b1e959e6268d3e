// What every fuzz target needs: reading integers of any width from the
// fuzzer's bytes, telling the library's own error messages from anything else,
// and stopping with a readable report when a check fails.
#pragma once

#include "tests/random_source.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
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

/// True when `message` is one of the texts the library throws with.
inline bool is_library_message(const char* message) {
    static const char* const fixed[] = {
        "reached limit on float precision",    "can't convert NaN to a Number",
        "can't convert infinity to a Number",  "can't convert NaN to float str",
        "can't convert Infinity to float str",
    };
    for (const char* text : fixed)
        if (std::strcmp(message, text) == 0) return true;
    static const char prefix[] = "bad rounding mode: ";
    if (std::strncmp(message, prefix, sizeof prefix - 1) != 0) return false;
    const char* number = message + sizeof prefix - 1;
    if (*number == '-') ++number;
    if (*number == '\0') return false;
    for (; *number != '\0'; ++number)
        if (*number < '0' || *number > '9') return false;
    return true;
}

} // namespace fuzzing
