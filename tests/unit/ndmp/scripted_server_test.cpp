// The client against a scripted server that makes the faults a good server
// never makes: each test plays one connection and checks that the client
// returns its error within its time limits and goes on or gives up cleanly.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "libndmp/ndmp_clnt/ndmp_clnt.h"
#include "tests/unit/ndmp/ndmp_test_util.h"

using ndmptest::LogCapture;
using ndmptest::Peer;
using ndmptest::ScriptedServer;

namespace {

const int kReplyMs = 300;

struct Limits {
    Limits() { ndmp_test_set_time_limits(kReplyMs, kReplyMs); }
    ~Limits() {
        ndmp_test_set_time_limits(0, 0);
        ndmp_test_set_port(0);
    }
};

// A connection that has seen its greeting and speaks version 4.
void* open_v4(unsigned short port) {
    void* ndp = ndmp_connect(const_cast<char*>("127.0.0.1"), port, nullptr);
    if (!ndp) return nullptr;
    ndmp_set_timeout(ndp, 5);
    for (int i = 0; i < 50 && !ndmp_ready(ndp) && !ndmp_eof(ndp); i++)
        ndmp_poll(ndp, ndmp_clnt_tbl, 1);
    ndmp_set_vers(ndp, 4);
    return ndp;
}

int64_t elapsed_ms(int64_t since) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000 - since;
}
int64_t now_ms() {
    return elapsed_ms(0);
}

// A TAPE_MTIO call, the request every fault test makes.
int rewind_call(void* ndp, void** reply) {
    ndmp_tape_mtio_request req;
    req.tape_op = NDMP_MTIO_REW;
    req.count = 1;
    return ndmp_call(ndp, NDMP_TAPE_MTIO, &req, reply, ndmp_clnt_tbl);
}

void mtio_reply(Peer& p, const ndmp_header& h, unsigned long resid) {
    ndmp_tape_mtio_reply r;
    r.error = NDMP_NO_ERR;
    r.resid_count = resid;
    p.reply(h, NDMP_XDR(xdr_ndmp_tape_mtio_reply), &r);
}

}  // namespace

// ---- framing and the call loop ----

TEST(NdmpScripted, RecordClaimingTwoGigabytesEndsTheCallWithinItsLimit) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        // A fragment mark of 2 GB, a header's worth of bytes, then silence.
        uint32_t mark = htonl(0xFFFFFFFFu);
        p.send_raw(&mark, 4);
        std::vector<char> hdr = p.encode(h, nullptr, nullptr);
        p.send_raw(hdr.data(), hdr.size());
        std::vector<char> rest;
        p.read_record(rest, 2000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    int64_t t0 = now_ms();
    EXPECT_EQ(rewind_call(ndp, &reply), -1);
    EXPECT_LT(elapsed_ms(t0), 3000);
    EXPECT_EQ(reply, nullptr);
    // Cut off inside a record, the stream can no longer be framed.
    EXPECT_TRUE(ndmp_eof(ndp));
    ndmp_connect_close(&ndp);
    EXPECT_EQ(ndp, nullptr);
}

TEST(NdmpScripted, ReplyBodyThatDoesNotDecodeIsReported) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        ndmp_header r;
        memset(&r, 0, sizeof r);
        r.sequence = 7;
        r.message_type = NDMP_MESSAGE_REPLY;
        r.message = h.message;
        r.reply_sequence = h.sequence;
        std::vector<char> rec = p.encode(r, nullptr, nullptr);
        rec.push_back(0);  // a body that ends after one byte
        p.send_record(rec);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    EXPECT_EQ(rewind_call(ndp, &reply), -1);
    EXPECT_EQ(reply, nullptr);
    EXPECT_TRUE(LogCapture::has_id(42588));
    ndmp_connect_close(&ndp);
}

TEST(NdmpScripted, GarbageHeaderIsSkippedAndTheRightReplyStillCounts) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        p.send_record(std::vector<char>{1, 2, 3});  // not even a header
        mtio_reply(p, h, 5);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    ASSERT_EQ(rewind_call(ndp, &reply), 0);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(static_cast<ndmp_tape_mtio_reply*>(reply)->resid_count, 5u);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, reply);
    EXPECT_TRUE(LogCapture::contains("Error in message header"));
    ndmp_connect_close(&ndp);
}

