// The connection: socket and record stream, sending and receiving one
// message, the call loop that waits for a reply while the server's
// notifications and logs come in between, and dispatch of those requests.
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "liblocal/kv_host.h"
#include "libndmp/ndmp/ndmp_priv.h"

namespace {

ndmp_connection* conn(void* p) {
    return static_cast<ndmp_connection*>(p);
}

// Waits for the socket until the connection's deadline. 1 ready, 0 out of
// time (timer set), -1 failed.
int wait_socket(ndmp_connection* ndp, short events) {
    for (;;) {
        int wait = -1;
        if (ndp->deadline_ms) {
            int64_t left = ndp->deadline_ms - ndmp_now_ms();
            if (left <= 0) {
                ndp->timer = 1;
                return 0;
            }
            wait = left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
        }
        struct pollfd p = {ndp->sd, events, 0};
        int r = poll(&p, 1, wait);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) {
            ndp->timer = 1;
            return 0;
        }
        return 1;
    }
}

// The record stream's reader: honours the deadline; a closed or broken
// socket makes the connection dead.
int ndmpreadit(void* handle, void* buf, int len) {
    ndmp_connection* ndp = conn(handle);
    if (ndp->eof) return -1;
    for (;;) {
        int w = wait_socket(ndp, POLLIN);
        if (w == 0) return -1;
        if (w < 0) {
            ndp->eof = 1;
            return -1;
        }
        ssize_t n = recv(ndp->sd, buf, static_cast<size_t>(len), 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
            ndp->eof = 1;
            if (n == 0) errno = ECONNRESET;
            return -1;
        }
        ndp->rx_bytes += static_cast<uint64_t>(n);
        return static_cast<int>(n);
    }
}

int ndmpwriteit(void* handle, void* buf, int len) {
    ndmp_connection* ndp = conn(handle);
    if (ndp->eof) return -1;
    const char* p = static_cast<const char*>(buf);
    int left = len;
    // A peer that stops reading must not hold the sender for ever.
    int64_t saved = ndp->deadline_ms;
    if (!ndp->deadline_ms && ndp->timeout > 0)
        ndp->deadline_ms = ndmp_now_ms() + ndmp_limit_ms(ndp->timeout);
    while (left > 0) {
        ssize_t n = send(ndp->sd, p, static_cast<size_t>(left), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (wait_socket(ndp, POLLOUT) <= 0) {
                ndp->deadline_ms = saved;
                return -1;
            }
            continue;
        }
        if (n < 0) {
            ndp->eof = 1;
            ndp->deadline_ms = saved;
            return -1;
        }
        p += n;
        left -= static_cast<int>(n);
    }
    ndp->deadline_ms = saved;
    return len;
}

void free_body(xdrproc_t proc, void* body) {
    if (!body) return;
    if (proc) xdr_free(proc, static_cast<char*>(body));
    free(body);
}

}  // namespace

void* ndmp_connect(char* host, unsigned short port, void* pri) {
    if (!host) host = const_cast<char*>("localhost");
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    struct addrinfo* res = nullptr;
    int rc = kv_getaddrinfo(host, nullptr, &hints, &res);
    if (rc != 0 || !res) {
        ndmp_msg_out(61239, "Failed to get DNS information for host '%s': %s\n", host,
                     gai_strerror(rc));
        return nullptr;
    }
    int sd = -1;
    for (struct addrinfo* ai = res; ai; ai = ai->ai_next) {
        if (ai->ai_family == AF_INET)
            reinterpret_cast<sockaddr_in*>(ai->ai_addr)->sin_port = htons(port);
        else if (ai->ai_family == AF_INET6)
            reinterpret_cast<sockaddr_in6*>(ai->ai_addr)->sin6_port = htons(port);
        else
            continue;
        sd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (sd < 0) {
            ndmp_msg_out(42569, "Failed to open a socket: %s\n ", strerror(errno));
            continue;
        }
        int on = 1;
        if (setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) < 0)
            ndmp_msg_out(42570, "Failed to set the socket option.\n");
        if (connect(sd, ai->ai_addr, ai->ai_addrlen) == 0) break;
        ndmp_msg_out(42571, "Failed to connect to port %d at host '%s' :%s\n",
                     static_cast<int>(port), host, strerror(errno));
        close(sd);
        sd = -1;
    }
    kv_freeaddrinfo(res);
    if (sd < 0) {
        ndmp_msg_out(42576, "Couldn't connect to service\n");
        return nullptr;
    }
    return ndmp_connect_fd(sd, host, port, pri);
}

