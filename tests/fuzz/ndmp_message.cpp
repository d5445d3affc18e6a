// NDMP messages as the server sends them: the input is the byte stream of a
// connection (record marks, headers, bodies), read message by message until
// it ends, under the protocol version of its first byte.
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libndmp/ndmp/ndmp.h"
#include "tests/fuzz/fuzz_input.h"

namespace {
void quiet(int, const char*) {}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    signal(SIGPIPE, SIG_IGN);
    ndmp_set_log_func(&quiet);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 60000) return 0;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    // The whole stream is there before the first read, and then it ends;
    // replies the client sends to bad requests land unread in the peer.
    if (write(sv[1], data + 1, size - 1) != static_cast<ssize_t>(size - 1)) {
        close(sv[0]);
        close(sv[1]);
        return 0;
    }
    shutdown(sv[1], SHUT_WR);
    ndmp_connection* ndp =
        static_cast<ndmp_connection*>(ndmp_connect_fd(sv[0], "fuzz", 0, nullptr));
    if (ndp == nullptr) {
        close(sv[1]);
        return 0;
    }
    ndmp_set_vers(ndp, 1 + data[0] % 4);
    for (int i = 0; i < 64 && !ndmp_eof(ndp); i++) {
        ndmp_msg msg;
        ndmp_msg_recv(ndp, &msg, 1);
        if (msg.body != nullptr) {
            if (msg.xdr_body != nullptr) xdr_free(msg.xdr_body, static_cast<char*>(msg.body));
            free(msg.body);
        }
    }
    ndmp_shutdown(ndp);  // closes sv[0]
    close(sv[1]);
    return 0;
}