TEST(NdmpScripted, ReplyWithWrongSequenceIsSkippedAndTheWaitGoesOn) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        ndmp_header old = h;
        old.sequence = h.sequence - 1;
        mtio_reply(p, old, 1);  // an answer to an earlier call
        mtio_reply(p, h, 2);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    ASSERT_EQ(rewind_call(ndp, &reply), 0);
    EXPECT_EQ(static_cast<ndmp_tape_mtio_reply*>(reply)->resid_count, 2u);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, reply);
    EXPECT_TRUE(LogCapture::contains("Unexpected reply: procedure (0x303)"));
    ndmp_connect_close(&ndp);
}

TEST(NdmpScripted, ReplyThatNeverComesTimesOutAndTheConnectionStaysUsable) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;  // first call: no answer at all
        if (!p.read_header(h)) return;
        mtio_reply(p, h, 3);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    int64_t t0 = now_ms();
    EXPECT_EQ(rewind_call(ndp, &reply), -1);
    EXPECT_GE(elapsed_ms(t0), kReplyMs - 20);
    EXPECT_LT(elapsed_ms(t0), kReplyMs + 1500);
    EXPECT_TRUE(LogCapture::has_id(42589));
    EXPECT_TRUE(LogCapture::has_id(42590));
    EXPECT_FALSE(ndmp_eof(ndp));
    ASSERT_EQ(rewind_call(ndp, &reply), 0);
    EXPECT_EQ(static_cast<ndmp_tape_mtio_reply*>(reply)->resid_count, 3u);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, reply);
    ndmp_connect_close(&ndp);
}

TEST(NdmpScripted, ConnectionClosedInTheMiddleOfACall) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        p.greet(4);
        ndmp_header h;
        p.read_header(h);
        // Half a record, then the socket closes.
        uint32_t mark = htonl(0x80000040u);
        p.send_raw(&mark, 4);
        p.send_raw("abcd", 4);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    EXPECT_EQ(rewind_call(ndp, &reply), -1);
    EXPECT_TRUE(ndmp_eof(ndp));
    srv.join();
    // A dead socket gets no CONNECT_CLOSE: nothing is sent, nothing breaks.
    ndmp_connect_close(&ndp);
    EXPECT_EQ(ndp, nullptr);
}

