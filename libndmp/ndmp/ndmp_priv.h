// The connection record and the helpers the connection layer and the client
// share. One thread per connection.
#pragma once

#include <stdint.h>

#include "libndmp/ndmp/ndmp.h"

typedef int kv_fd_t;

struct ndmp_connection {
    int eof;
    int ready;
    int avail;
    int vers;
    int timeout;  // reply limit in seconds, 0 none
    int timer;    // the last read ran out of time
    int block;
    int check;
    kv_fd_t sd;
    XDR xdrs;
    ndmp_seq_t sequence;
    int show_log;
    int double_weof;
    int weof_pending;
    void* pri;
    ndmp_op_status op_status;
    unsigned short ndmp_serverport;
    char ndmp_serverhostname[64];
    // Framing state: the end of the wait in progress (monotonic ms, 0 none),
    // whether the next record still needs its xdrrec_skiprecord, and bytes
    // received, to tell a record cut short from one never begun.
    int64_t deadline_ms;
    int need_skip;
    uint64_t rx_bytes;
};

int64_t ndmp_now_ms(void);
// The limit of a wait of `seconds`, in ms, as the test seam may shorten it.
int64_t ndmp_limit_ms(int seconds);
int64_t ndmp_greeting_limit_ms(int seconds);
unsigned short ndmp_port(void);

// Messages: a number and a literal printf format (never text from data).
void ndmp_msg_out(int msgid, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void ndmp_trace(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Sends an error reply with an empty body for a request.
int ndmp_send_error_reply(ndmp_connection* ndp, ndmp_msg* req, ndmp_error err);
