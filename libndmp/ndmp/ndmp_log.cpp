// Where the NDMP client's messages and trace go, the test seam's limits, and
// the texts of the protocol's errors.
#include <stdarg.h>
#include <stdio.h>
#include <time.h>

#include <atomic>

#include "liblocal/kv_msg.h"
#include "libndmp/ndmp/ndmp_priv.h"
#include "libndmp/ndmp/ndmp_test_seam.h"

namespace {

std::atomic<ndmp_log_func> log_func{nullptr};
std::atomic<int> trace_level{0};
std::atomic<unsigned short> test_port{0};
std::atomic<int> test_reply_ms{0};
std::atomic<int> test_greeting_ms{0};

void emit(int msgid, const char* text) {
    ndmp_log_func fn = log_func.load();
    if (fn) {
        fn(msgid, text);
        return;
    }
    // The text is data here: it goes through a fixed format.
    msg_fprintf(stderr, "%s", text);
}

}  // namespace

ndmp_log_func ndmp_set_log_func(ndmp_log_func fn) {
    return log_func.exchange(fn);
}
void ndmp_set_trace_level(int level) {
    trace_level.store(level);
}
int ndmp_get_trace_level(void) {
    return trace_level.load();
}

void ndmp_msg_out(int msgid, const char* fmt, ...) {
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    emit(msgid, buf);
}

void ndmp_trace(int level, const char* fmt, ...) {
    if (level > trace_level.load()) return;
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    emit(0, buf);
}

void ndmp_test_set_port(unsigned short port) {
    test_port.store(port);
}
void ndmp_test_set_time_limits(int reply_ms, int greeting_ms) {
    test_reply_ms.store(reply_ms);
    test_greeting_ms.store(greeting_ms);
}

unsigned short ndmp_port(void) {
    unsigned short p = test_port.load();
    return p ? p : NDMP_DEFAULT_PORT;
}

int64_t ndmp_limit_ms(int seconds) {
    int t = test_reply_ms.load();
    if (t > 0) return t;
    return static_cast<int64_t>(seconds) * 1000;
}

int64_t ndmp_greeting_limit_ms(int seconds) {
    int t = test_greeting_ms.load();
    if (t > 0) return t;
    return static_cast<int64_t>(seconds) * 1000;
}

int64_t ndmp_now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

char* ndmp_err2str(ndmp_error err) {
    static const char* const texts[] = {
        "No error",
        "call is not supported",
        "the device is in use",
        "another tape or scsi device is already open",
        "connection has not been authorized",
        "permission problem",
        "SCSI device is not open",
        "I/O error",
        "command timed out",
        "illegal arguments in request",
        "no tape in the specified device",
        "write protected",
        "command encountered EOF",
        "command encountered EOM",
        "file not found during restore",
        "bad file descriptor",
        "no device is at the specified target",
        "invalid controller",
        "failed to decode the message",
        "can't process request at this state",
        "unknown error",
        "failed to encode the reply message",
        "no memory",
        "failed to establish connection",
        "invalid sequence number",
        "mover read was already in progress",
        "required preparatory action has not been performed",
        "unsupported class",
        "unsupported version",
        "duplicated class with different versions",
        "discovery and negotiation is already issued",
    };
    const int n = static_cast<int>(sizeof texts / sizeof texts[0]);
    const int e = static_cast<int>(err);
    if (e == NDMP_CALL_FAILED_ERR) return const_cast<char*>("communication failure");
    // Errors of the snapshot extension class.
    if (e == NDMP_SNAP_NOT_EXIST_ERR) return const_cast<char*>("Specified snapshot does not exist");
    if (e == NDMP_SNAP_BUSY_ERR) return const_cast<char*>("Snapshot is busy");
    if (e >= 0 && e < n) return const_cast<char*>(texts[e]);
    return const_cast<char*>("unknown error");
}

int ndmp_errinfo(const char* tag, int callresult, ndmp_error ndmperror) {
    if (!tag) tag = "ndmp";
    if (callresult < 0) {
        ndmp_msg_out(0, "%s: communication failure.\n", tag);
        return -1;
    }
    if (ndmperror == NDMP_NO_ERR) return 0;
    ndmp_msg_out(0, "%s: %s (ndmp error 0x%lx)\n", tag, ndmp_err2str(ndmperror),
                 static_cast<unsigned long>(static_cast<unsigned int>(ndmperror)));
    return -1;
}
