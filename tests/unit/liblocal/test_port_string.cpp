// Strings of the portable layer: the tokenizer's quoting, command_string's
// quoting and sizing, trimming, bounded copies and vectors.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "liblocal/kv_string.h"

namespace {
std::vector<std::string> tok(const char* text, const char* ifs, int qq) {
    std::vector<char> buf(text, text + strlen(text) + 1);
    int n = -1;
    char** v = nullptr;
    std::vector<char> ifsbuf;
    if (ifs != nullptr) ifsbuf.assign(ifs, ifs + strlen(ifs) + 1);
    EXPECT_EQ(nullptr, tokenize(buf.data(), &n, &v, ifs ? ifsbuf.data() : nullptr, qq));
    std::vector<std::string> out;
    EXPECT_NE(nullptr, v);
    if (v == nullptr) return out;
    for (int i = 0; i < n; ++i) {
        // Tokens live in the caller's buffer.
        EXPECT_TRUE(v[i] >= buf.data() && v[i] < buf.data() + buf.size());
        out.push_back(v[i]);
    }
    EXPECT_EQ(nullptr, v[n]);
    free(v);
    return out;
}
using V = std::vector<std::string>;
}  // namespace

TEST(PortTokenize, NullLineGivesNoTokensAndOneNullEntry) {
    int n = -1;
    char** v = nullptr;
    EXPECT_EQ(nullptr, tokenize(nullptr, &n, &v, nullptr, 0));
    EXPECT_EQ(0, n);
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(nullptr, v[0]);
    free(v);
}

TEST(PortTokenize, DefaultSeparatorsAreBlankTabNewline) {
    EXPECT_EQ((V{"a", "bc", "d"}), tok("  a\tbc \n d\n", nullptr, 0));
    EXPECT_EQ((V{}), tok(" \t\n ", nullptr, 0));
    EXPECT_EQ((V{"a b", "c"}), tok("a b,,c", ",", 0));
}

TEST(PortTokenize, DoubleQuotesKeepSeparators) {
    EXPECT_EQ((V{"x", "a b", "y"}), tok("x \"a b\" y", nullptr, 0));
    EXPECT_EQ((V{"x", "a b", "y"}), tok("x \"a b\" y", nullptr, 1));
    // An unterminated quote runs to the end of the line.
    EXPECT_EQ((V{"x", "a b"}), tok("x \"a b", nullptr, 0));
    EXPECT_EQ((V{""}), tok("\"\"", nullptr, 0));
}

TEST(PortTokenize, BackslashesWithoutQqProtectOnlyQuotes) {
    // The escaped quote is part of the token and its backslash goes away.
    EXPECT_EQ((V{"a \"b\" c"}), tok("\"a \\\"b\\\" c\"", nullptr, 0));
    // Other backslashes stay.
    EXPECT_EQ((V{"C:\\dir x"}), tok("\"C:\\dir x\"", nullptr, 0));
    EXPECT_EQ((V{"a\\b"}), tok("a\\b", nullptr, 0));
}

TEST(PortTokenize, BackslashesWithQqEscapeAnyCharacter) {
    EXPECT_EQ((V{"a \"b\" c"}), tok("\"a \\\"b\\\" c\"", nullptr, 1));
    EXPECT_EQ((V{"C:\\dir x"}), tok("\"C:\\\\dir x\"", nullptr, 1));
    // A newline ends a double-quoted token.
    EXPECT_EQ((V{"ab", "c"}), tok("\"ab\nc", nullptr, 1));
}

TEST(PortTokenize, SingleAndBackQuotesOnlyWithQq) {
    EXPECT_EQ((V{"a b", "c"}), tok("'a b' c", nullptr, 1));
    EXPECT_EQ((V{"ls -l", "x"}), tok("`ls -l` x", nullptr, 1));
    EXPECT_EQ((V{"'a", "b'", "c"}), tok("'a b' c", nullptr, 0));
    EXPECT_EQ((V{"`ls", "-l`"}), tok("`ls -l`", nullptr, 0));
}

TEST(PortTokenize, ParenthesesProtectIfsButNotBlanks) {
    EXPECT_EQ((V{"(a,b)", "c"}), tok("(a,b),c", ",", 0));
    EXPECT_EQ((V{"(a", "b)"}), tok("(a b)", nullptr, 0));
    EXPECT_EQ((V{"(a,b)x", "c"}), tok("(a,b)x,c", ",", 0));
    EXPECT_EQ((V{"(open"}), tok("(open", nullptr, 0));
}

TEST(PortTokenize, VectorGrowsPastItsFirstHundredSlots) {
    std::string line;
    for (int i = 0; i < 450; ++i) line += "t" + std::to_string(i) + " ";
    V got = tok(line.c_str(), nullptr, 0);
    ASSERT_EQ(450u, got.size());
    EXPECT_EQ("t0", got.front());
    EXPECT_EQ("t449", got.back());
}

