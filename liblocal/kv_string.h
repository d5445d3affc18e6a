// String helpers of the portable layer: bounded copies, trimming, vectors,
// the re-entrant strtok, and the line tokenizer with its reverse,
// command_string. All calls are thread-safe; they touch only their arguments.
#pragma once

#include <stddef.h>
#include <sys/types.h>

struct errinfo;

// Bounded copy and append that always terminate (when siz > 0). The result is
// the length they tried to make, so a result >= siz means the text was cut.
size_t kv_strlcpy(char* dst, const char* src, const size_t siz);
size_t kv_strlcat(char* dst, const char* src, const size_t siz);
size_t kv_strlen(const char* ptr);  // 0 for null

// Change case in place (ASCII letters); return their argument.
char* kv_strlower(char* string);
char* kv_strupper(char* string);

// A new string with every occurrence of `from` replaced by `to` (caller
// frees); null for a null string; an empty `from` copies the string.
char* kv_strreplace(const char* str, const char* from, const char* to);
// Case-insensitive strstr; null when absent or for null arguments.
char* kv_stristr(const char* haystack, const char* needle);

// Null-terminated vectors of allocated strings.
char** kv_strvcat(char** vec, const char* str);  // appends a copy; may move the vector
char** kv_strvdup(char** vec);                   // deep copy; null for null
void kv_strvfree(char** vec);                    // frees strings and vector
int kv_strvlen(char** vec);

int kv_strallnum(const char* s);    // 1 if non-empty and all decimal digits
int kv_strhasalnum(const char* s);  // 1 if any letter or digit

// Removes white space at both ends in place, the text moved to the start of
// the buffer. Null and empty are accepted. Always 0.
int remove_buffering_space(char* string);
// Removes one pair of matching double or single quotes that enclose the
// whole text, in place. 1 if a pair was removed, else 0.
int remove_enclosing_quotes(char* string);
// Both of the above: trimming first, then the quotes, then trimming again.
int remove_buffering_space_and_enclosing_quotes(char* string);
int str_end_with(const char* s, const char* suffix);  // 1 or 0
int all_whitespace(const char* s);                    // 1 for null and empty too
// A new string of at most `len` bytes from `start` (caller frees); the empty
// text when `start` lies past the end; null for a null string or bad bounds.
char* substr(const char* s, int start, int len);
int kv_strcount(const char* s, char c);       // occurrences of c
int kv_strcmp(const char* a, const char* b);  // null sorts first

char* kvstrtok_r(char* s, const char* delim, char** save_ptr);

// Splits `line` in place into tokens (quoting: double quotes, with `qq` also
// single and back quotes and backslash escapes; parentheses). On success
// returns null, *numtokens is the count and *tokens_ppp a null-terminated
// vector into the buffer of `line` that the caller frees. A null `line` gives
// 0 tokens and a vector of one null entry. A null `ifs_p` separates at blank,
// tab and newline.
errinfo* tokenize(char* line, int* numtokens, char*** tokens_ppp, char* ifs_p, int qq);

// Joins arguments into one line with a blank between. With `qq` each is put
// in double quotes and a backslash goes before each double quote and
// backslash. A null `buf` allocates (caller frees); a `buf` of `siz` bytes
// too small for the result gives null.
char* command_string(char** args, int qq, char* buf, ssize_t siz);
