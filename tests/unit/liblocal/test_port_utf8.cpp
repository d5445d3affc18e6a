// Terminal columns of UTF-8 text (the renderer's widths depend on them) and
// printing through the stream flags.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "liblocal/kv_print.h"
#include "liblocal/kv_utf8.h"

TEST(PortUtf8, ColumnsOfCharacters) {
    EXPECT_EQ(1, utf8_ttywidth("a"));
    EXPECT_EQ(1, utf8_ttywidth("\xC3\xA9"));          // é
    EXPECT_EQ(2, utf8_ttywidth("\xE6\x97\xA5"));      // 日
    EXPECT_EQ(2, utf8_ttywidth("\xEA\xB0\x80"));      // 가
    EXPECT_EQ(2, utf8_ttywidth("\xEF\xBC\xA1"));      // fullwidth A
    EXPECT_EQ(2, utf8_ttywidth("\xF0\xA0\x80\x80"));  // CJK extension B
    EXPECT_EQ(0, utf8_ttywidth("\xCC\x81"));          // combining acute
    EXPECT_EQ(1, utf8_ttywidth("\xE2\x82\xAC"));      // €
    EXPECT_EQ(0, utf8_ttywidth(""));
    EXPECT_EQ(0, utf8_ttywidth(nullptr));
    EXPECT_EQ(3, utf8_charlen("\xE6\x97\xA5"));
    EXPECT_EQ(4, utf8_charlen("\xF0\xA0\x80\x80"));
}

TEST(PortUtf8, BrokenSequencesCountOneColumnPerByte) {
    EXPECT_EQ(1, utf8_charlen("\xE6\x97"));  // cut short before the NUL
    EXPECT_EQ(1, utf8_ttywidth("\x80"));
    EXPECT_EQ(1, utf8_ttywidth("\xFF"));
    EXPECT_EQ(2u, utf8_ttystrlen("\xE6\x97"));
    EXPECT_EQ(3u, utf8_ttystrlen("a\xC3("));  // a lead byte followed by ASCII
}

TEST(PortUtf8, ColumnsOfTexts) {
    EXPECT_EQ(0u, utf8_ttystrlen(nullptr));
    EXPECT_EQ(0u, utf8_ttystrlen(""));
    EXPECT_EQ(5u, utf8_ttystrlen("hello"));
    EXPECT_EQ(6u, utf8_ttystrlen("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"));  // 日本語
    EXPECT_EQ(4u, utf8_ttystrlen("cafe\xCC\x81"));                          // e + combining
    EXPECT_EQ(5u, utf8_ttystrlen("ab\xE6\x97\xA5"
                                 "c"));
}

TEST(PortUtf8, ConversionsLeaveUtf8AloneInUtf8Locale) {
    const char* text = "d\xC3\xA9j\xC3\xA0";
    char* out = kv_syscalls_utf8s_to_mbs(text);
    if (kv_locale_is_utf8()) {
        EXPECT_EQ(text, out);
    }
    EXPECT_STREQ(text, out);  // also when the locale cannot show it
    kv_conv_free(text, out);
    const char* ascii = "plain";
    EXPECT_EQ(ascii, kv_syscalls_mbs_to_utf8s(ascii));
}

TEST(PortPrint, LongTextsAndFlags) {
    char* buf = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&buf, &size);
    ASSERT_NE(nullptr, fp);
    std::string big(5000, 'x');
    EXPECT_EQ(5003, kv_fprintf(fp, "%s-%d", big.c_str(), 42));
    kv_set_user_fp(fp, 1);
    EXPECT_EQ(1, kv_is_user_fp(fp));
    kv_set_utf8_fp(fp, 1);
    EXPECT_EQ(1, kv_is_utf8_fp(fp));
    EXPECT_EQ(5, kv_fprintf(fp, "\xE6\x97\xA5%s", "ab"));
    kv_set_user_fp(fp, 0);
    EXPECT_EQ(0, kv_is_user_fp(fp));
    EXPECT_EQ(EOF, kv_fputs(nullptr, fp));
    EXPECT_EQ(-1, kv_fprintf(nullptr, "x"));
    EXPECT_EQ(0, kv_fclose(fp));
    ASSERT_EQ(5008u, size);
    EXPECT_EQ(0, memcmp(buf + 5000, "-42\xE6\x97\xA5", 6));
    free(buf);
}

TEST(PortPrint, FgetsReadsLinesAndRefusesBadArguments) {
    char text[] = "one\ntwo\n";
    FILE* fp = fmemopen(text, strlen(text), "r");
    ASSERT_NE(nullptr, fp);
    kv_set_user_fp(fp, 1);
    char line[16];
    ASSERT_NE(nullptr, kv_fgets(line, sizeof(line), fp));
    EXPECT_STREQ("one\n", line);
    EXPECT_EQ(nullptr, kv_fgets(line, 0, fp));
    ASSERT_NE(nullptr, kv_fgets(line, sizeof(line), fp));
    EXPECT_STREQ("two\n", line);
    EXPECT_EQ(nullptr, kv_fgets(line, sizeof(line), fp));
    kv_fclose(fp);
}