TEST(NdmpScripted, UnknownRequestGetsAnErrorReplyAndTheCallGoesOn) {
    Limits lim;
    LogCapture cap;
    ndmp_error seen = NDMP_NO_ERR;
    unsigned long seen_reply_seq = 0;
    ScriptedServer srv([&](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        p.send_msg(NDMP_MESSAGE_REQUEST, static_cast<ndmp_message>(0xF123), 77, 0, NDMP_NO_ERR,
                   nullptr, nullptr);
        ndmp_header e;
        if (p.read_header(e)) {
            seen = e.error;
            seen_reply_seq = e.reply_sequence;
        }
        mtio_reply(p, h, 4);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    ASSERT_EQ(rewind_call(ndp, &reply), 0);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, reply);
    ndmp_connect_close(&ndp);
    srv.join();
    EXPECT_EQ(seen_reply_seq, 77u);
    EXPECT_NE(seen, NDMP_NO_ERR);
    EXPECT_TRUE(LogCapture::contains("unknown procedure 0xf123"));
}

TEST(NdmpScripted, FloodOfNotificationsBetweenRequestAndReply) {
    Limits lim;
    LogCapture cap;
    const int kFlood = 5000;
    // The flood itself takes longer than the usual short limit under the sanitizers.
    ndmp_test_set_time_limits(20000, 20000);
    ScriptedServer srv([&](Peer& p) {
        p.greet(4);
        ndmp_header h;
        if (!p.read_header(h)) return;
        ndmp_log_message_request_v4 m;
        memset(&m, 0, sizeof m);
        m.log_type = NDMP_LOG_NORMAL;
        m.entry = const_cast<char*>("mover going active");
        for (int i = 0; i < kFlood; i++)
            p.send_msg(NDMP_MESSAGE_REQUEST, NDMP_LOG_MESSAGE, 10 + i, 0, NDMP_NO_ERR,
                       NDMP_XDR(xdr_ndmp_log_message_request_v4), &m);
        // A log type no version defines.
        m.log_type = static_cast<ndmp_log_type>(9);
        p.send_msg(NDMP_MESSAGE_REQUEST, NDMP_LOG_MESSAGE, 9, 0, NDMP_NO_ERR,
                   NDMP_XDR(xdr_ndmp_log_message_request_v4), &m);
        mtio_reply(p, h, 6);
        std::vector<char> rest;
        p.read_record(rest, 1000);
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    void* reply = nullptr;
    ASSERT_EQ(rewind_call(ndp, &reply), 0);
    EXPECT_EQ(static_cast<ndmp_tape_mtio_reply*>(reply)->resid_count, 6u);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, reply);
    ndmp_connect_close(&ndp);
    EXPECT_EQ(LogCapture::count("NDMP Service Log: mover going active"),
              static_cast<size_t>(kFlood));
    EXPECT_TRUE(LogCapture::contains("Illegal log_type [9] in the LOG_MESSAGE request."));
}

// ---- negotiation and authentication ----

TEST(NdmpScripted, ServerOfVersionThreeGetsNoVersionFourOpen) {
    Limits lim;
    LogCapture cap;
    std::vector<int> asked;
    ScriptedServer srv([&](Peer& p) {
        p.greet(3);
        ndmp_header h;
        std::vector<char> body;
        while (p.read_header(h, &body)) {
            if (h.message == NDMP_CONNECT_OPEN) {
                asked.push_back(static_cast<unsigned char>(body[3]));
                ndmp_error_reply r{NDMP_NO_ERR};
                p.reply(h, NDMP_XDR(xdr_ndmp_error_reply), &r);
            }
        }
    });
    ndmp_test_set_port(srv.port());
    void* ndp = ndmp_create_connect_without_auth(const_cast<char*>("127.0.0.1"), nullptr, nullptr,
                                                 nullptr, 5, 5);
    ASSERT_NE(ndp, nullptr);
    EXPECT_EQ(ndmp_get_vers(ndp), 3);
    ndmp_connect_close(&ndp);
    srv.join();
    EXPECT_EQ(asked, std::vector<int>({3}));
}

TEST(NdmpScripted, RefusedOpenMovesDownToOneThenFails) {
    Limits lim;
    LogCapture cap;
    std::vector<int> asked;
    ScriptedServer srv([&](Peer& p) {
        p.greet(4);
        ndmp_header h;
        std::vector<char> body;
        while (p.read_header(h, &body)) {
            if (h.message != NDMP_CONNECT_OPEN) continue;
            asked.push_back(static_cast<unsigned char>(body[3]));
            ndmp_error_reply r{NDMP_ILLEGAL_ARGS_ERR};
            p.reply(h, NDMP_XDR(xdr_ndmp_error_reply), &r);
        }
    });
    ndmp_test_set_port(srv.port());
    void* ndp = ndmp_create_connect(const_cast<char*>("127.0.0.1"), const_cast<char*>("u"),
                                    const_cast<char*>("p"), nullptr, 5, 5);
    EXPECT_EQ(ndp, nullptr);
    srv.join();
    EXPECT_EQ(asked, std::vector<int>({4, 3, 2, 1}));
    EXPECT_TRUE(LogCapture::has_id(42606));
    EXPECT_TRUE(LogCapture::contains("supports protocol version 1 to 4"));
}

TEST(NdmpScripted, NoGreetingTimesOut) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        std::vector<char> rest;
        p.read_record(rest, 2000);
    });
    ndmp_test_set_port(srv.port());
    void* ndp = ndmp_create_connect(const_cast<char*>("127.0.0.1"), const_cast<char*>("u"),
                                    const_cast<char*>("p"), nullptr, 60, 600);
    EXPECT_EQ(ndp, nullptr);
    EXPECT_TRUE(LogCapture::has_id(42605));
}

