// The text form of values and attributes: quoting of one value, the
// formatted "name: value, value;" lines, printing and building strings.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <limits>
#include <string>

#include "liblocal/attrlist.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_utf8.h"

namespace {
// Per-thread working buffer of val_str: grows, never shrinks.
struct ValStrBuf {
    char* buf = nullptr;
    size_t size = 0;
    ~ValStrBuf() { free(buf); }
};
thread_local ValStrBuf t_valstr;

bool needs_quotes(const char* vp, size_t len, size_t maxlinelen) {
    if (3 * len + 4 > maxlinelen) return true;
    if (strpbrk(vp, ",:;\\\n\"#") != nullptr) return true;
    char first = vp[0], last = vp[len - 1];
    return first == ' ' || first == '\t' || last == ' ' || last == '\t';
}

const size_t kIndent = 30;

// Folds a long value: a backslash-newline whenever the column reaches
// linelen - 2, except right behind an escaping backslash.
std::string fold_value(const char* text, size_t linelen) {
    std::string out;
    size_t col = 0;
    bool open_escape = false;
    for (const char* p = text; *p != '\0';) {
        if (linelen >= 2 && col >= linelen - 2 && !open_escape) {
            out += "\\\n";
            col = 0;
        }
        size_t n = static_cast<size_t>(utf8_charlen(p));
        char c = *p;
        out.append(p, n);
        p += n;
        if (c == '\t') {
            col = (col / 8 + 1) * 8;
        } else if (c == '\n') {
            col = 0;
        } else {
            col++;
        }
        open_escape = c == '\\' ? !open_escape : false;
    }
    return out;
}

bool ends_with_i18n(const char* name) {
    size_t n = strlen(name);
    return n >= 4 && strcmp(name + n - 4, "I18N") == 0;
}

std::string format_attr(attrlist* attr, ssize_t linelen, int needquote, int flags) {
    std::string out;
    char head[8300];
    if ((flags & ATTR_FLAG_NOPAD) != 0)
        snprintf(head, sizeof head, "%s: ", attr->name);
    else
        snprintf(head, sizeof head, "%*s: ", 28, attr->name);
    out = head;
    size_t ll = linelen > 0 ? (size_t)linelen : 0;
    size_t col = kIndent;
    bool first = true;
    for (vallist* v = attr->values; v != nullptr; v = v->next) {
        const char* text = v->value;
        std::string rendered;
        if ((flags & ATTR_FLAG_MASK) != 0) {
            text = "*******";
        } else if ((ends_with_i18n(attr->name) || (flags & ATTR_FLAG_STBUF_ALWAYS) != 0) &&
                   (flags & ATTR_FLAG_STBUF_NEVER) == 0) {
            rendered = attr_render_value_stbuf(text);
            text = rendered.c_str();
        }
        std::string q = val_str_nowrap(const_cast<char*>(text), needquote);
        size_t w = utf8_ttystrlen(q.c_str());
        if (!first) out += ",";
        if (w + 32 < ll) {
            if (w + col + 2 >= ll) {
                out += "\n";
                out.append(kIndent, ' ');
                out += q;
                col = kIndent + w;
            } else {
                if (!first) out += " ";
                out += q;
                col += w + (first ? 0 : 2);
            }
        } else {
            std::string folded = fold_value(q.c_str(), ll);
            if (first) {
                if (folded.compare(0, 2, "\"\n") != 0) out += "\\\n";
            } else {
                out += "\n";
            }
            out += folded;
            col = ll;
        }
        first = false;
    }
    out += ";\n";
    return out;
}
}  // namespace

static char* val_str_internal(char* vp, int needquote, size_t maxlinelen) {
    if (vp == nullptr) vp = const_cast<char*>("");
    size_t len = strlen(vp);
    size_t need = 3 * len + 4;
    if (t_valstr.size < need) {
        t_valstr.buf = static_cast<char*>(xrealloc(t_valstr.buf, need));
        t_valstr.size = need;
    }
    char* o = t_valstr.buf;
    if (len == 0) {
        strcpy(o, "\"\"");
        return o;
    }
    bool quote = needquote != 0 || needs_quotes(vp, len, maxlinelen);
    std::string out;
    if (quote) out += '"';
    size_t col = out.size();
    size_t wrap_at = maxlinelen > 4 ? maxlinelen - 4 : 1;
    for (size_t i = 0; i < len; i++) {
        char c = vp[i];
        if (c == '\n' && i == len - 1) break;  // a final newline is dropped
        if (col >= wrap_at) {
            out += "\\\n";
            col = 0;
        }
        if (c == '\\' || c == '"') {
            out += '\\';
            col++;
        }
        out += c;
        col = c == '\n' ? 0 : col + 1;
    }
    if (quote) out += '"';
    // The escapes and breaks can outgrow 3n+4 only for tiny line lengths.
    if (out.size() + 1 > t_valstr.size) {
        t_valstr.buf = static_cast<char*>(xrealloc(t_valstr.buf, out.size() + 1));
        t_valstr.size = out.size() + 1;
    }
    memcpy(t_valstr.buf, out.c_str(), out.size() + 1);
    return t_valstr.buf;
}

