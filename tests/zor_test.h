/*
 * Helpers shared by the test programs.
 */
#ifndef ZOR_TEST_H
#define ZOR_TEST_H

#include <gtest/gtest.h>

#include <string>

/*
 * The regular expression that matches glibc's report of a failed assertion
 * with exactly this condition text in exactly this function:
 *   PROGRAM: FILE:LINE: FUNCTION: Assertion `TEXT' failed.
 */
inline std::string zor_assert_pattern(const std::string &function, const std::string &text)
{
    std::string out = ": " + function + ": Assertion `";
    for (char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos)
            out += '\\';
        out += c;
    }
    return out + "' failed";
}

/* Expects `statement` to stop the process with assertion `text` in `function`. */
#define ZOR_EXPECT_ASSERT(statement, function, text)                                               \
    EXPECT_DEATH(statement, zor_assert_pattern(function, text))

#endif /* ZOR_TEST_H */
