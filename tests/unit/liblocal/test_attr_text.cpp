// Text form of values and attributes: quoting, line folding, printing.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "liblocal/attrlist.h"

namespace {

std::string vs(const char* v, int needquote = 0) {
    return val_str(const_cast<char*>(v), needquote);
}

TEST(ValStr, QuotesOnlyWhenNeeded) {
    EXPECT_EQ(vs(""), "\"\"");
    EXPECT_EQ(vs("plain"), "plain");
    EXPECT_EQ(vs("with blank inside"), "with blank inside");
    EXPECT_EQ(vs("plain", 1), "\"plain\"");
    EXPECT_EQ(vs(" lead"), "\" lead\"");
    EXPECT_EQ(vs("trail\t"), "\"trail\t\"");
    for (const char* special : {"a,b", "a:b", "a;b", "a#b"})
        EXPECT_EQ(vs(special), std::string("\"") + special + "\"") << special;
}

TEST(ValStr, EscapesQuotesAndBackslashesAndHandlesNewlines) {
    EXPECT_EQ(vs("say \"hi\""), "\"say \\\"hi\\\"\"");
    EXPECT_EQ(vs("C:\\dir"), "\"C:\\\\dir\"");
    EXPECT_EQ(vs("line1\nline2"), "\"line1\nline2\"");
    EXPECT_EQ(vs("ends\n"), "\"ends\"");  // the final newline is dropped
    EXPECT_EQ(vs("\n"), "\"\"");
}

TEST(ValStr, LongValuesAreQuotedAndWrapped) {
    std::string longv(3000, 'x');
    std::string out = vs(longv.c_str());
    ASSERT_EQ(out.front(), '"');
    size_t br = out.find("\\\n");
    ASSERT_NE(br, std::string::npos);
    EXPECT_EQ(br, 2044u);  // column reached 2048 - 4
    std::string nowrap = val_str_nowrap(const_cast<char*>(longv.c_str()), 0);
    EXPECT_EQ(nowrap, longv);
    // A newline resets the column: no break within the second short line.
    std::string withnl = std::string(2000, 'a') + "\n" + std::string(100, 'b');
    out = vs(withnl.c_str());
    EXPECT_EQ(out.find("\\\n"), std::string::npos);
}

std::string fmt(attrlist* a, int flags = 0, ssize_t linelen = 80) {
    ssize_t size = attr_sprintf(nullptr, 0, linelen, a, 0, 1, flags);
    std::string buf((size_t)size + 1, '\0');
    ssize_t n = attr_sprintf(&buf[0], (ssize_t)buf.size(), linelen, a, 0, 0, flags);
    EXPECT_EQ(n + 1, size);
    buf.resize((size_t)n);
    return buf;
}

TEST(AttrSprintf, PadsNameAndSeparatesValues) {
    attrlist* al = attrlist_build((char*)"name", "a", "b c", "d,e", nullptr, nullptr);
    EXPECT_EQ(fmt(al), std::string(24, ' ') + "name: a, b c, \"d,e\";\n");
    EXPECT_EQ(fmt(al, ATTR_FLAG_NOPAD), "name: a, b c, \"d,e\";\n");
    EXPECT_EQ(fmt(al, ATTR_FLAG_MASK), std::string(24, ' ') + "name: *******, *******, *******;\n");
    attrlist* nov = attr_new("empty", nullptr);
    EXPECT_EQ(fmt(nov, ATTR_FLAG_NOPAD), "empty: ;\n");
    attrlist_free(al);
    attrlist_free(nov);
}

TEST(AttrSprintf, WrapsToIndentedLines) {
    attrlist* al = nullptr;
    for (int i = 0; i < 6; i++) attrlist_add(&al, "n", "value_of_ten");  // 12 columns each
    std::string out = fmt(al);
    // Column 30 + 12, then +14 each: the fourth would reach 30+12+14*3+14 = 98 > 80.
    std::string head = std::string(27, ' ') + "n: ";
    std::string indent(30, ' ');
    EXPECT_EQ(out, head + "value_of_ten, value_of_ten, value_of_ten,\n" + indent +
                       "value_of_ten, value_of_ten, value_of_ten;\n");
    attrlist_free(al);
    // Wide characters take two columns each, not their three bytes: six of
    // them wrap exactly as twelve narrow ones.
    const std::string wide =
        "\xe5\x80\xa4\xe5\x80\xa4\xe5\x80\xa4\xe5\x80\xa4\xe5\x80\xa4\xe5\x80\xa4";
    al = nullptr;
    for (int i = 0; i < 6; i++) attrlist_add(&al, "n", wide.c_str());
    EXPECT_EQ(fmt(al), head + wide + ", " + wide + ", " + wide + ",\n" + indent + wide + ", " +
                           wide + ", " + wide + ";\n");
    attrlist_free(al);
}

TEST(AttrSprintf, FoldsLongValues) {
    std::string longv(100, 'y');
    attrlist* al = attr_new("long", longv.c_str());
    attrlist_add(&al, "long", "short");
    std::string out = fmt(al, ATTR_FLAG_NOPAD);
    EXPECT_EQ(out, "long: \\\n" + std::string(78, 'y') + "\\\n" + std::string(22, 'y') + ",\n" +
                       std::string(30, ' ') + "short;\n");
    attrlist_free(al);
}

TEST(AttrSprintf, RefusesEmptyAndHugeNamesAndTruncatesSafely) {
    EXPECT_EQ(attr_sprintf(nullptr, 0, 80, nullptr, 0, 1, 0), 0);
    attrlist* e = attr_new("", "v");
    char buf[16] = "junk";
    EXPECT_EQ(attr_sprintf(buf, sizeof buf, 80, e, 0, 0, 0), 0);
    EXPECT_STREQ(buf, "");
    std::string huge(8189, 'h');
    attrlist* h = attr_new(huge.c_str(), "v");
    EXPECT_EQ(attr_sprintf(nullptr, 0, 80, h, 0, 1, 0), 0);
    attrlist* ok = attr_new("name", "value");
    EXPECT_EQ(attr_sprintf(buf, 8, 80, ok, 0, 0, ATTR_FLAG_NOPAD), 7);
    EXPECT_STREQ(buf, "name: v");
    attrlist_free(e);
    attrlist_free(h);
    attrlist_free(ok);
}

std::string capture(void (*fn)(FILE*, void*), void* arg) {
    char* data = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&data, &size);
    fn(fp, arg);
    fclose(fp);
    std::string s(data, size);
    free(data);
    return s;
}