TEST(NdmpScripted, ShutdownGreetingEndsTheConnection) {
    Limits lim;
    LogCapture cap;
    ScriptedServer srv([](Peer& p) {
        ndmp_notify_connected_request n;
        n.reason = NDMP_SHUTDOWN;
        n.protocol_version = 4;
        n.text_reason = const_cast<char*>("bye");
        p.send_msg(NDMP_MESSAGE_REQUEST, NDMP_NOTIFY_CONNECTED, 1, 0, NDMP_NO_ERR,
                   NDMP_XDR(xdr_ndmp_notify_connected_request), &n);
    });
    ndmp_test_set_port(srv.port());
    void* ndp = ndmp_create_connect(const_cast<char*>("127.0.0.1"), const_cast<char*>("u"),
                                    const_cast<char*>("p"), nullptr, 5, 5);
    EXPECT_EQ(ndp, nullptr);
    EXPECT_TRUE(LogCapture::has_id(42613));
}

// A server that offers MD5 and text, checks the digest the way the protocol
// defines it, and records what it was sent.
TEST(NdmpScripted, ServerOfferingMd5AndTextGetsMd5AndNeverSeesThePassword) {
    Limits lim;
    LogCapture cap;
    const char* kPw = "s3cret-pw";
    bool got_md5 = false, digest_ok = false, password_on_wire = false;
    ScriptedServer srv([&](Peer& p) {
        p.greet(4);
        unsigned char challenge[64];
        for (int i = 0; i < 64; i++) challenge[i] = static_cast<unsigned char>(i * 7 + 1);
        ndmp_header h;
        std::vector<char> body;
        while (p.read_header(h, &body)) {
            if (std::string(body.begin(), body.end()).find(kPw) != std::string::npos)
                password_on_wire = true;
            if (h.message == NDMP_CONNECT_OPEN) {
                ndmp_error_reply r{NDMP_NO_ERR};
                p.reply(h, NDMP_XDR(xdr_ndmp_error_reply), &r);
            } else if (h.message == NDMP_CONFIG_GET_SERVER_INFO) {
                ndmp_auth_type types[2] = {NDMP_AUTH_TEXT, NDMP_AUTH_MD5};
                ndmp_config_get_server_info_reply r;
                r.error = NDMP_NO_ERR;
                r.vendor_name = const_cast<char*>("Scripted");
                r.product_name = const_cast<char*>("Test");
                r.revision_number = const_cast<char*>("1");
                r.auth_type.auth_type_len = 2;
                r.auth_type.auth_type_val = types;
                p.reply(h, NDMP_XDR(xdr_ndmp_config_get_server_info_reply), &r);
            } else if (h.message == NDMP_CONFIG_GET_AUTH_ATTR) {
                ndmp_config_get_auth_attr_reply r;
                r.error = NDMP_NO_ERR;
                r.server_attr.auth_type = NDMP_AUTH_MD5;
                memcpy(r.server_attr.ndmp_auth_attr_u.challenge, challenge, 64);
                p.reply(h, NDMP_XDR(xdr_ndmp_config_get_auth_attr_reply), &r);
            } else if (h.message == NDMP_CONNECT_CLIENT_AUTH) {
                ndmp_connect_client_auth_request a;
                memset(&a, 0, sizeof a);
                XDR x;
                xdrmem_create(&x, body.data(), static_cast<u_int>(body.size()), XDR_DECODE);
                if (xdr_ndmp_connect_client_auth_request(&x, &a) &&
                    a.auth_data.auth_type == NDMP_AUTH_MD5) {
                    got_md5 = true;
                    unsigned char block[128] = {0};
                    size_t n = strlen(kPw);
                    memcpy(block, kPw, n);
                    memcpy(block + 64 - n, challenge, 64);
                    memcpy(block + 128 - n, kPw, n);
                    unsigned char want[16];
                    unsigned int wl = 0;
                    EVP_Digest(block, 128, want, &wl, EVP_md5(), nullptr);
                    digest_ok =
                        memcmp(want, a.auth_data.ndmp_auth_data_u.auth_md5.auth_digest, 16) == 0;
                }
                xdr_free(NDMP_XDR(xdr_ndmp_connect_client_auth_request),
                         reinterpret_cast<char*>(&a));
                xdr_destroy(&x);
                ndmp_error_reply r{digest_ok ? NDMP_NO_ERR : NDMP_NOT_AUTHORIZED_ERR};
                p.reply(h, NDMP_XDR(xdr_ndmp_error_reply), &r);
            }
        }
    });
    ndmp_test_set_port(srv.port());
    std::string pw = kPw;
    void* ndp = ndmp_create_connect(const_cast<char*>("127.0.0.1"), const_cast<char*>("ndmp"),
                                    &pw[0], nullptr, 5, 5);
    ASSERT_NE(ndp, nullptr);
    ndmp_connect_close(&ndp);
    srv.join();
    EXPECT_TRUE(got_md5);
    EXPECT_TRUE(digest_ok);
    EXPECT_FALSE(password_on_wire);
    EXPECT_FALSE(LogCapture::contains(kPw));
}

