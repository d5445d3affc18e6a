// Text forms of messages: stbuf, XML, value list, wire form, error buffer.
#include <stdlib.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

#include "liblocal/attrlist.h"
#include "liblocal/kv_msg.h"

namespace {

std::string take(char* s) {
    std::string r = s != nullptr ? s : "(null)";
    free(s);
    return r;
}

structext* sample() {
    return msg_structext_create(4321, "copy %s to %s: %d\n", ARG_PATH, "/a b/c", ARG_HOSTNAME, "h1",
                                ARG_INT, "-5");
}

void expect_same(const structext* a, const structext* b) {
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(a->MsgId, b->MsgId);
    EXPECT_STREQ(a->form, b->form);
    ASSERT_EQ(a->argcount, b->argcount);
    for (int i = 0; i < a->argcount; ++i) {
        EXPECT_EQ(a->arglist[i]->argdesc, b->arglist[i]->argdesc);
        EXPECT_STREQ(a->arglist[i]->arg, b->arglist[i]->arg);
    }
}

TEST(Stbuf, LayoutAndRoundTrip) {
    structext* st = sample();
    std::string sb = take(msg_structext_to_stbuf(st));
    EXPECT_EQ(sb, "4321 18 copy %s to %s: %d\n 3 23 6 /a b/c 12 2 h1 1 2 -5");
    structext* back = msg_stbuf_to_structext(sb.c_str());
    expect_same(st, back);
    EXPECT_EQ(take(msg_structext_to_stbuf(back)), sb);
}

TEST(Stbuf, RawBytesAndNoArguments) {
    structext* st = msg_structext_create(0, "%s", ARG_TEXT, "a 9 9 \"<&> 3 x");
    expect_same(st, msg_stbuf_to_structext(take(msg_structext_to_stbuf(st)).c_str()));
    structext* none = msg_stbuf_to_structext("12 5 hello");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->argcount, 0);
    EXPECT_STREQ(none->form, "hello");
}

TEST(Stbuf, MalformedGivesNull) {
    const char* bad[] = {
        "",
        "x 5 hello",   // first token not a number
        "1 6 hello",   // form shorter than its length
        "1 5 helloX",  // byte after the form neither NUL nor blank
        "1 -5 hello",
        "1 2 %s 1 0 9 abc",         // argument shorter than its length
        "1 2 %s 2 0 1 a",           // second argument missing
        "1 2 %s 1 0 1 a trailing",  // junk after the last argument
        "1 2 %s 1 x 1 a",           // kind not a number
        "1 2 %s 99999999 0 1 a",    // count larger than the text could hold
        "99999999999 1 a",          // number out of range
    };
    // A failed parse takes no ring record: one made before outlives many
    // more failures than the ring holds.
    structext* keep = msg_stbuf_to_structext("7 2 %s 1 0 4 kept");
    ASSERT_NE(keep, nullptr);
    for (int round = 0; round < 40; ++round) {
        for (const char* b : bad) {
            EXPECT_EQ(msg_stbuf_to_structext(b), nullptr) << b;
            EXPECT_STREQ(render_stbuf(nullptr, b), "") << b;
            EXPECT_EQ(msg_create_from_stbuf(0, const_cast<char*>(b)), nullptr) << b;
        }
    }
    EXPECT_STREQ(render_structext(nullptr, keep), "kept");
    EXPECT_EQ(msg_stbuf_to_structext(nullptr), nullptr);
}

TEST(Stbuf, CountThatIsNoNumberMeansNoArguments) {
    structext* st = msg_stbuf_to_structext("3 4 ab%s zz");
    // " zz" is not a count: the message is kept, without arguments.
    ASSERT_NE(st, nullptr);
    EXPECT_EQ(st->argcount, 0);
}

