// Reading the text form of attributes: a lexer that can stop at the end of
// any chunk of input and pick up at the next call, and a small parser on it.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"

namespace {

void put(token_rap* tok, parse_state* ps, char c) {
    // Under 3 bytes free: grow by 2048.
    if (tok->value == nullptr || tok->valsz - ps->valchars < 3) {
        tok->valsz += 2048;
        tok->value = static_cast<char*>(xrealloc(tok->value, tok->valsz));
    }
    tok->value[ps->valchars++] = c;
    tok->value[ps->valchars] = '\0';
}

void finish_value(token_rap* tok, parse_state* ps) {
    if (tok->value == nullptr) put(tok, ps, '\0'), ps->valchars = 0;
    // Trailing blanks go, but never into a quoted stretch.
    size_t keep = ps->quote_end;
    while (ps->valchars > keep) {
        char c = tok->value[ps->valchars - 1];
        if (c != ' ' && c != '\t' && c != '\r') break;
        ps->valchars--;
    }
    tok->value[ps->valchars] = '\0';
    tok->kind = TOK_STRING;
}

}  // namespace

int gettoken_rap(char** bufp, ssize_t* charsp, int* linep, int* lineoffp, token_rap* tok,
                 parse_state* psp) {
    if (tok == nullptr || psp == nullptr || charsp == nullptr || linep == nullptr ||
        lineoffp == nullptr)
        return 0;
    if (bufp == nullptr || *bufp == nullptr) {
        // End of input: a value under way is complete.
        // A comma or semicolon still eating its line keeps its kind.
        if (psp->intok && psp->invalue && !psp->inquote)
            finish_value(tok, psp);
        else if (psp->intok && psp->invalue)
            finish_value(tok, psp);  // an unclosed quote
        else if (psp->intok && !psp->ineateol)
            tok->kind = TOK_NEWLINE;
        psp->ineateol = 0;
        psp->intok = 0;
        return 0;
    }
    if (!(psp->intok && psp->line == *linep && psp->lineoff == *lineoffp)) {
        psp->intok = 1;
        psp->inquote = 0;
        psp->invalue = 0;
        psp->ineateol = 0;
        psp->quote_end = 0;
        psp->valchars = 0;
        if (tok->value != nullptr) tok->value[0] = '\0';
    }
    char* p = *bufp;
    ssize_t left = *charsp;
    int done = 0;
    auto consume = [&](char c) {
        p++;
        left--;
        if (c == '\n') {
            (*linep)++;
            *lineoffp = 0;
        } else {
            (*lineoffp)++;
        }
    };
    while (left > 0 && !done) {
        char c = *p;
        if (psp->incomment) {
            consume(c);
            if (c == '\n') psp->incomment = 0;
            continue;
        }
        if (psp->ineateol) {
            if (c == '\n') {
                consume(c);
                psp->ineateol = 0;
                done = 1;
            } else if (c == ' ' || c == '\t' || c == '\r') {
                consume(c);
            } else {
                psp->ineateol = 0;
                done = 1;
            }
            continue;
        }
        if (psp->inbackslash) {
            consume(c);
            if (c == '\n') {
                psp->inbackslash = 0;  // continuation
            } else if (c == '\r') {
                // dropped; still escaping
            } else {
                psp->inbackslash = 0;
                put(tok, psp, c);
            }
            continue;
        }
        if (psp->inquote) {
            consume(c);
            if (c == '"') {
                psp->inquote = 0;
                if (tok->value == nullptr) put(tok, psp, '\0'), psp->valchars = 0;
                psp->quote_end = psp->valchars;
            } else if (c == '\\') {
                psp->inbackslash = 1;
            } else if (c != '\r') {
                put(tok, psp, c);
            }
            continue;
        }
        if (!psp->invalue) {
            switch (c) {
            case ' ':
            case '\t':
            case '\r': consume(c); break;
            case '\n':
                consume(c);
                tok->kind = TOK_NEWLINE;
                done = 1;
                break;
            case '"':
                consume(c);
                psp->invalue = 1;
                psp->inquote = 1;
                break;
            case '#':
                consume(c);
                psp->incomment = 1;
                break;
            case ',':
            case ';':
                consume(c);
                tok->kind = c == ',' ? TOK_COMMA : TOK_SEMICOLON;
                psp->ineateol = 1;
                break;
            case ':':
                consume(c);
                tok->kind = TOK_COLON;
                done = 1;
                break;
            case '\\':
                consume(c);
                psp->invalue = 1;
                psp->inbackslash = 1;
                break;
            default:
                consume(c);
                psp->invalue = 1;
                put(tok, psp, c);
            }
            continue;
        }
        // Inside an unquoted value.
        if (c == ',' || c == ':' || c == ';' || c == '\n') {
            finish_value(tok, psp);
            done = 1;
            continue;
        }
        consume(c);
        if (c == '#')
            psp->incomment = 1;
        else if (c == '"')
            psp->inquote = 1;
        else if (c == '\\')
            psp->inbackslash = 1;
        else
            put(tok, psp, c);
    }
    *bufp = p;
    *charsp = left;
    if (done) {
        psp->intok = 0;
        return 0;
    }
    psp->line = *linep;
    psp->lineoff = *lineoffp;
    return 1;
}

attrlist* attrlist_parse_text(const char* text) {
    if (text == nullptr) return nullptr;
    attrlist* out = nullptr;
    token_rap tok;
    memset(&tok, 0, sizeof tok);
    parse_state ps;
    memset(&ps, 0, sizeof ps);
    ps.state = PSTATE_START;
    char* buf = const_cast<char*>(text);
    ssize_t left = (ssize_t)strlen(text);
    int line = 1, off = 0;
    std::string name;
    vallist* vals = nullptr;
    vallist* vtail = nullptr;
    bool have_attr = false;
    auto flush = [&]() {
        if (have_attr) {
            attrlist_addlist(&out, const_cast<char*>(name.c_str()), vals);
            vallist_free(vals);
        }
        vals = vtail = nullptr;
        have_attr = false;
        ps.state = PSTATE_START;
    };
    for (;;) {
        int open = gettoken_rap(left > 0 ? &buf : nullptr, &left, &line, &off, &tok, &ps);
        if (open) continue;  // only at the end of the input: the next call closes it
        bool at_end = left <= 0 && !ps.intok;
        switch (ps.state) {
        case PSTATE_START:
            if (tok.kind == TOK_STRING) {
                name = tok.value != nullptr ? tok.value : "";
                have_attr = true;
                ps.state = PSTATE_ENDNAME;
            }
            break;
        case PSTATE_ENDNAME:
            if (tok.kind == TOK_COLON)
                ps.state = PSTATE_VALUE;
            else
                flush();
            break;
        case PSTATE_VALUE:
            if (tok.kind == TOK_STRING) {
                vallist_append(&vals, &vtail,
                               tok.value != nullptr ? tok.value : const_cast<char*>(""));
                ps.state = PSTATE_ENDVALUE;
            } else if (tok.kind != TOK_COMMA) {
                flush();
            }
            break;
        case PSTATE_ENDVALUE:
            if (tok.kind == TOK_COMMA)
                ps.state = PSTATE_VALUE;
            else
                flush();
            break;
        case PSTATE_DONE: break;
        }
        if (at_end) break;
        tok.kind = TOK_NEWLINE;  // a token that ended the input carries nothing further
    }
    flush();
    free(tok.value);
    return out;
}