// ---- the CDB path's own limits ----

TEST(NdmpScripted, LongCdbTimeoutIsCappedAndTransportFailureGives240) {
    Limits lim;
    LogCapture cap;
    unsigned long sent_timeout = 0;
    ScriptedServer srv([&](Peer& p) {
        p.greet(4);
        ndmp_header h;
        std::vector<char> body;
        if (!p.read_header(h, &body)) return;
        ndmp_execute_cdb_request rq;
        memset(&rq, 0, sizeof rq);
        XDR x;
        xdrmem_create(&x, body.data(), static_cast<u_int>(body.size()), XDR_DECODE);
        if (xdr_ndmp_execute_cdb_request(&x, &rq)) sent_timeout = rq.timeout;
        xdr_free(NDMP_XDR(xdr_ndmp_execute_cdb_request), reinterpret_cast<char*>(&rq));
        xdr_destroy(&x);
        // and then the socket closes without an answer
    });
    void* ndp = open_v4(srv.port());
    ASSERT_NE(ndp, nullptr);
    unsigned char cdb[6] = {0, 0, 0, 0, 0, 0};
    unsigned char sense[32];
    ndmpscsi cmd;
    memset(&cmd, 0, sizeof cmd);
    cmd.cdb = cdb;
    cmd.cdblen = 6;
    cmd.sense = sense;
    cmd.senselen = 32;
    cmd.to = 2000000;
    cmd.flags = NDMPSCSI_DATA_IN;
    ndmpscsihandle dmh{ndp, 0, const_cast<char*>("/dev/x")};
    EXPECT_EQ(ndmpscsitbl.ioctl(&dmh, &cmd), -1);
    EXPECT_EQ(cmd.status, 240);
    EXPECT_EQ(cmd.senselen, 0);
    srv.join();
    EXPECT_EQ(sent_timeout, 0x3FFFFFFFul);
    // At eof the next command fails at once.
    EXPECT_EQ(ndmpscsitbl.ioctl(&dmh, &cmd), -1);
    EXPECT_TRUE(LogCapture::contains("Found eof on NDMP socket."));
    ndmp_connect_close(&ndp);
}

TEST(NdmpErrors, TextsAndErrinfo) {
    LogCapture cap;
    EXPECT_STREQ(ndmp_err2str(NDMP_NO_ERR), "No error");
    EXPECT_STREQ(ndmp_err2str(NDMP_NOT_AUTHORIZED_ERR), "connection has not been authorized");
    EXPECT_STREQ(ndmp_err2str(NDMP_EXT_DANDN_ILLEGAL_ERR),
                 "discovery and negotiation is already issued");
    EXPECT_STREQ(ndmp_err2str(static_cast<ndmp_error>(12345)), "unknown error");
    EXPECT_EQ(ndmp_errinfo("tape open", 0, NDMP_NO_ERR), 0);
    EXPECT_EQ(ndmp_errinfo("tape open", 0, NDMP_WRITE_PROTECT_ERR), -1);
    EXPECT_TRUE(LogCapture::contains("tape open: write protected (ndmp error 0xb)\n"));
    EXPECT_EQ(ndmp_errinfo("tape mtio", -1, NDMP_NO_ERR), -1);
    EXPECT_TRUE(LogCapture::contains("tape mtio: communication failure.\n"));
}
