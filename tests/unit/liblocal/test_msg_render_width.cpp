// The renderer's widths: a conversion without a width adds nothing, so an
// empty text renders as nothing at all (command lines are built this way).
#include <stdarg.h>
#include <stdlib.h>

#include <string>

#include <gtest/gtest.h>

#include "liblocal/kv_msg.h"

namespace {

std::string vsprint_alloc(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char* out = nullptr;
    int n = i18n_vsprintf(nullptr, &out, fmt, ap);
    va_end(ap);
    std::string s = out != nullptr ? out : "(none)";
    free(out);
    EXPECT_EQ(n, static_cast<int>(s.size())) << fmt;
    return s;
}

TEST(RenderWidth, EmptyTextWithoutWidthRendersAsNothing) {
    EXPECT_EQ(vsprint_alloc("%s", ""), "");
    EXPECT_EQ(vsprint_alloc("a%sb%sc", "", ""), "abc");
    EXPECT_EQ(vsprint_alloc("%.0s|", "abc"), "|");
    EXPECT_EQ(vsprint_alloc("%1$s%1$s", ""), "");
    char fixed[16];
    i18n_sprintf(fixed, nullptr, "[%s]", "");
    EXPECT_STREQ(fixed, "[]");
    EXPECT_STREQ(render_string(0, nullptr, "[%s]", ARG_TEXT, ""), "[]");
}

TEST(RenderWidth, GivenWidthsStillPad) {
    EXPECT_EQ(vsprint_alloc("[%3s]", ""), "[   ]");
    EXPECT_EQ(vsprint_alloc("[%-2s]", "a"), "[a ]");
    // A negative width from an argument means left adjustment.
    EXPECT_EQ(vsprint_alloc("[%*s]", -3, "a"), "[a  ]");
    EXPECT_EQ(vsprint_alloc("[%*s]", -1, ""), "[ ]");
    EXPECT_EQ(vsprint_alloc("[%d]", 7), "[7]");
    EXPECT_EQ(vsprint_alloc("[%c]", 'x'), "[x]");
}

}  // namespace
