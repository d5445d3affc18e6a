// The NDMP connection: socket, XDR record stream, message framing, the call
// and dispatch loop, field accessors and error texts. A connection belongs to
// one thread; nothing here takes a lock.
#pragma once

#include <stddef.h>

#include "libndmp/ndmp/ndmp_xdr.h"

#define NDMP_DEFAULT_PORT 10000
#define NDMP_LOWEST_VERSION 1
#define NDMP_HIGHEST_VERSION 4

// ndmp_tape_open's result when the call itself failed (no server error).
#define NDMP_CALL_FAILED_ERR (-1000)

typedef unsigned long ndmp_seq_t;

// State of an asynchronous operation of the server.
struct ndmp_op_status {
    int op;    // the message that started it, 0 for none
    int done;  // its notification arrived
    ndmp_error error;
};

struct ndmp_connection;

// One message: its header and its decoded body.
struct ndmp_msg {
    ndmp_header hdr;
    void* body;
    xdrproc_t xdr_body;
};

// One row of the wire-form table: a procedure of one protocol version.
// A null xdr_reply is a message without a reply.
struct xdr_ndmp {
    ndmp_message proceedure;
    xdrproc_t xdr_request;
    int sizeof_request;
    xdrproc_t xdr_reply;
    int sizeof_reply;
};

// A handler of an incoming request; it fills rmsg->body when its row answers.
typedef int (*ndmp_handler)(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg* rmsg);
struct ndmp_func {
    ndmp_message proc;  // 0 ends a table
    ndmp_handler handler;
    int reply;  // the row sends a reply
};

// Procedure number and name.
struct ndmp_procedure_name {
    unsigned int proc;
    const char* name;
};
extern const ndmp_procedure_name ndmp_procedure_namelist[];
extern const int ndmp_procedure_count;
const char* ndmp_proc_name(unsigned int proc);  // "unknown" for none

// The row of a procedure in a version's table; null if the version has none.
const xdr_ndmp* ndmp_xdr_row(int vers, unsigned int proc);

// Connection.
void* ndmp_connect(char* host, unsigned short port, void* pri);
// A connection over a stream socket already connected to `host`:`port`
// (names kept for messages); it owns `sd` from here on, and closes it on
// failure too.
void* ndmp_connect_fd(int sd, const char* host, unsigned short port, void* pri);
void ndmp_shutdown(ndmp_connection* ndp);  // closes the socket, frees the record
void ndmp_connect_close(void** ndpp);

int ndmp_msg_send(ndmp_connection* ndp, ndmp_msg* msg);
int ndmp_msg_recv(ndmp_connection* ndp, ndmp_msg* msg, int block);
int ndmp_call(void* vdp, ndmp_message procedure, void* reqargs, void** replyargsp,
              ndmp_func** ndfp);
int ndmp_poll(void* vdp, ndmp_func** ndfp, int block);
int ndmp_dispatch(ndmp_connection* ndp, ndmp_func** ndfp, ndmp_msg* msg, ndmp_msg* rmsg);
void ndmp_free_reply(void* vdp, ndmp_message procedure, void* vp);
void ndmp_free_request(void* vdp, ndmp_message procedure, void* vp);

// Errors.
char* ndmp_err2str(ndmp_error err);
// 0 for no error; otherwise reports "tag: ..." and returns -1.
int ndmp_errinfo(const char* tag, int callresult, ndmp_error ndmperror);

// Accessors.
int ndmp_fd(void* ndp);
int ndmp_eof(void* ndp);
int ndmp_ready(void* ndp);
int ndmp_avail(void* ndp);
void ndmp_set_ready(void* ndp, int v);
void ndmp_set_avail(void* ndp, int v);
void ndmp_set_eof(void* ndp, int v);
int ndmp_get_vers(void* ndp);
void ndmp_set_vers(void* ndp, int v);
int ndmp_get_timeout(void* ndp);
void ndmp_set_timeout(void* ndp, int seconds);
void* ndmp_get_private_data(void* ndp);
void ndmp_set_private_data(void* ndp, void* pri);
int ndmp_get_show_log(void* ndp);
void ndmp_set_show_log(void* ndp, int v);
int ndmp_get_double_weof(void* ndp);
void ndmp_set_double_weof(void* ndp, int v);
int ndmp_get_weof_pending(void* ndp);
void ndmp_set_weof_pending(void* ndp, int v);
ndmp_op_status* ndmp_get_op_status(void* ndp);
const char* ndmp_get_serverhostname(void* ndp);
unsigned short ndmp_get_serverport(void* ndp);

// Where the client's messages and trace go. A message has a number (0 for a
// trace line) and one finished line of text; passwords never reach it.
typedef void (*ndmp_log_func)(int msgid, const char* text);
ndmp_log_func ndmp_set_log_func(ndmp_log_func fn);  // null: standard error; returns the old one
void ndmp_set_trace_level(int level);               // trace lines at or below it are written
int ndmp_get_trace_level(void);

// Errors of the snapshot extension class (0x2053), in its own number range.
#define NDMP_SNAP_NOT_EXIST_ERR 0x20530001
#define NDMP_SNAP_BUSY_ERR 0x20530002