void* ndmp_connect_fd(int sd, const char* host, unsigned short port, void* pri) {
    ndmp_connection* ndp = static_cast<ndmp_connection*>(calloc(1, sizeof(ndmp_connection)));
    if (!ndp) {
        close(sd);
        return nullptr;
    }
    ndp->sd = sd;
    ndp->pri = pri;
    ndp->check = 1;
    ndp->show_log = 1;
    ndp->vers = 1;
    ndp->need_skip = 1;
    ndp->ndmp_serverport = port;
    snprintf(ndp->ndmp_serverhostname, sizeof ndp->ndmp_serverhostname, "%s",
             host != nullptr ? host : "");
    xdrrec_create(&ndp->xdrs, 0, 0, reinterpret_cast<char*>(ndp), ndmpreadit, ndmpwriteit);
    return ndp;
}

void ndmp_shutdown(ndmp_connection* ndp) {
    if (!ndp) return;
    XDR_DESTROY(&ndp->xdrs);
    if (ndp->sd >= 0) close(ndp->sd);
    free(ndp);
}

void ndmp_connect_close(void** ndpp) {
    if (!ndpp || !*ndpp) return;
    ndmp_connection* ndp = conn(*ndpp);
    // A dead socket gets nothing more: the close would only fail or block.
    if (!ndp->eof) ndmp_call(ndp, NDMP_CONNECT_CLOSE, nullptr, nullptr, nullptr);
    ndmp_shutdown(ndp);
    *ndpp = nullptr;
}

int ndmp_msg_send(ndmp_connection* ndp, ndmp_msg* msg) {
    if (!ndp || ndp->eof) return -1;
    XDR* x = &ndp->xdrs;
    x->x_op = XDR_ENCODE;
    if (!xdr_ndmp_header(x, &msg->hdr)) {
        ndmp_msg_out(42579, "Couldn't send message Header: %s\n",
                     ndp->eof ? "connection lost" : "encode failed");
        return -1;
    }
    if (msg->hdr.error == NDMP_NO_ERR && msg->xdr_body && msg->body &&
        !msg->xdr_body(x, msg->body)) {
        ndmp_msg_out(42580, "Couldn't send xdr arguments: %s\n",
                     ndp->eof ? "connection lost" : "encode failed");
        return -1;
    }
    if (!xdrrec_endofrecord(x, TRUE)) {
        ndmp_msg_out(42580, "Couldn't send xdr arguments: %s\n", "connection lost");
        return -1;
    }
    return 0;
}

int ndmp_send_error_reply(ndmp_connection* ndp, ndmp_msg* req, ndmp_error err) {
    ndmp_msg r;
    memset(&r, 0, sizeof r);
    r.hdr.sequence = ++ndp->sequence;
    r.hdr.time_stamp = static_cast<u_long>(time(nullptr));
    r.hdr.message_type = NDMP_MESSAGE_REPLY;
    r.hdr.message = req->hdr.message;
    r.hdr.reply_sequence = req->hdr.sequence;
    r.hdr.error = err;
    return ndmp_msg_send(ndp, &r);
}

