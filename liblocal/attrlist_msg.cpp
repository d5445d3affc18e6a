// Where the list family meets the message layer: rendering of structured
// message values, printing of formatted attributes, the trace sink.
#include <stdio.h>

#include <atomic>
#include <string>

#include "liblocal/attrlist.h"

namespace {
std::atomic<attr_trace_fn> g_trace{nullptr};
thread_local std::string t_rendered;
}  // namespace

attr_trace_fn attrlist_set_trace_hook(attr_trace_fn fn) { return g_trace.exchange(fn); }

void vallist_trace(const char* text) { kv_trace_line(9, 0x100, text); }

void kv_trace_line(int level, unsigned mask, const char* text) {
    attr_trace_fn fn = g_trace.load();
    if (fn != nullptr) fn(level, mask, text);
}

const char* attr_render_value_stbuf(const char* stbuf) {
    t_rendered = stbuf != nullptr ? stbuf : "";
    return t_rendered.c_str();
}

void attr_write_text(FILE* fp, const char* text, size_t len) {
    fwrite(text, 1, len, fp);
}