char* val_str(char* vp, int needquote) {
    return val_str_internal(vp, needquote, 2048);
}

char* val_str_nowrap(char* vp, int needquote) {
    return val_str_internal(vp, needquote, std::numeric_limits<size_t>::max());
}

ssize_t attr_sprintf(char* buf, ssize_t buflen, ssize_t linelen, attrlist* attr, int needquote,
                     int getsize, int flags) {
    if (!getsize && buf != nullptr && buflen > 0) buf[0] = '\0';
    if (attr == nullptr || attr->name[0] == '\0') return 0;
    if (strlen(attr->name) + 3 > 8191) return 0;
    std::string text = format_attr(attr, linelen, needquote, flags);
    if (getsize) return (ssize_t)text.size() + 1;
    if (buf == nullptr || buflen <= 0) return 0;
    size_t n = text.size() < (size_t)buflen ? text.size() : (size_t)buflen - 1;
    memcpy(buf, text.data(), n);
    buf[n] = '\0';
    return (ssize_t)n;
}

void attr_print(FILE* fp, attrlist* attr, int flags) {
    if (fp == nullptr || attr == nullptr) return;
    if (strcmp(attr->name, "VMR_ENCRYPTION_PHRASES") == 0) flags |= ATTR_FLAG_MASK;
    char small[160];
    ssize_t size = attr_sprintf(nullptr, 0, 80, attr, 0, 1, flags);
    if (size <= 0) return;
    char* buf = size <= (ssize_t)sizeof small ? small : static_cast<char*>(xmalloc((size_t)size));
    ssize_t n = attr_sprintf(buf, size, 80, attr, 0, 0, flags);
    attr_write_text(fp, buf, (size_t)n);
    if (buf != small) free(buf);
}

void attrlist_print(FILE* fp, attrlist* attrs) {
    int flags = 0;
    if (attrs != nullptr && strcmp(attrs->name, "nopadding") == 0) {
        flags = ATTR_FLAG_NOPAD;
        attrs = attrs->next;
    }
    for (; attrs != nullptr; attrs = attrs->next) attr_print(fp, attrs, flags);
}

size_t attrlist_build_str(attrlist* attrs, char* outbuff, size_t* buff_size) {
    if (attrs == nullptr || buff_size == nullptr) return 0;
    if (outbuff == nullptr && *buff_size != 0) return 0;
    size_t total = 0;
    bool sizing = *buff_size == 0;
    for (attrlist* a = attrs; a != nullptr; a = a->next) {
        if (a->name[0] == '\0') return 0;
        char small[160];
        ssize_t size = attr_sprintf(nullptr, 0, 80, a, 0, 1, 0);
        if (size <= 0) continue;
        if (sizing) {
            total += (size_t)size;
            continue;
        }
        char* buf =
            size <= (ssize_t)sizeof small ? small : static_cast<char*>(xmalloc((size_t)size));
        attr_sprintf(buf, size, 80, a, 0, 0, 0);
        // Bounded concatenation: never past the caller's buffer.
        size_t used = strnlen(outbuff, *buff_size);
        if (used < *buff_size) {
            size_t room = *buff_size - used - 1;
            size_t n = strlen(buf);
            if (n > room) n = room;
            memcpy(outbuff + used, buf, n);
            outbuff[used + n] = '\0';
        }
        if (buf != small) free(buf);
    }
    if (!sizing) total = strnlen(outbuff, *buff_size);
    *buff_size = total;
    return total;
}

void val_print(FILE* fp, vallist* vl) {
    if (fp == nullptr || vl == nullptr) return;
    fputs(val_str(vl->value, 0), fp);
}

void vallist_print(FILE* fp, vallist* vl) {
    if (fp == nullptr) return;
    for (vallist* v = vl; v != nullptr; v = v->next) {
        if (v != vl) fputs(", ", fp);
        val_print(fp, v);
    }
    fputc('\n', fp);
}

int vallist_display(FILE* fp, vallist* vl) {
    if (fp == nullptr) return 0;
    // Columns as wide as the widest value, as many as fit in 80.
    size_t widest = 1;
    int count = 0;
    for (vallist* v = vl; v != nullptr; v = v->next, count++) {
        size_t w = utf8_ttystrlen(v->value);
        if (w > widest) widest = w;
    }
    size_t per_line = 80 / (widest + 2);
    if (per_line == 0) per_line = 1;
    size_t i = 0;
    for (vallist* v = vl; v != nullptr; v = v->next, i++) {
        bool last_in_line = (i + 1) % per_line == 0 || v->next == nullptr;
        fputs(v->value, fp);
        if (!last_in_line)
            for (size_t pad = utf8_ttystrlen(v->value); pad < widest + 2; pad++) fputc(' ', fp);
        else
            fputc('\n', fp);
    }
    return count;
}
