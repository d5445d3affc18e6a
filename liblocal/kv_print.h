// Printing to streams with the library's UTF-8 convention, the flags that
// mark user-facing and UTF-8 streams and descriptors, and the closing calls
// that keep those flags right. Thread-safe (the flag tables have one mutex).
#pragma once

#include <stdarg.h>
#include <stdio.h>

// Streams or descriptors flagged user-facing get text converted from UTF-8
// to the locale's form; those flagged UTF-8 get it as it stands (the UTF-8
// flag wins when both are set). `on` 0 removes the flag.
void kv_set_user_fp(FILE* fp, int on);
void kv_set_user_fd(int fd, int on);
void kv_set_utf8_fp(FILE* fp, int on);
void kv_set_utf8_fd(int fd, int on);
int kv_is_user_fp(FILE* fp);  // by the stream or its descriptor
int kv_is_user_fd(int fd);
int kv_is_utf8_fp(FILE* fp);
int kv_is_utf8_fd(int fd);

int kv_fprintf(FILE* fp, const char* format, ...) __attribute__((format(printf, 2, 3)));
int kv_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
int kv_vfprintf(FILE* fp, const char* format, va_list ap);
int kv_vprintf(const char* format, va_list ap);
int kv_fputs(const char* s, FILE* fp);
int kv_puts(const char* s);
// fgets; on a user-facing stream the text is converted to UTF-8, cut at a
// character boundary to fit `n`.
char* kv_fgets(char* s, int n, FILE* stream);

// A descriptor below 1 is left alone and 0 returned, so that standard input
// cannot be closed by accident. Otherwise the flags are dropped and it closes.
int kv_close(int fd);
// The same for a stream (judged by its descriptor); null gives EOF.
int kv_fclose(FILE* fp);
