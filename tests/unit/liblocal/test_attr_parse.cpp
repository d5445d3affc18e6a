// Reading the text form back: the resumable lexer and the round trip with
// the writer.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "liblocal/attrlist.h"

namespace {

struct Tok {
    int kind;
    std::string text;
    bool operator==(const Tok& o) const { return kind == o.kind && text == o.text; }
};
std::ostream& operator<<(std::ostream& os, const Tok& t) {
    return os << t.kind << ":'" << t.text << "'";
}

// Feeds `text` in chunks of `chunk` bytes and collects the tokens.
std::vector<Tok> lex(const std::string& text, size_t chunk) {
    std::vector<Tok> out;
    token_rap tok;
    memset(&tok, 0, sizeof tok);
    parse_state ps;
    memset(&ps, 0, sizeof ps);
    int line = 1, off = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        std::string piece = text.substr(pos, chunk);
        char* buf = &piece[0];
        ssize_t left = (ssize_t)piece.size();
        while (left > 0) {
            if (gettoken_rap(&buf, &left, &line, &off, &tok, &ps) == 0)
                out.push_back({tok.kind, tok.kind == TOK_STRING ? tok.value : ""});
        }
        pos += chunk;
    }
    if (ps.intok) {
        ssize_t none = 0;
        gettoken_rap(nullptr, &none, &line, &off, &tok, &ps);
        out.push_back({tok.kind, tok.kind == TOK_STRING ? tok.value : ""});
    }
    free(tok.value);
    return out;
}

TEST(Lexer, TokensOfOneAttributeLine) {
    std::vector<Tok> want = {{TOK_STRING, "name"},       {TOK_COLON, ""},
                             {TOK_STRING, "a b"},        {TOK_COMMA, ""},
                             {TOK_STRING, "x,y: \"q\""}, {TOK_SEMICOLON, ""}};
    std::string text = "   name : a b  , \"x,y: \\\"q\\\"\";\n";
    EXPECT_EQ(lex(text, 1000), want);
    // Any cut of the input gives the same tokens.
    for (size_t chunk = 1; chunk < 8; chunk++)
        EXPECT_EQ(lex(text, chunk), want) << "chunk " << chunk;
}

TEST(Lexer, CommentsContinuationsAndNewlines) {
    std::string text = "# whole line\nn: one\\\ntwo\n\nm: \"in\nquote\"  \t\r;\n";
    std::vector<Tok> want = {{TOK_STRING, "n"}, {TOK_COLON, ""},           {TOK_STRING, "onetwo"},
                             {TOK_NEWLINE, ""}, {TOK_NEWLINE, ""},         {TOK_STRING, "m"},
                             {TOK_COLON, ""},   {TOK_STRING, "in\nquote"}, {TOK_SEMICOLON, ""}};
    EXPECT_EQ(lex(text, 1000), want);
    EXPECT_EQ(lex(text, 3), want);
}

TEST(Lexer, QuotedBlanksSurviveTrimming) {
    std::string text = "v: \" padded \"  ;";
    std::vector<Tok> toks = lex(text, 1000);
    ASSERT_GE(toks.size(), 3u);
    EXPECT_EQ(toks[2], (Tok{TOK_STRING, " padded "}));
    EXPECT_EQ(toks.back().kind, TOK_SEMICOLON);
}

TEST(Lexer, TrailingBlanksGoEvenAfterTheValueBufferGrew) {
    // The value outgrows its first buffer after the quoted stretch; the
    // stretch's end must still be known where the buffer moved to.
    std::string text = "a: \"x\"" + std::string(2050, 'y') + "   ;";
    std::vector<Tok> toks = lex(text, 1000);
    ASSERT_GE(toks.size(), 3u);
    EXPECT_EQ(toks[2], (Tok{TOK_STRING, "x" + std::string(2050, 'y')}));
}

TEST(Lexer, NullBufferEndsAnOpenValue) {
    token_rap tok;
    memset(&tok, 0, sizeof tok);
    parse_state ps;
    memset(&ps, 0, sizeof ps);
    int line = 1, off = 0;
    char text[] = "tail";
    char* buf = text;
    ssize_t left = 4;
    EXPECT_NE(gettoken_rap(&buf, &left, &line, &off, &tok, &ps), 0);
    EXPECT_EQ(gettoken_rap(nullptr, &left, &line, &off, &tok, &ps), 0);
    EXPECT_EQ(tok.kind, TOK_STRING);
    EXPECT_STREQ(tok.value, "tail");
    EXPECT_EQ(ps.intok, 0);
    free(tok.value);
}

TEST(Lexer, LongValueGrowsItsBuffer) {
    std::string big(10000, 'k');
    std::vector<Tok> toks = lex("n: " + big + ";", 777);
    ASSERT_EQ(toks.size(), 4u);
    EXPECT_EQ(toks[2].text, big);
}

TEST(ParseText, RoundTripWithTheWriter) {
    attrlist* al = nullptr;
    attrlist_add(&al, "plain", "a");
    attrlist_add(&al, "plain", "b c");
    attrlist_add(&al, "special", "x,y;z:\"w\"\\ # not a comment");
    attrlist_add(&al, "multi", "line1\nline2");
    attrlist_addempty(&al, "emptyval", "");
    attrlist_add(&al, "novalue", nullptr);
    attrlist_add(&al, "long", std::string(300, 'L').c_str());
    attrlist_add(&al, "long", std::string(150, 'M').c_str());
    for (int i = 0; i < 12; i++) attrlist_add(&al, "many", ("value" + std::to_string(i)).c_str());
    attrlist_add(&al, "spaces", " lead and trail ");

    size_t size = 0;
    size_t need = attrlist_build_str(al, nullptr, &size);
    std::string buf(need + 1, '\0');
    size = buf.size();
    attrlist_build_str(al, &buf[0], &size);
    attrlist* back = attrlist_parse_text(buf.c_str());
    EXPECT_TRUE(attrlist_equal(al, back)) << buf;
    // Exactly, not only folded.
    for (attrlist *a = al, *b = back; a != nullptr && b != nullptr; a = a->next, b = b->next)
        EXPECT_EQ(vallist_cmp_exact(a->values, b->values), 0) << a->name;
    attrlist_free(al);
    attrlist_free(back);
}

TEST(ParseText, HandWrittenResource) {
    const char* text =
        "# a resource\n"
        "                        name: client1;\n"
        "aliases: c1, \"c1.example\",\n"
        "         c1-backup;\n"
        "flags: ;\n";
    attrlist* al = attrlist_parse_text(text);
    EXPECT_STREQ(attrlist_getvalue(al, (char*)"name"), "client1");
    attrlist* a = attrlist_find(al, "ALIASES");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(vallist_count(a->values), 3);
    EXPECT_STREQ(vallist_pos_value(a->values, 3), "c1-backup");
    attrlist* f = attrlist_find(al, "flags");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->values, nullptr);
    attrlist_free(al);
    EXPECT_EQ(attrlist_parse_text(nullptr), nullptr);
    EXPECT_EQ(attrlist_parse_text(""), nullptr);
}

}  // namespace