int ndmp_msg_recv(ndmp_connection* ndp, ndmp_msg* msg, int block) {
    memset(msg, 0, sizeof *msg);
    if (!ndp || ndp->eof) return -1;
    if (ndp->check && !block) {
        struct pollfd p = {ndp->sd, POLLIN, 0};
        // The stream may hold a whole record already; only an empty socket
        // and an empty buffer mean "none".
        if (poll(&p, 1, 0) == 0 && ndp->need_skip) return -1;
    }
    int64_t saved = ndp->deadline_ms;
    if (!block) {
        int64_t d = ndmp_now_ms() + ndmp_limit_ms(30);
        if (!ndp->deadline_ms || d < ndp->deadline_ms) ndp->deadline_ms = d;
    }
    ndp->timer = 0;
    const uint64_t rx0 = ndp->rx_bytes;
    XDR* x = &ndp->xdrs;
    x->x_op = XDR_DECODE;
    int result = -1;
    const xdr_ndmp* row = nullptr;
    if (ndp->need_skip) {
        if (!xdrrec_skiprecord(x)) goto out;
        ndp->need_skip = 0;
    }
    if (!xdr_ndmp_header(x, &msg->hdr)) {
        if (!ndp->timer && !ndp->eof) {
            ndmp_trace(1, "Error in message header: %s.\n", "decode failed");
            ndp->need_skip = 1;
        }
        goto out;
    }
    row = ndmp_xdr_row(ndp->vers, msg->hdr.message);
    if (!row) {
        ndmp_trace(1, "unknown procedure 0x%x is received\n",
                   static_cast<unsigned int>(msg->hdr.message));
        ndp->need_skip = 1;
        if (msg->hdr.message_type == NDMP_MESSAGE_REQUEST)
            ndmp_send_error_reply(ndp, msg, NDMP_XDR_ENCODE_ERR);
        goto out;
    }
    if (msg->hdr.message_type == NDMP_MESSAGE_REPLY && msg->hdr.error != NDMP_NO_ERR) {
        ndp->need_skip = 1;
        result = 0;
        goto out;
    }
    {
        xdrproc_t proc =
            msg->hdr.message_type == NDMP_MESSAGE_REQUEST ? row->xdr_request : row->xdr_reply;
        int size =
            msg->hdr.message_type == NDMP_MESSAGE_REQUEST ? row->sizeof_request : row->sizeof_reply;
        if (proc && size > 0) {
            msg->body = calloc(1, static_cast<size_t>(size));
            msg->xdr_body = proc;
            if (!msg->body || !proc(x, msg->body)) {
                free_body(proc, msg->body);
                msg->body = nullptr;
                msg->xdr_body = nullptr;
                if (ndp->timer || ndp->eof) goto out;
                ndp->need_skip = 1;
                if (msg->hdr.message_type == NDMP_MESSAGE_REQUEST)
                    ndmp_send_error_reply(ndp, msg, NDMP_XDR_DECODE_ERR);
                else
                    msg->hdr.error = NDMP_XDR_DECODE_ERR;
                goto out;
            }
        }
    }
    ndp->need_skip = 1;
    result = 0;
out:
    // A record cut short by the time limit leaves the stream in the middle
    // of it: nothing after it can be framed again.
    if (result < 0 && ndp->timer && ndp->rx_bytes != rx0) ndp->eof = 1;
    ndp->deadline_ms = saved;
    return result;
}