TEST(Stbuf, LongArgumentStoredAs2047Bytes) {
    std::string big(3000, 'k');
    structext* st = msg_structext_create(1, "%s", ARG_TEXT, big.c_str());
    structext* back = msg_stbuf_to_structext(take(msg_structext_to_stbuf(st)).c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(strlen(back->arglist[0]->arg), 2047u);
    EXPECT_EQ(strlen(st->arglist[0]->arg), 3000u);  // the source is untouched
}

TEST(Stbuf, ParsedKind52IsTextNotAPointer) {
    structext* st = msg_stbuf_to_structext("0 2 %s 1 52 12 0 4 leaf 0 0");
    ASSERT_NE(st, nullptr);
    EXPECT_EQ(st->arglist[0]->argdesc, ARG_NESTED_STBUF);
}

TEST(Stbuf, CreationHelpers) {
    EXPECT_EQ(take(msg_stbuf_create(8, "n=%d", ARG_INT, "3")), "8 4 n=%d 1 1 1 3");
    EXPECT_EQ(take(msg_string_to_stbuf(const_cast<char*>("plain text"))), "0 10 plain text");
    std::string big(3000, 'z');
    EXPECT_EQ(take(msg_string_to_stbuf(const_cast<char*>(big.c_str()))),
              "0 2047 " + std::string(2047, 'z'));
    EXPECT_EQ(take(msg_idlit_to_stbuf(const_cast<char*>("512:Disk full"))), "512 9 Disk full");
    EXPECT_EQ(msg_idlit_to_stbuf(const_cast<char*>("no colon")), nullptr);
    structext* s = msg_string_to_structext("50% of %s");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(render_structext(nullptr, s), "50% of %s");
}

TEST(Stbuf, PopulateOverflowGivesAParsableSubstitute) {
    char buf[200];
    EXPECT_EQ(msg_stbuf_populate(9, buf, sizeof(buf), "%s", ARG_TEXT, "fits"), buf);
    EXPECT_STREQ(buf, "9 2 %s 1 0 4 fits");
    char small[60];
    std::string big(100, 'o');
    msg_stbuf_populate(77, small, sizeof(small), "%s", ARG_TEXT, big.c_str());
    EXPECT_STREQ(render_stbuf(nullptr, small), "stbuf overflow, msgID:77");
}

TEST(Xml, LayoutRoundTripAndEntities) {
    structext* st = msg_structext_create(3, "a<b> & \"%s\"", ARG_TEXT, "it's <x>&amp;");
    std::string x = take(msg_structext_to_xml(st));
    EXPECT_EQ(x,
              "<MSG id=\"3\" form=\"a&lt;b&gt; &amp; &quot;%s&quot;\" argcount=\"1\"> <MSGARGS> "
              "<MSGARG arg=\"it&apos;s &lt;x&gt;&amp;amp;\" argdesc=\"0\"/> </MSGARGS> </MSG>");
    EXPECT_TRUE(is_structext_xml(x.c_str()));
    expect_same(st, msg_xml_to_structext(x.c_str()));
    structext* empty = msg_structext_create(0, "none");
    expect_same(empty, msg_xml_to_structext(take(msg_structext_to_xml(empty)).c_str()));
}

TEST(Xml, MalformedGivesNull) {
    const char* bad[] = {
        "<MSG id=\"1\" form=\"x\" argcount=\"1\"> <MSGARGS> </MSGARGS> </MSG>",  // count mismatch
        "<MSG id=\"x\" form=\"x\"> </MSG>",
        "<MSG form=\"x\"> </MSG>",
        "<MSG id=\"1\" form=\"x> </MSG>",
        "<MSG id=\"1\" form=\"x\"> <MSGARGS> <MSGARG arg=\"a\"/> </MSGARGS> </MSG>",
        "<MSG id=\"1\" form=\"x\"> <MSGARGS> <OTHER/> </MSGARGS> </MSG>",
        "<MSG id=\"1\" form=\"x\">",
        "no xml",
    };
    for (const char* b : bad) EXPECT_EQ(msg_xml_to_structext(b), nullptr) << b;
    EXPECT_FALSE(is_structext_xml("<MSG only"));
}

TEST(XmlChar, EncodeDecode) {
    EXPECT_EQ(take(msg_xml_char_encode("<&>\"'")), "&lt;&amp;&gt;&quot;&apos;");
    EXPECT_EQ(take(msg_xml_char_decode("&lt;&amp;lt;&bogus;&")), "<&lt;&bogus;&");
}

TEST(ValueList, RoundTrip) {
    structext* st = sample();
    vallist* vl = msg_structext_to_vallist(st);
    ASSERT_NE(vl, nullptr);
    EXPECT_STREQ(vl->value, "4321");
    EXPECT_STREQ(vl->next->value, st->form);
    EXPECT_STREQ(vl->next->next->value, "3");
    expect_same(st, msg_vallist_to_structext(vl));
    // Cut short: no record.
    vallist* cut = vl->next->next->next->next;
    vallist* rest = cut->next;
    cut->next = nullptr;
    EXPECT_EQ(msg_vallist_to_structext(vl), nullptr);
    cut->next = rest;
    vallist_free(vl);
}

TEST(WireForm, RenderingThenStbuf) {
    structext* st = msg_structext_create(5, "job %d of %d ok", ARG_INT, "1", ARG_INT, "2");
    std::string w = take(msg_structext_to_stxdrbuf(st));
    EXPECT_EQ(w, "job 1 of 2 ok 5 15 job %d of %d ok 2 1 1 1 1 1 2");
    expect_same(st, msg_stxdrbuf_to_structext(w.c_str()));
    EXPECT_EQ(msg_stxdrbuf_to_structext("no stbuf here"), nullptr);
}

TEST(ErrBuf, RoundTripKeepsCircumstances) {
    errinfo* e = msg_create(11, 0, "%s went away", ARG_HOSTNAME, "alpha beta");
    std::string b = take(msg_errinfo_to_errbuf(e));
    errinfo* back = msg_errbuf_to_errinfo(b.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_STREQ(back->errstr, "alpha beta went away");
    EXPECT_EQ(back->timestamp, e->timestamp);
    EXPECT_EQ(back->processID, e->processID);
    EXPECT_EQ(back->threadID, e->threadID);
    EXPECT_STREQ(back->hostName, e->hostName);
    EXPECT_STREQ(back->programName, e->programName);
    expect_same(errinfo_structext(e), errinfo_structext(back));
}

TEST(ErrBuf, RecordWithoutFormIsItsTextAndEmptyIsNull) {
    errinfo e;
    memset(&e, 0, sizeof(e));
    EXPECT_EQ(msg_errinfo_to_errbuf(&e), nullptr);
    e.errstr = const_cast<char*>("just text");
    EXPECT_EQ(take(msg_errinfo_to_errbuf(&e)), "just text");
    errinfo* back = msg_errbuf_to_errinfo("just text");
    ASSERT_NE(back, nullptr);
    EXPECT_STREQ(back->errstr, "just text");
    EXPECT_EQ(back->form, nullptr);
}

TEST(Mlit, CreateFromIdColonText) {
    errinfo* e = msg_create_from_mlit(0, const_cast<char*>("900:Volume is offline"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->MsgId, 900);
    EXPECT_STREQ(e->errstr, "Volume is offline");
    EXPECT_EQ(msg_create_from_mlit(0, const_cast<char*>("no colon")), nullptr);
    olderrinfo o = {20005, const_cast<char*>("old text")};
    errinfo* f = msg_create_from_olderrinfo(&o);
    EXPECT_STREQ(f->errstr, "old text");
    EXPECT_STREQ(f->form, "%s");
    olderrinfo c = {0, nullptr};
    err_conv2(f, &c);
    EXPECT_EQ(c.errnum, f->errnum);
    EXPECT_STREQ(c.errstr, "old text");
    free(c.errstr);
}

}  // namespace
