// The renderer: positions, terminal columns, formats from data, buffers.
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "liblocal/kv_msg.h"

namespace {

std::string sprint(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char* out = nullptr;
    i18n_vsnprintf(nullptr, 0, &out, fmt, ap);
    va_end(ap);
    std::string s = out != nullptr ? out : "(none)";
    free(out);
    return s;
}

TEST(Render, PositionalArgumentsReorder) {
    EXPECT_STREQ(render_string(0, nullptr, "%2$s then %1$s", ARG_TEXT, "a", ARG_TEXT, "b"),
                 "b then a");
    EXPECT_STREQ(render_string(0, nullptr, "%2$d/%1$s/%2$d", ARG_TEXT, "x", ARG_INT, "7"), "7/x/7");
    EXPECT_EQ(sprint("%2$s-%1$d", 5, "five"), "five-5");
}

TEST(Render, PrecisionCountsColumnsAndNeverSplitsACharacter) {
    const char* wide =
        "\xe6\xbc\xa2\xe5\xad\x97\xe6\xbc\xa2\xe5\xad\x97\xe6\xbc\xa2\xe5\xad\x97";  // 6 wide
    // 10 columns: five wide characters; 9 columns: only four fit.
    EXPECT_EQ(std::string(render_string(0, nullptr, "[%.10s]", ARG_TEXT, wide)),
              "[" + std::string(wide, 15) + "]");
    EXPECT_EQ(std::string(render_string(0, nullptr, "[%.9s]", ARG_TEXT, wide)),
              "[" + std::string(wide, 12) + "]");
    EXPECT_EQ(sprint("[%.3s]", "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9"), "[\xc3\xa9\xc3\xa9\xc3\xa9]");
}

TEST(Render, WidthCountsColumns) {
    EXPECT_EQ(sprint("[%4s]", "\xc3\xa9"), "[   \xc3\xa9]");
    EXPECT_EQ(sprint("[%-4s]", "\xc3\xa9"), "[\xc3\xa9   ]");
    EXPECT_EQ(sprint("[%4s]", "\xe6\xbc\xa2"), "[  \xe6\xbc\xa2]");
    EXPECT_EQ(sprint("[%*s]", 3, "a"), "[  a]");
    EXPECT_EQ(sprint("[%-*s]", -3, "a"), "[a  ]");
    EXPECT_STREQ(render_string(0, nullptr, "[%*s]", ARG_INT, "3", ARG_TEXT, "a"), "[  a]");
}

TEST(Render, NullTextPrintsNullMarker) {
    EXPECT_EQ(sprint("%s|%5s", static_cast<char*>(nullptr), static_cast<char*>(nullptr)),
              "<null>|<null>");
}

TEST(Render, NumbersFromText) {
    EXPECT_STREQ(
        render_string(0, nullptr, "%d %u %x %05.1f %c %e", ARG_INT, "-3", ARG_UINT, "4000000000",
                      ARG_INT, "255", ARG_TEXT, "2.25", ARG_CHAR, "zed", ARG_TEXT, "1e3"),
        "-3 4000000000 ff 002.2 z 1.000000e+03");
    EXPECT_STREQ(render_string(0, nullptr, "%ld %lu", ARG_INT, "-9000000000", ARG_ULONG,
                               "18446744073709551615"),
                 "-9000000000 18446744073709551615");
    EXPECT_STREQ(render_string(0, nullptr, "%d", ARG_INT, "garbage"), "0");
}

TEST(Render, FormatFromDataCannotWriteOrRead) {
    // A stored form is data: %n and letters the renderer cannot make from
    // text abort the rendering instead of reaching memory.
    EXPECT_STREQ(render_stbuf(nullptr, "0 4 a%nb 1 0 1 x"),
                 "\nFormat string a%nb cannot be rendered correctly\n");
    EXPECT_STREQ(render_string(0, nullptr, "%s %q", ARG_TEXT, "a", ARG_TEXT, "b"),
                 "\nFormat string %s %q cannot be rendered correctly\n");
    // More conversions than arguments: the missing ones are empty, not garbage.
    EXPECT_STREQ(render_stbuf(nullptr, "0 8 %s %s %d 1 0 1 x"), "x null 0");
    int untouched = 7;
    EXPECT_EQ(sprint("ab%ncd", &untouched), "abcd");
    EXPECT_EQ(untouched, 7);
}

TEST(Render, ArgumentlessFormatIsCopiedUnchanged) {
    // A stored message without arguments (a translation, say) keeps its "%".
    EXPECT_STREQ(render_stbuf(nullptr, "0 13 100%% done %d"), "100%% done %d");
    EXPECT_STREQ(render_string(0, nullptr, "%d%%", ARG_INT, "5"), "5%");
}

TEST(Render, PositionsBeyondTheTableAbort) {
    EXPECT_STREQ(render_stbuf(nullptr, "0 6 %255$s 1 0 1 x"),
                 "\nFormat string %255$s cannot be rendered correctly\n");
}

TEST(Render, NullFormGivesNull) {
    EXPECT_EQ(render_string(0, nullptr, nullptr), nullptr);
}

TEST(Render, LiteralByIdIsResolved) {
    EXPECT_STREQ(render_string(0, nullptr, "<%s>", ARG_LITERAL_ID, "71005:Timed out"),
                 "<Timed out>");
    EXPECT_STREQ(render_string(0, nullptr, "<%s>", ARG_TEXT, "71005:Timed out"),
                 "<71005:Timed out>");
    // Whatever stands before the colon is the id; a word is id 0, untranslated.
    EXPECT_STREQ(render_string(0, nullptr, "<%s>", ARG_LITERAL_ID, "Note: x"), "< x>");
    EXPECT_STREQ(render_literal_id(nullptr, "abc:def", nullptr), "def");
    EXPECT_STREQ(render_literal_id(nullptr, ":bare", nullptr), "bare");
    EXPECT_STREQ(render_literal_id(nullptr, "99999999999999999999:big", nullptr), "big");
}

TEST(Render, NestedStbufDeeplyNestedStaysBounded) {
    std::string sb = "0 2 %s 1 0 4 leaf";
    for (int i = 0; i < 40; ++i) sb = "0 2 %s 1 49 " + std::to_string(sb.size()) + " " + sb;
    const char* r = render_stbuf(nullptr, sb.c_str());
    EXPECT_NE(r, nullptr);  // bounded depth: no crash, some text
}

TEST(Render, FixedBufferTruncatesAtAWholeConversion) {
    structext* st = msg_structext_create(0, "ab%sZ", ARG_TEXT, "cdefgh");
    char buf[6];
    i18n_render_structext(buf, sizeof(buf), nullptr, nullptr, st);
    EXPECT_STREQ(buf, "ab");
    char* dyn = nullptr;
    std::string big(40000, 'q');
    structext* st2 = msg_structext_create(0, "<%s>", ARG_TEXT, big.c_str());
    int n = i18n_render_structext(nullptr, 0, &dyn, nullptr, st2);
    ASSERT_NE(dyn, nullptr);
    EXPECT_EQ(n, 40002);
    EXPECT_EQ(strlen(dyn), 40002u);
    free(dyn);
}

TEST(Render, RenderStringStaysInItsPoolBuffer) {
    std::string big(30000, 'w');
    char* r = render_string(0, nullptr, "%s", ARG_TEXT, big.c_str());
    EXPECT_LT(strlen(r), static_cast<size_t>(MSG_BUFFER_SIZE));
}

TEST(PrintfFamily, KvSnprintfTerminatesAndCounts) {
    char b[5];
    EXPECT_EQ(kv_snprintf(b, sizeof(b), "%s", "abcdefg"), 7);
    EXPECT_STREQ(b, "abcd");
    char untouched[2] = {'x', 'y'};
    EXPECT_EQ(kv_snprintf(untouched, 0, "%d", 12), 2);
    EXPECT_EQ(untouched[0], 'x');
}

TEST(PrintfFamily, I18nSnprintfFixedBufferAndTypes) {
    char b[8];
    i18n_snprintf(b, sizeof(b), nullptr, "%s", static_cast<char*>(nullptr));
    EXPECT_STREQ(b, "<null>");
    i18n_snprintf(b, sizeof(b), nullptr, "abc%s", "defghij");
    EXPECT_STREQ(b, "abc");  // the conversion does not fit: output ends before it
    EXPECT_EQ(sprint("%lld %hhu %zu %5.2f %Lf %c %lc %%", -1LL, 300, static_cast<size_t>(9),
                     3.14159, static_cast<long double>(1.5), 'x', static_cast<wint_t>(0x00e9)),
              "-1 44 9  3.14 1.500000 x \xc3\xa9 %");
    EXPECT_EQ(sprint("%u %x", -1, 255u), "4294967295 ff");
    EXPECT_EQ(sprint("%ls", L"\u00e9t\u00e9"), "\xc3\xa9t\xc3\xa9");
    EXPECT_EQ(sprint("tail %"), "tail %");
}

TEST(PrintfFamily, I18nSprintfAllocatesWithNullBuffer) {
    char* out = nullptr;
    int n = i18n_sprintf(nullptr, &out, "%s=%d", "k", 3);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(n, 3);
    EXPECT_STREQ(out, "k=3");
    free(out);
    char b[32];
    i18n_sprintf(b, nullptr, "%3$s%2$s%1$s", "c", "b", "a");
    EXPECT_STREQ(b, "abc");
}

TEST(GetNumArgs, CountsConversionsStarsAndPositions) {
    EXPECT_EQ(get_num_args("plain"), 0);
    EXPECT_EQ(get_num_args("100%%"), 0);
    EXPECT_EQ(get_num_args("%s %d"), 2);
    EXPECT_EQ(get_num_args("%*s"), 2);
    EXPECT_EQ(get_num_args("%-*.*s"), 3);
    // Positions don't merge: every conversion is one pair.
    EXPECT_EQ(get_num_args("%2$s %1$s %2$s"), 3);
    EXPECT_EQ(get_num_args("%1$s %1$s"), 2);
    EXPECT_EQ(get_num_args("%2$s"), 1);
    EXPECT_EQ(get_num_args("%1$*2$d"), 2);
    EXPECT_EQ(get_num_args(nullptr), 0);
}

}  // namespace
