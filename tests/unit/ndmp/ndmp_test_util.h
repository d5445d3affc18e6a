// Helpers of the NDMP tests: a capture of the client's messages, and a
// scripted server that plays one connection from a test's script.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "libndmp/ndmp/ndmp.h"
#include "libndmp/ndmp/ndmp_test_seam.h"
#include "tests/support/log_capture.h"

#define NDMP_XDR(f) reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)(void)>(f))

namespace ndmptest {

// Every line the client gives out, with its message number, while one of
// these lives. The client's log hook takes no context, so the lines go to one
// capture of the process.
struct LogCapture {
    static zovtest::LogCapture& log() {
        static zovtest::LogCapture c;
        return c;
    }
    static void sink(int id, const char* text) { log().add(id, text); }
    LogCapture() {
        log().clear();
        ndmp_set_log_func(sink);
        ndmp_set_trace_level(9);
    }
    ~LogCapture() {
        ndmp_set_log_func(nullptr);
        ndmp_set_trace_level(0);
    }
    static void clear() { log().clear(); }
    static bool has_id(int id) { return log().has_level(id); }
    static bool contains(const std::string& s) { return log().has(s); }
    static size_t count(const std::string& s) { return static_cast<size_t>(log().count(s)); }
};

// One end of a scripted connection.
struct Peer {
    int fd = -1;

    bool read_exact(void* p, size_t n, int timeout_ms) {
        char* c = static_cast<char*>(p);
        while (n > 0) {
            struct pollfd pf = {fd, POLLIN, 0};
            if (poll(&pf, 1, timeout_ms) <= 0) return false;
            ssize_t r = recv(fd, c, n, 0);
            if (r <= 0) return false;
            c += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }
    // One whole record (all its fragments).
    bool read_record(std::vector<char>& out, int timeout_ms = 3000) {
        out.clear();
        for (;;) {
            uint32_t mark;
            if (!read_exact(&mark, 4, timeout_ms)) return false;
            mark = ntohl(mark);
            size_t len = mark & 0x7fffffffu;
            size_t off = out.size();
            out.resize(off + len);
            if (len && !read_exact(out.data() + off, len, timeout_ms)) return false;
            if (mark & 0x80000000u) return true;
        }
    }
    // The next request's header (and its body bytes, if wanted).
    bool read_header(ndmp_header& h, std::vector<char>* body = nullptr) {
        std::vector<char> rec;
        if (!read_record(rec)) return false;
        XDR x;
        xdrmem_create(&x, rec.data(), static_cast<u_int>(rec.size()), XDR_DECODE);
        bool ok = xdr_ndmp_header(&x, &h);
        if (ok && body) body->assign(rec.begin() + xdr_getpos(&x), rec.end());
        xdr_destroy(&x);
        return ok;
    }
    void send_raw(const void* p, size_t n) {
        const char* c = static_cast<const char*>(p);
        while (n > 0) {
            ssize_t r = send(fd, c, n, MSG_NOSIGNAL);
            if (r <= 0) return;
            c += r;
            n -= static_cast<size_t>(r);
        }
    }
    std::vector<char> encode(ndmp_header h, xdrproc_t proc, void* body) {
        std::vector<char> buf(1 << 16);
        XDR x;
        xdrmem_create(&x, buf.data(), static_cast<u_int>(buf.size()), XDR_ENCODE);
        xdr_ndmp_header(&x, &h);
        if (proc && body) proc(&x, body);
        buf.resize(xdr_getpos(&x));
        xdr_destroy(&x);
        return buf;
    }
    void send_record(const std::vector<char>& rec) {
        uint32_t mark = htonl(0x80000000u | static_cast<uint32_t>(rec.size()));
        std::vector<char> all(reinterpret_cast<char*>(&mark), reinterpret_cast<char*>(&mark) + 4);
        all.insert(all.end(), rec.begin(), rec.end());
        send_raw(all.data(), all.size());
    }
    void send_msg(ndmp_header_message_type type, ndmp_message m, unsigned long seq,
                  unsigned long reply_seq, ndmp_error err, xdrproc_t proc, void* body) {
        ndmp_header h;
        memset(&h, 0, sizeof h);
        h.sequence = seq;
        h.message_type = type;
        h.message = m;
        h.reply_sequence = reply_seq;
        h.error = err;
        send_record(encode(h, proc, body));
    }
    void reply(const ndmp_header& req, xdrproc_t proc, void* body, ndmp_error err = NDMP_NO_ERR) {
        send_msg(NDMP_MESSAGE_REPLY, req.message, 1000 + req.sequence, req.sequence, err, proc,
                 body);
    }
    void greet(unsigned short version) {
        ndmp_notify_connected_request n;
        n.reason = NDMP_CONNECTED;
        n.protocol_version = version;
        n.text_reason = const_cast<char*>("Hello");
        send_msg(NDMP_MESSAGE_REQUEST, NDMP_NOTIFY_CONNECTED, 1, 0, NDMP_NO_ERR,
                 NDMP_XDR(xdr_ndmp_notify_connected_request), &n);
    }
};

// A server on a loopback port that plays one connection with a script.
class ScriptedServer {
public:
    explicit ScriptedServer(std::function<void(Peer&)> script) {
        lfd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a;
        memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(lfd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t l = sizeof a;
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&a), &l);
        port_ = ntohs(a.sin_port);
        listen(lfd_, 4);
        th_ = std::thread([this, script] {
            struct pollfd pf = {lfd_, POLLIN, 0};
            if (poll(&pf, 1, 5000) <= 0) return;
            Peer p;
            p.fd = accept(lfd_, nullptr, nullptr);
            if (p.fd < 0) return;
            script(p);
            close(p.fd);
        });
    }
    ~ScriptedServer() {
        if (th_.joinable()) th_.join();
        close(lfd_);
    }
    void join() {
        if (th_.joinable()) th_.join();
    }
    unsigned short port() const { return port_; }

private:
    int lfd_ = -1;
    unsigned short port_ = 0;
    std::thread th_;
};

}  // namespace ndmptest
