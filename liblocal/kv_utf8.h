// UTF-8 helpers of the portable layer: terminal column measures for the
// renderer, and conversion between UTF-8 and the locale's multibyte form for
// paths and user-facing streams. Thread-safe.
#pragma once

#include <stddef.h>

// Terminal columns of the character that starts at `s`: 2 for wide East Asian
// characters, 0 for combining marks and for the end of the text, else 1. A
// byte that does not start a valid sequence counts as one column.
int utf8_ttywidth(const char* s);
// Bytes of the character that starts at `s` (1 for an invalid byte, 0 at the end).
int utf8_charlen(const char* s);
// Terminal columns of the whole text; 0 for null.
size_t utf8_ttystrlen(const char* s);

// 1 when the locale's form is UTF-8 itself (or plain ASCII text needs no work).
int kv_locale_is_utf8(void);

// Converts UTF-8 text to the locale's form. Returns `s` itself when no
// conversion is needed or possible, else a new string the caller frees; use
// kv_conv_free to release either case.
char* kv_syscalls_utf8s_to_mbs(const char* s);
// The reverse: the locale's form to UTF-8, with the same ownership rule.
char* kv_syscalls_mbs_to_utf8s(const char* s);
void kv_conv_free(const char* original, char* converted);
// The one iconv conversion of the library: `s` from code set `from` to `to`,
// in new memory the caller frees; null (errno kept) if any part fails, so
// that callers fall back to the text as it stands rather than to half of it.
char* kv_iconv_dup(const char* to, const char* from, const char* s);