TEST(PortCommandString, JoinsPlainAndQuoted) {
    const char* args[] = {"tool", "-h", "a \"b\"", "c\\d", nullptr};
    char** a = const_cast<char**>(args);
    char* plain = command_string(a, 0, nullptr, 0);
    EXPECT_STREQ("tool -h a \"b\" c\\d", plain);
    free(plain);
    char* quoted = command_string(a, 1, nullptr, 0);
    EXPECT_STREQ("\"tool\" \"-h\" \"a \\\"b\\\"\" \"c\\\\d\"", quoted);
    // What the quoted form says, the tokenizer with qq reads back.
    int n = 0;
    char** v = nullptr;
    ASSERT_EQ(nullptr, tokenize(quoted, &n, &v, nullptr, 1));
    ASSERT_EQ(4, n);
    for (int i = 0; i < 4; ++i) EXPECT_STREQ(args[i], v[i]);
    free(v);
    free(quoted);
}

TEST(PortCommandString, BufferMustHoldTheWholeLine) {
    const char* args[] = {"ab", "c", nullptr};
    char** a = const_cast<char**>(args);
    char buf[16];
    memset(buf, 'x', sizeof(buf));
    EXPECT_EQ(nullptr, command_string(a, 0, buf, 4));  // needs 5 with the NUL
    EXPECT_EQ(buf, command_string(a, 0, buf, 5));
    EXPECT_STREQ("ab c", buf);
    EXPECT_EQ(nullptr, command_string(a, 1, buf, 8));  // "\"ab\" \"c\"" is 8 + NUL
    EXPECT_EQ(buf, command_string(a, 1, buf, 9));
    EXPECT_EQ(buf, command_string(nullptr, 1, buf, 1));
    EXPECT_STREQ("", buf);
}

TEST(PortStrings, RemoveBufferingSpace) {
    char a[] = "  \t hello world \n ";
    EXPECT_EQ(0, remove_buffering_space(a));
    EXPECT_STREQ("hello world", a);
    char b[] = " \t \n ";
    remove_buffering_space(b);
    EXPECT_STREQ("", b);
    char c[] = "";
    remove_buffering_space(c);
    EXPECT_STREQ("", c);
    EXPECT_EQ(0, remove_buffering_space(nullptr));
    char d[] = "x";
    remove_buffering_space(d);
    EXPECT_STREQ("x", d);
    char e[] = "  \"quoted text\"  ";
    EXPECT_EQ(1, remove_buffering_space_and_enclosing_quotes(e));
    EXPECT_STREQ("quoted text", e);
    char f[] = "\"";
    EXPECT_EQ(0, remove_enclosing_quotes(f));
    EXPECT_STREQ("\"", f);
}

TEST(PortStrings, BoundedCopiesAlwaysTerminate) {
    char buf[5];
    EXPECT_EQ(7u, kv_strlcpy(buf, "abcdefg", sizeof(buf)));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(3u, kv_strlcpy(buf, "xyz", sizeof(buf)));
    EXPECT_EQ(6u, kv_strlcat(buf, "123", sizeof(buf)));
    EXPECT_STREQ("xyz1", buf);
    EXPECT_EQ(3u, kv_strlcpy(buf, "abc", 0));
    EXPECT_EQ(0u, kv_strlen(nullptr));
}

TEST(PortStrings, Companions) {
    char* r = kv_strreplace("a.b.c", ".", "::");
    EXPECT_STREQ("a::b::c", r);
    free(r);
    EXPECT_STREQ("World!", kv_stristr("Hello World!", "wORLD"));
    EXPECT_EQ(nullptr, kv_stristr("Hello", "xyz"));
    EXPECT_EQ(1, kv_strallnum("0123"));
    EXPECT_EQ(0, kv_strallnum("12a"));
    EXPECT_EQ(0, kv_strallnum(""));
    EXPECT_EQ(1, str_end_with("file.res", ".res"));
    EXPECT_EQ(0, str_end_with("res", ".res"));
    char* s = substr("abcdef", 2, 3);
    EXPECT_STREQ("cde", s);
    free(s);
    s = substr("abc", 5, 3);
    EXPECT_STREQ("", s);
    free(s);
    EXPECT_LT(kv_strcmp(nullptr, "a"), 0);
    EXPECT_EQ(0, kv_strcmp(nullptr, nullptr));
    char** v = kv_strvcat(nullptr, "one");
    v = kv_strvcat(v, "two");
    char** d = kv_strvdup(v);
    EXPECT_EQ(2, kv_strvlen(d));
    EXPECT_STREQ("two", d[1]);
    kv_strvfree(v);
    kv_strvfree(d);
    char t[] = ",a,,b,";
    char* save = nullptr;
    EXPECT_STREQ("a", kvstrtok_r(t, ",", &save));
    EXPECT_STREQ("b", kvstrtok_r(nullptr, ",", &save));
    EXPECT_EQ(nullptr, kvstrtok_r(nullptr, ",", &save));
}
