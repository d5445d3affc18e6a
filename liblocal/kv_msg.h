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

// The former wire form of an error: only the code and its text.
struct olderrinfo {
    int errnum;
    char* errstr;
};

// A message rendered for display, every field as an owned string
// (free_rendered_msgs releases it).
struct rendered_msg {
    char* timestamp;
    char* errnum;
    char* threadID;
    char* processID;
    char* activityID;
    char* hostName;
    char* programName;
    char* MsgID;
    char* locMsg;
};

// Sizes of the rings and pools; callers rely on them (a ring record stays
// valid for MSG_ERRINFO_RING_SIZE - 1 further creations on its thread).
#define MSG_ERRINFO_RING_SIZE 32
#define MSG_STRUCTEXT_RING_SIZE 32
#define MSG_BUFFER_POOL_COUNT 200
#define MSG_BUFFER_SIZE 18432
#define MSG_LIT_BUFFER_SIZE 3072
#define MSG_ARG_MAX 2047  // an argument's bytes in an stbuf
#define MSG_MAX_POSITIONS 254

// Destinations of msg_post / msg_print (a bit mask).
#define MSG_DEST_STDOUT 0x1
#define MSG_DEST_STDERR 0x2
#define MSG_DEST_CUSTLOG 0x8
#define MSG_DEST_LOGONLY 0x10
#define MSG_DEST_AUDIT 0x20
#define MSG_DEST_NOMSGID 0x80

// Flags of msg_log_open: which process log the stream becomes.
#define MSG_LOG_RENDERED 0x1   // the rendered log (rend_log_fp)
#define MSG_LOG_CUSTOM 0x2     // the custom log (cust_log_fp)
#define MSG_LOG_NOCONSOLE 0x4  // log lines are not copied to the console
#define MSG_LOG_AUDIT 0x8      // the audit log (msg_auditpost)

// Creation. Variable arguments are pairs (int argdesc, char* arg), as many
// as the format demands (get_num_args). Ring records: do not free(); release
// their strings with msg_free, keep them longer through err_dup2.
errinfo* msg_create(int msgID, int errnum, const char* form, ...);
errinfo* msg_vcreate(int msgID, int errnum, const char* form, va_list ap);
errinfo* msg_create_from_structext(int errnum, structext* srctxt);
errinfo* msg_create_from_stbuf(int errnum, char* stbuf);
errinfo* msg_create_from_mlit(int errnum, char* mlit);
errinfo* msg_create_from_olderrinfo(olderrinfo* oerr);
structext* msg_structext_create(int msgID, const char* form, ...);
structext* msg_vstructext_create(int msgID, const char* form, va_list ap);
structext* msg_structext_populate(structext* strtxt, int msgID, const char* form, ...);
structext* msg_vstructext_populate(structext* strtxt, int msgID, const char* form, va_list ap);
structext* msg_structext_new(int msgID, const char* form, int argcount, int* argdesc, char** arg);
char* msg_stbuf_create(int msgID, const char* form, ...);
char* msg_stbuf_populate(int msgID, char* outbuf, unsigned int bufsize, const char* form, ...);
char* msg_string_to_stbuf(char* in_str);
char* msg_idlit_to_stbuf(char* in_msg_idlit);
char* msg_string_to_mlit(const char* form);
char* msg_mlit_create(int msgID, const char* form);
char* msg_lit_create(int msgID, const char* form);
int get_num_args(const char* form);

// Disposal and copies.
void msg_free(errinfo* err);
void err_free(errinfo* err);
void msg_structext_free(structext* strtxt);
void msg_structext_depopulate(structext* strtxt);
void err_dup2(errinfo* err, errinfo* newerr);
errinfo* err_dup(errinfo* src_err);
errinfo* err_restore(errinfo* err);
errinfo* err_save(errinfo* err);
void err_conv2(errinfo* err, olderrinfo* newerr);
structext* errinfo_structext(errinfo* err);  // the structext tail of a record

// Error tables, types and severities.
int err_setsev(int type, int severity, int errnum);
const char* err_typedesc(int type);
const char* err_sevdesc(int severity);
void err_settype(int type, int maxerrno, const char* typname, char** strtab, int* sevtab);
errinfo* err_set(int type, int errnum);
errinfo* err_setstr(int type, int errnum, char* errstr);
errinfo* err_setall(int type, int severity, int errnum, char* errstr);
errinfo* err_accrue(const char* str);
errinfo* blow_err(int free_errbuf);
void errinfo_once(void);
void err_unsetall(void);
char* rpc_errstr(int idx);

