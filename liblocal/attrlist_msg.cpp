// Where the list family meets the message layer: rendering of structured
// message values, printing of formatted attributes, the trace sink.
#include <stdio.h>

#include <string>

#include "liblocal/attrlist.h"
#include "liblocal/kv_msg.h"
#include "liblocal/kv_print.h"
#include "liblocal/kv_trace.h"

namespace {
thread_local std::string t_rendered;
}  // namespace

attr_trace_fn attrlist_set_trace_hook(attr_trace_fn fn) {
    return kv_set_trace_hook(fn);
}

void vallist_trace(const char* text) {
    kv_trace(9, 0x100, "%s", text);
}

const char* attr_render_value_stbuf(const char* stbuf) {
    // The renderer's answer lives in a shared pool: keep a private copy.
    const char* r = render_stbuf(nullptr, stbuf != nullptr ? stbuf : "");
    t_rendered = r != nullptr ? r : "";
    return t_rendered.c_str();
}

void attr_write_text(FILE* fp, const char* text, size_t len) {
    // The console goes through the message layer (so that a custom log sees
    // it too); files and long texts go straight to the stream.
    int dest = fp == stdout ? MSG_DEST_STDOUT : fp == stderr ? MSG_DEST_STDERR : 0;
    if (dest != 0 && len < 16384) {
        msg_print(50000, 0, dest, "%.*s", 1, inttostr((int)len), 0, text);
        return;
    }
    kv_fprintf(fp, "%.*s", (int)len, text);
}
