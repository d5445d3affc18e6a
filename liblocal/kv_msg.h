// Structured message and error records, and the calls that create, copy,
// render and print them. Records from msg_create belong to a per-thread ring
// and never to the caller; rendered and literal texts come from process pools
// guarded by their own locks.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// One argument of a message: its kind tag and its value as text (owned).
struct argtuple {
    int argdesc;
    char* arg;
};

// A message without error data. MsgId 0: no number; -5: a free pool slot.
struct structext {
    int MsgId;
    char* form;
    int argcount;
    argtuple** arglist;
};

// A message with its circumstances. The last four fields are exactly a
// structext, and the library treats them as one.
struct errinfo {
    int errnum;
    char* errstr;
    uint64_t timestamp;
    int threadID;
    int processID;
    int activityID;
    char hostName[64];
    char* programName;
    int MsgId;
    char* form;
    int argcount;
    argtuple** arglist;
};

// Argument kinds (the number is part of the wire and log formats).
enum {
    ARG_TEXT = 0,
    ARG_INT = 1,
    ARG_ULONG = 2,
    ARG_UINT = 5,
    ARG_ATTRNAME = 10,
    ARG_LITERAL_ID = 11,
    ARG_HOSTNAME = 12,
    ARG_USERNAME = 13,
    ARG_NETADDR = 14,
    ARG_IDENTIFIER = 20,
    ARG_PATH = 23,
    ARG_SYSERR = 24,
    ARG_OBJNAME = 25,
    ARG_CHAR = 29,
    ARG_INT64 = 42,
    ARG_NESTED_STBUF = 49,
    ARG_NESTED_ERRINFO = 52,
};

#define MSG_FREE_SLOT (-5)

// Composite error code: type * 10000 + severity * 1000 + number.
#define ERR_TYPE(e) ((e) / 10000)
#define ERR_SEV(e) (((e) / 1000) % 10)
#define ERR_NUM(e) ((e) % 1000)

errinfo* msg_create(int msgID, int errnum, const char* form, ...);
errinfo* msg_vcreate(int msgID, int errnum, const char* form, va_list ap);
char* msg_lit_create(int msgID, const char* form);
void msg_free(errinfo* err);
void err_free(errinfo* err);
void err_dup2(errinfo* err, errinfo* newerr);
void msg_print(int msgID, int errnum, int destination, const char* form, ...);
char* render_string(int msgID, const char* locale, const char* form, ...);
char* vrender_string(int msgID, const char* locale, const char* form, va_list ap);
int err_setsev(int type, int severity, int errnum);

// Number to text, into a literal pool buffer (do not free).
char* inttostr(int v);
char* uinttostr(unsigned int v);
char* longtostr(long v);
char* ulongtostr(unsigned long v);
char* floattostr(double v);
char* ptrtostr(const void* v);
char* chartostr(char v);

// printf family with the renderer's UTF-8 rules over plain C arguments.
int kv_snprintf(char* str, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int kv_sprintf(char* s, const char* format, ...) __attribute__((format(printf, 2, 3)));
int i18n_vsprintf(char* buf, char** bufp, const char* fmt, va_list ap);
int i18n_vsnprintf(char* buf, size_t len, char** bufp, const char* fmt, va_list ap);
int i18n_sprintf(char* buf, char** bufp, const char* fmt, ...);