int ndmp_call(void* vdp, ndmp_message procedure, void* reqargs, void** replyargsp,
              ndmp_func** ndfp) {
    ndmp_connection* ndp = conn(vdp);
    if (replyargsp) *replyargsp = nullptr;
    if (!ndp) return -1;
    const xdr_ndmp* row = ndmp_xdr_row(ndp->vers, procedure);
    if (!row) return -1;
    ndmp_msg req;
    memset(&req, 0, sizeof req);
    req.hdr.sequence = ++ndp->sequence;
    req.hdr.time_stamp = static_cast<u_long>(time(nullptr));
    req.hdr.message_type = NDMP_MESSAGE_REQUEST;
    req.hdr.message = procedure;
    req.body = reqargs;
    req.xdr_body = reqargs ? row->xdr_request : nullptr;
    const ndmp_seq_t seq = req.hdr.sequence;
    ndmp_trace(3, "call %s seqno %lu\n", ndmp_proc_name(procedure), seq);
    if (ndmp_msg_send(ndp, &req) < 0) return -1;
    if (!row->xdr_reply) return 0;

    const int64_t start = ndmp_now_ms();
    const int64_t saved = ndp->deadline_ms;
    for (;;) {
        if (ndp->eof) break;
        if (ndp->timeout > 0) {
            ndp->deadline_ms = start + ndmp_limit_ms(ndp->timeout);
            if (ndmp_now_ms() >= ndp->deadline_ms) {
                ndmp_trace(1, "Timeout to receive the reply message from server.\n");
                break;
            }
        } else {
            ndp->deadline_ms = 0;
        }
        ndmp_msg msg;
        if (ndmp_msg_recv(ndp, &msg, 1) < 0) {
            if (msg.hdr.message_type == NDMP_MESSAGE_REPLY && msg.hdr.reply_sequence == seq &&
                msg.hdr.error == NDMP_XDR_DECODE_ERR) {
                ndmp_msg_out(42588, "Failed to decode the reply message.\n");
                break;
            }
            if (ndp->timer) {
                ndmp_msg_out(42589, "reply message for sequence %lu is not received.\n", seq);
                ndmp_msg_out(42590, "Timeout to receive any message from server.\n");
                break;
            }
            if (ndp->eof) break;
            continue;  // a record that could not be read; the wait goes on
        }
        if (msg.hdr.message_type != NDMP_MESSAGE_REPLY) {
            ndmp_msg rmsg;
            memset(&rmsg, 0, sizeof rmsg);
            ndmp_dispatch(ndp, ndfp, &msg, &rmsg);
            free_body(msg.xdr_body, msg.body);
            continue;
        }
        if (msg.hdr.reply_sequence != seq) {
            ndmp_trace(1, "Unexpected reply: procedure (0x%x), reply_sequence(%lu)\n",
                       static_cast<unsigned int>(msg.hdr.message), msg.hdr.reply_sequence);
            ndmp_trace(1, "Last NDMP call may be timeout.\n");
            free_body(msg.xdr_body, msg.body);
            continue;
        }
        ndp->deadline_ms = saved;
        if (msg.hdr.error != NDMP_NO_ERR) {
            ndmp_errinfo("ndmp header", 0, msg.hdr.error);
            free_body(msg.xdr_body, msg.body);
            return -1;
        }
        if (replyargsp)
            *replyargsp = msg.body;
        else
            free_body(msg.xdr_body, msg.body);
        return 0;
    }
    ndp->deadline_ms = saved;
    return -1;
}

int ndmp_poll(void* vdp, ndmp_func** ndfp, int block) {
    ndmp_connection* ndp = conn(vdp);
    if (!ndp || ndp->eof) return -1;
    ndmp_msg msg;
    if (ndmp_msg_recv(ndp, &msg, block) < 0) return ndp->eof ? -1 : 0;
    ndmp_msg rmsg;
    memset(&rmsg, 0, sizeof rmsg);
    int r = ndmp_dispatch(ndp, ndfp, &msg, &rmsg);
    free_body(msg.xdr_body, msg.body);
    return r < 0 ? 0 : 1;
}

int ndmp_dispatch(ndmp_connection* ndp, ndmp_func** ndfp, ndmp_msg* msg, ndmp_msg* rmsg) {
    const ndmp_func* row = nullptr;
    bool known = ndmp_xdr_row(ndp->vers, msg->hdr.message) != nullptr;
    if (!known) {
        ndmp_msg_out(42591, "unknown message 0x%x is received.\n",
                     static_cast<unsigned int>(msg->hdr.message));
        if (msg->hdr.message_type == NDMP_MESSAGE_REQUEST)
            ndmp_send_error_reply(ndp, msg, NDMP_XDR_DECODE_ERR);
        return -1;
    }
    if (ndfp && ndp->vers >= 0 && ndp->vers <= NDMP_HIGHEST_VERSION && ndfp[ndp->vers]) {
        for (const ndmp_func* f = ndfp[ndp->vers]; f->proc; f++)
            if (f->proc == msg->hdr.message) {
                row = f;
                break;
            }
    }
    if (row && row->handler && msg->hdr.message_type == NDMP_MESSAGE_REQUEST) {
        int r = row->handler(ndp, msg, rmsg);
        if (row->reply) {
            const xdr_ndmp* x = ndmp_xdr_row(ndp->vers, msg->hdr.message);
            rmsg->hdr.sequence = ++ndp->sequence;
            rmsg->hdr.time_stamp = static_cast<u_long>(time(nullptr));
            rmsg->hdr.message_type = NDMP_MESSAGE_REPLY;
            rmsg->hdr.message = msg->hdr.message;
            rmsg->hdr.reply_sequence = msg->hdr.sequence;
            rmsg->xdr_body = x ? x->xdr_reply : nullptr;
            if (ndmp_msg_send(ndp, rmsg) < 0)
                ndmp_msg_out(42592, "Failed to send reply message.\n");
        }
        return r;
    }
    if (msg->hdr.message_type == NDMP_MESSAGE_REPLY) {
        ndmp_msg_out(42593, "Unexpected reply message 0x%x is received. It may be \n",
                     static_cast<unsigned int>(msg->hdr.message));
        ndmp_msg_out(42594, "caused by the previous timeout.\n");
        return -1;
    }
    ndmp_msg_out(42595, "illegal procedure 0x%x in current state.\n",
                 static_cast<unsigned int>(msg->hdr.message));
    ndmp_send_error_reply(ndp, msg, NDMP_ILLEGAL_STATE_ERR);
    return -1;
}