// Output.
typedef void (*msg_post_func_t)(int destination, errinfo* my_msg);
void msg_post(int destination, errinfo* my_msg);
void err_print(errinfo* err);
void msg_err_print(int msgID, int errnum, const char* form, ...);
void msg_print(int msgID, int errnum, int destination, const char* form, ...);
void msg_set_post_func(msg_post_func_t func);
void msg_auditpost(errinfo* my_msg);
int msg_fprintf(FILE* fp, const char* format, ...) __attribute__((format(printf, 2, 3)));
int msg_printbuf(errinfo* my_msg, char* buf, size_t buf_size, const char* locale, int do_rend);
char* render_logline(const char* locale, char* buf);
FILE* msg_log_open(const char* path, const char* appname, int flags);
void msg_log_close(FILE* fp);
// Size (in MB) and number of kept versions of a log, asked when it opens.
typedef void (*logdtls_query_func_t)(const char* appname, int* size_mb, int* versions);
void setlog_dtls_query_func(logdtls_query_func_t func);
void msg_set_timestamps(int on);  // Timestamp_msgs
extern int Timestamp_msgs;

// Rendering. Pool buffers: do not free; valid through 199 further uses.
char* render_string(int msgID, const char* locale, const char* form, ...);
char* vrender_string(int msgID, const char* locale, const char* form, va_list ap);
char* render_structext(const char* locale, structext* strtxt);
void render_structext_dynamic(char** rendered_string, const char* locale, structext* strtxt);
char* render_stbuf(const char* locale, const char* stbuf);
char* render_literal(int msgID, const char* locale, const char* in_lit, char* out_lit);
char* render_literal_var(int msgID, const char* locale, const char* in_lit, char* out_lit);
char* render_literal_id(const char* locale, const char* in_lit_id, char* out_lit);
int i18n_render_structext(char* buf, size_t len, char** bufp, const char* locale,
                          structext* strtxt);
char* msg_handle_cs_arg(const char* locale, int argdesc, char* arg);
rendered_msg* msg_render(errinfo* err, const char* locale, long int displayMask);
void free_rendered_msgs(rendered_msg* rmsg);

// Text forms.
char* msg_structext_to_stbuf(structext* strtxt);       // new memory
structext* msg_stbuf_to_structext(const char* stbuf);  // ring record, null if malformed
structext* msg_string_to_structext(const char* str);
char* msg_structext_to_xml(structext* strtxt);  // new memory
structext* msg_xml_to_structext(const char* xml);
int is_structext_xml(const char* text);
char* msg_xml_char_encode(const char* in);  // new memory
char* msg_xml_char_decode(const char* in);  // new memory
struct vallist;
vallist* msg_structext_to_vallist(structext* strtxt);
structext* msg_vallist_to_structext(vallist* vl);
char* msg_structext_to_stxdrbuf(structext* strtxt);  // new memory
structext* msg_stxdrbuf_to_structext(const char* buf);
char* msg_errinfo_to_errbuf(errinfo* err);  // new memory
errinfo* msg_errbuf_to_errinfo(const char* buf);

// The message catalogue and the process locale.
char* get_localized_form(int msgID, const char* locale, const char* form);
char* kv_catgets(int msgID, const char* locale, const char* form);
const char* kv_get_my_locale(void);
void kv_set_my_locale(const char* locale);  // null: back to the environment's
void kv_set_catalog_dir(const char* dir);   // null: the default
void kv_i18n_enable(int on);

// Circumstances of new records.
void msg_set_activityID(int id);
int msg_get_act_id(void);
void msg_set_act_id(int id);
void msg_set_program_name(const char* name);
const char* msg_get_program_name(void);
const char* msg_get_host_name(void);

// Number to text, into a literal pool buffer (do not free).
char* inttostr(int v);
char* uinttostr(unsigned int v);
char* longtostr(long v);
char* ulongtostr(unsigned long v);
char* floattostr(double v);
char* ptrtostr(const void* v);
char* chartostr(char v);

// printf family with the renderer's UTF-8 rules over plain C arguments.
// A "%n" writes nothing. A null buf allocates through bufp (free() it).
int kv_snprintf(char* str, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int kv_vsnprintf(char* str, size_t size, const char* format, va_list ap);
int kv_sprintf(char* s, const char* format, ...) __attribute__((format(printf, 2, 3)));
int i18n_vsprintf(char* buf, char** bufp, const char* fmt, va_list ap);
int i18n_vsnprintf(char* buf, size_t len, char** bufp, const char* fmt, va_list ap);
int i18n_sprintf(char* buf, char** bufp, const char* fmt, ...);
int i18n_snprintf(char* buf, size_t len, char** bufp, const char* fmt, ...);