TEST(AttrPrint, NopaddingHeaderAndMaskedPhrases) {
    attrlist* al = attrlist_build((char*)"VMR_ENCRYPTION_PHRASES", "secret", nullptr, (char*)"a",
                                  "1", nullptr, nullptr);
    // "nopadding" counts only as the very first element.
    attrlist* np = attr_new("nopadding", nullptr);
    np->next = al;
    al = np;
    std::string out =
        capture([](FILE* fp, void* a) { attrlist_print(fp, static_cast<attrlist*>(a)); }, al);
    EXPECT_EQ(out, "a: 1;\nVMR_ENCRYPTION_PHRASES: *******;\n");
    attrlist_free(al);
}

TEST(AttrBuildStr, SizesThenFillsBounded) {
    attrlist* al = attrlist_build((char*)"a", "1", nullptr, (char*)"b", "2", nullptr, nullptr);
    size_t size = 0;
    size_t need = attrlist_build_str(al, nullptr, &size);
    EXPECT_EQ(size, need);
    std::string one = std::string(27, ' ') + "a: 1;\n";
    std::string two = std::string(27, ' ') + "b: 2;\n";
    ASSERT_GE(need, one.size() + two.size() + 1);
    std::string buf(need, '\0');
    size = need;
    EXPECT_EQ(attrlist_build_str(al, &buf[0], &size), one.size() + two.size());
    EXPECT_EQ(std::string(buf.c_str()), one + two);
    char small[10] = "";
    size = sizeof small;
    EXPECT_EQ(attrlist_build_str(al, small, &size), 9u);
    size = 5;
    EXPECT_EQ(attrlist_build_str(al, nullptr, &size), 0u);
    size = 0;
    EXPECT_EQ(attrlist_build_str(nullptr, nullptr, &size), 0u);
    attrlist_free(al);
}

}  // namespace