void ndmp_free_reply(void* vdp, ndmp_message procedure, void* vp) {
    if (!vp) return;
    ndmp_connection* ndp = conn(vdp);
    const xdr_ndmp* row = ndp ? ndmp_xdr_row(ndp->vers, procedure) : nullptr;
    free_body(row ? row->xdr_reply : nullptr, vp);
}

void ndmp_free_request(void* vdp, ndmp_message procedure, void* vp) {
    if (!vp) return;
    ndmp_connection* ndp = conn(vdp);
    const xdr_ndmp* row = ndp ? ndmp_xdr_row(ndp->vers, procedure) : nullptr;
    free_body(row ? row->xdr_request : nullptr, vp);
}

// ---- accessors ----

int ndmp_fd(void* p) {
    return p ? conn(p)->sd : -1;
}
int ndmp_eof(void* p) {
    return p ? conn(p)->eof : 1;
}
int ndmp_ready(void* p) {
    return p ? conn(p)->ready : 0;
}
int ndmp_avail(void* p) {
    return p ? conn(p)->avail : 0;
}
void ndmp_set_ready(void* p, int v) {
    if (p) conn(p)->ready = v;
}
void ndmp_set_avail(void* p, int v) {
    if (p) conn(p)->avail = v;
}
void ndmp_set_eof(void* p, int v) {
    if (p) conn(p)->eof = v;
}
int ndmp_get_vers(void* p) {
    return p ? conn(p)->vers : 0;
}
void ndmp_set_vers(void* p, int v) {
    if (p) conn(p)->vers = v;
}
int ndmp_get_timeout(void* p) {
    return p ? conn(p)->timeout : 0;
}
void ndmp_set_timeout(void* p, int seconds) {
    if (p) conn(p)->timeout = seconds;
}
void* ndmp_get_private_data(void* p) {
    return p ? conn(p)->pri : nullptr;
}
void ndmp_set_private_data(void* p, void* pri) {
    if (p) conn(p)->pri = pri;
}
int ndmp_get_show_log(void* p) {
    return p ? conn(p)->show_log : 0;
}
void ndmp_set_show_log(void* p, int v) {
    if (p) conn(p)->show_log = v;
}
int ndmp_get_double_weof(void* p) {
    return p ? conn(p)->double_weof : 0;
}
void ndmp_set_double_weof(void* p, int v) {
    if (p) conn(p)->double_weof = v;
}
int ndmp_get_weof_pending(void* p) {
    return p ? conn(p)->weof_pending : 0;
}
void ndmp_set_weof_pending(void* p, int v) {
    if (p) conn(p)->weof_pending = v;
}
ndmp_op_status* ndmp_get_op_status(void* p) {
    return p ? &conn(p)->op_status : nullptr;
}
const char* ndmp_get_serverhostname(void* p) {
    return p ? conn(p)->ndmp_serverhostname : "";
}
unsigned short ndmp_get_serverport(void* p) {
    return p ? conn(p)->ndmp_serverport : 0;
}
