// Attribute lists with the message layer: the legality of names from
// outside, "_I18N" companions and their rendering, console printing.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "liblocal/attrlist.h"
#include "liblocal/kv_msg.h"

namespace {

TEST(AttrLegal, NamesOfMoreThan63CharactersAreRefused) {
    std::string n63(63, 'a'), n64(64, 'b'), n200(200, 'c');
    attrlist* al = nullptr;
    attrlist_add(&al, n63.c_str(), "v");
    EXPECT_EQ(attrlist_legal(al), nullptr);
    EXPECT_EQ(attrlist_legal(nullptr), nullptr);

    attrlist_add(&al, n200.c_str(), "v");  // stored whole
    EXPECT_EQ(strlen(attrlist_find(al, n200.c_str())->name), 200u);
    errinfo* e = attrlist_legal(al);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->MsgId, 84890);
    EXPECT_EQ(e->errnum, 35021);
    ASSERT_NE(e->errstr, nullptr);
    EXPECT_EQ(std::string(e->errstr), "Attribute '" + n200 +
                                          "' has a name that is longer than the maximum size [63 "
                                          "characters] allowed");
    msg_free(e);
    attrlist_free(al);

    al = attr_new(n64.c_str(), nullptr);
    e = attrlist_legal(al);
    ASSERT_NE(e, nullptr);
    msg_free(e);
    attrlist_free(al);
}

TEST(AttrI18N, CompanionHoldsMessageBuffersThatRenderBack) {
    attrlist* al = attrlist_build((char*)"comment", "hello world", "second", nullptr, nullptr);
    char* nn = attrlist_add_I18Nattr(&al, (char*)"comment", 0);
    ASSERT_NE(nn, nullptr);
    EXPECT_STREQ(nn, "comment_I18N");
    attrlist* c = attrlist_find(al, "comment_I18N");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(vallist_count(c->values), 2);
    EXPECT_STRNE(c->values->value, "hello world");  // stored in buffer form
    // Printing renders the buffers back to the text.
    char buf[256];
    attr_sprintf(buf, sizeof buf, 80, c, 0, 0, ATTR_FLAG_NOPAD);
    EXPECT_STREQ(buf, "comment_I18N: hello world, second;\n");
    // ...unless told not to.
    attr_sprintf(buf, sizeof buf, 80, c, 0, 0, ATTR_FLAG_NOPAD | ATTR_FLAG_STBUF_NEVER);
    EXPECT_STRNE(buf, "comment_I18N: hello world, second;\n");
    EXPECT_NE(attrlist_find(al, "comment"), nullptr);

    // Replacing, and deleting the old attribute.
    attrlist_set(&al, (char*)"comment", (char*)"new");
    EXPECT_STREQ(attrlist_add_I18Nattr(&al, (char*)"comment", 1), "comment_I18N");
    EXPECT_EQ(attrlist_find(al, "comment"), nullptr);
    EXPECT_EQ(vallist_count(attrlist_find(al, "comment_I18N")->values), 1);
    attrlist_free(al);
}

TEST(AttrI18N, NoValuesNoCompanionAndLongNamesAreCut) {
    attrlist* al = attr_new("empty", nullptr);
    EXPECT_EQ(attrlist_add_I18Nattr(&al, (char*)"empty", 0), nullptr);
    EXPECT_EQ(attrlist_add_I18Nattr(&al, (char*)"missing", 0), nullptr);
    std::string n60(60, 'x');
    attrlist_add(&al, n60.c_str(), "v");
    char* nn = attrlist_add_I18Nattr(&al, const_cast<char*>(n60.c_str()), 0);
    ASSERT_NE(nn, nullptr);
    EXPECT_EQ(std::string(nn), n60 + "_I1");  // 63 characters in a buffer of 64
    std::string n70(70, 'y');
    attrlist_add(&al, n70.c_str(), "v");
    nn = attrlist_add_I18Nattr(&al, const_cast<char*>(n70.c_str()), 1);
    ASSERT_NE(nn, nullptr);
    EXPECT_EQ(std::string(nn), std::string(63, 'y'));
    EXPECT_EQ(attrlist_find(al, n70.c_str()), nullptr);  // the old one was deleted
    // At 63 characters nothing of "_I18N" fits: the companion is the
    // attribute itself, which must survive the deletion of the old one.
    std::string n63(63, 'z');
    attrlist_add(&al, n63.c_str(), "v");
    nn = attrlist_add_I18Nattr(&al, const_cast<char*>(n63.c_str()), 1);
    ASSERT_NE(nn, nullptr);
    EXPECT_EQ(std::string(nn), n63);
    EXPECT_NE(attrlist_find(al, n63.c_str()), nullptr);
    attrlist_free(al);
}

TEST(AttrPrint, ConsoleOutputGoesThroughTheMessageLayer) {
    attrlist* al = attrlist_build((char*)"nopadding", nullptr, nullptr);
    attrlist_add(&al, "zz", "console text");
    testing::internal::CaptureStdout();
    attrlist_print(stdout, al);
    fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("zz: console text;"), std::string::npos) << out;
    attrlist_free(al);
}

}  // namespace
