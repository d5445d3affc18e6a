// Shared internals of the message files (kv_msg_*.cpp): the pools, the
// per-thread rings, the renderer's engine and the stbuf parser. Not for use
// outside liblocal. Thread-safe as each function states.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <string>

#include "liblocal/kv_msg.h"

// Once per process: program name, pid, host name, environment switches and
// the two pool mutexes.
void msg_once_init(void);

// Next buffer of the rendered-text pool (MSG_BUFFER_SIZE bytes) and of the
// literal pool (MSG_LIT_BUFFER_SIZE bytes). Thread-safe.
char* msg_pool_buffer(void);
char* msg_lit_pool_buffer(void);

// Process switches read once from the environment.
int msg_force_msg_id(void);  // VMR_FORCE_MSG_ID
int msg_rrend_noenv(void);   // VMR_RREND_NOENV

// The calling thread's state. Never null.
struct MsgThread {
    errinfo ring[MSG_ERRINFO_RING_SIZE];
    int ring_next;
    structext* st_ring;
    int st_size;
    int st_next;
    errinfo tmperr;
    errinfo err;          // err_setall's record
    char err_text[1024];  // err_setall's text: it must not allocate
    char* persistent;     // err_accrue's collected text
    int accrue_on;
    MsgThread* setall_next;  // in the list of threads whose err_text msg_free must not free
    bool setall_listed;
};
MsgThread* msg_thread(void);

// Puts the thread in the list of err_setall users, once. Allocates nothing.
void msg_setall_register(MsgThread* t);

// Next ring slot, its previous content released.
errinfo* msg_next_errinfo(void);
structext* msg_next_structext(void);

// Releases the strings of a structext and marks it free (MsgId -5).
void msg_structext_clear(structext* st);
// Deep copy of src into the zeroed dst (strings duplicated).
void msg_structext_copy(structext* dst, const structext* src);

// Fills the circumstances of a new record (time, thread, process, host...).
void msg_fill_circumstances(errinfo* e);

// Parses an stbuf into the zeroed caller record. On failure the record is
// left zeroed (nothing allocated) and false returned. With rest non-null the
// parse may stop at trailing text, whose start is stored there; otherwise
// only trailing white space is allowed.
bool msg_stbuf_parse(const char* s, structext* out, const char** rest);
// Appends the stbuf form of a message to out.
void msg_stbuf_append(std::string& out, const structext* st);

// Renders a message into a std::string (dynamic) for the given locale.
void msg_render_to_string(std::string& out, const char* locale, const structext* st);

// The process's log streams (msg_log_open) and its log flags. Set at
// start-up, read by msg_post on any thread.
extern FILE* g_cust_log_fp;
extern FILE* g_rend_log_fp;
extern FILE* g_audit_log_fp;
extern int g_log_flags;
