// Connection set-up: the server's greeting, version negotiation,
// authentication (none, text, MD5) and the client's own handlers of the
// requests a server sends unasked (NOTIFY_CONNECTED, log messages).
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <string.h>

#include "libndmp/ndmp/ndmp_priv.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"

namespace {

int notify_connect(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg*) {
    const ndmp_notify_connected_request* r =
        static_cast<const ndmp_notify_connected_request*>(msg->body);
    if (!r) {
        ndmp_msg_out(0, "Receive zero size of NOTIFY_CONNECT request.\n");
        ndmp_msg_out(0, "Assume the remote server is shutdown.\n");
        ndp->eof = 1;
        return 0;
    }
    switch (r->reason) {
    case NDMP_CONNECTED:
        ndp->vers = r->protocol_version;
        ndp->ready = 1;
        break;
    case NDMP_SHUTDOWN:
        ndmp_msg_out(42613, "Receive NDMP shutdown message.\n");
        ndp->eof = 1;
        break;
    case NDMP_REFUSED: ndmp_msg_out(42614, "NDMP connection is refused by server.\n"); break;
    default:
        ndmp_msg_out(42615, "NDMP connection got unknown reason(%d).\n",
                     static_cast<int>(r->reason));
        break;
    }
    return 0;
}

const char* text_of(const char* s) {
    return s ? s : "";
}

int log_v2_log(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg*) {
    const ndmp_log_log_request_v2* r = static_cast<const ndmp_log_log_request_v2*>(msg->body);
    if (r && ndp->show_log) ndmp_msg_out(0, "NDMP Service Log: %s\n", text_of(r->entry));
    return 0;
}

int log_v2_debug(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg*) {
    const ndmp_log_debug_request_v2* r = static_cast<const ndmp_log_debug_request_v2*>(msg->body);
    if (r && ndp->show_log) ndmp_msg_out(0, "Server Debug: %s\n", text_of(r->message));
    return 0;
}

void log_entry(ndmp_connection* ndp, int type, const char* entry) {
    if (!ndp->show_log) return;
    switch (type) {
    case NDMP_LOG_ERROR: ndmp_msg_out(0, "NDMP Service Error: %s", entry); break;
    case NDMP_LOG_WARNING: ndmp_msg_out(0, "NDMP Service Warning: %s", entry); break;
    case NDMP_LOG_NORMAL: ndmp_msg_out(0, "NDMP Service Log: %s\n", entry); break;
    case NDMP_LOG_DEBUG_TYPE: ndmp_msg_out(0, "NDMP Service Debug: %s\n", entry); break;
    default: ndmp_msg_out(0, "Illegal log_type [%d] in the LOG_MESSAGE request.\n", type); break;
    }
}

int log_v3_message(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg*) {
    const ndmp_log_message_request_v3* r =
        static_cast<const ndmp_log_message_request_v3*>(msg->body);
    if (r) log_entry(ndp, static_cast<int>(r->log_type), text_of(r->entry));
    return 0;
}

int log_v4_message(ndmp_connection* ndp, ndmp_msg* msg, ndmp_msg*) {
    const ndmp_log_message_request_v4* r =
        static_cast<const ndmp_log_message_request_v4*>(msg->body);
    if (r) log_entry(ndp, static_cast<int>(r->log_type), text_of(r->entry));
    return 0;
}

ndmp_func tbl_v2[] = {
    {NDMP_NOTIFY_CONNECTED, notify_connect, 0},
    {NDMP_LOG_LOG, log_v2_log, 0},
    {NDMP_LOG_DEBUG, log_v2_debug, 0},
    {static_cast<ndmp_message>(0), nullptr, 0},
};
ndmp_func tbl_v3[] = {
    {NDMP_NOTIFY_CONNECTED, notify_connect, 0},
    {NDMP_LOG_MESSAGE, log_v3_message, 0},
    {static_cast<ndmp_message>(0), nullptr, 0},
};
ndmp_func tbl_v4[] = {
    {NDMP_NOTIFY_CONNECTED, notify_connect, 0},
    {NDMP_LOG_MESSAGE, log_v4_message, 0},
    {static_cast<ndmp_message>(0), nullptr, 0},
};

// Waits for NOTIFY_CONNECTED. 0 when the server is ready.
int ndmp_wait_connect(ndmp_connection* ndp, int timeout) {
    const int64_t end = ndmp_now_ms() + ndmp_greeting_limit_ms(timeout);
    const int64_t saved = ndp->deadline_ms;
    while (!ndp->ready && !ndp->eof) {
        if (ndmp_now_ms() >= end) {
            ndmp_msg_out(42605, "Connection to NDMP server timed out.\n");
            break;
        }
        ndp->deadline_ms = end;
        ndmp_poll(ndp, ndmp_clnt_tbl, 1);
    }
    ndp->deadline_ms = saved;
    return ndp->ready && !ndp->eof ? 0 : -1;
}

void* ndmp_create_connect_sub(char* host, char* user, char* pas, void* data, int timeout,
                              int timeout2, bool fauth) {
    void* vdp = ndmp_connect(host, ndmp_port(), data);
    if (!vdp) return nullptr;
    ndmp_connection* ndp = static_cast<ndmp_connection*>(vdp);
    ndp->timeout = timeout2;
    if (ndmp_wait_connect(ndp, timeout) < 0) {
        ndmp_connect_close(&vdp);
        return nullptr;
    }
    int v = ndp->vers < NDMP_HIGHEST_VERSION ? ndp->vers : NDMP_HIGHEST_VERSION;
    for (; v > 0 && !ndp->eof; v--) {
        // The request goes out in the form of the version it names.
        ndp->vers = v;
        ndmp_connect_open_request req;
        req.protocol_version = static_cast<u_short>(v);
        void* reply = nullptr;
        int r = ndmp_call(ndp, NDMP_CONNECT_OPEN, &req, &reply, ndmp_clnt_tbl);
        ndmp_error err = reply ? static_cast<ndmp_error_reply*>(reply)->error : NDMP_NO_ERR;
        ndmp_free_reply(ndp, NDMP_CONNECT_OPEN, reply);
        if (r == 0 && err == NDMP_NO_ERR) break;
        if (r == 0) ndmp_errinfo("connect open", 0, err);
    }
    if (v <= 0 || ndp->eof) {
        ndmp_msg_out(42606, "Failed to negotiate the version of protocol\n");
        ndmp_msg_out(42607, "The current product supports protocol version %d to %d.\n",
                     NDMP_LOWEST_VERSION, NDMP_HIGHEST_VERSION);
        ndmp_connect_close(&vdp);
        return nullptr;
    }
    ndmp_trace(1, "NDMP version %d is used.\n", v);
    ndp->vers = v;
    if (fauth && ndmp_connect_auth(ndp, host, user, pas) < 0) {
        ndmp_connect_close(&vdp);
        return nullptr;
    }
    return vdp;
}

// The MD5 form: a 128-byte block with the password at its start, the
// challenge before its second copy and the second copy ending the block.
bool md5_digest(const char* pw, const unsigned char* challenge, unsigned char digest[16]) {
    unsigned char block[128];
    memset(block, 0, sizeof block);
    size_t len = strlen(pw);
    if (len > 64) len = 64;
    memcpy(block, pw, len);
    memcpy(block + 64 - len, challenge, 64);
    memcpy(block + 128 - len, pw, len);
    unsigned int out = 0;
    bool ok = EVP_Digest(block, sizeof block, digest, &out, EVP_md5(), nullptr) == 1 && out == 16;
    OPENSSL_cleanse(block, sizeof block);
    return ok;
}

}  // namespace

ndmp_func* ndmp_clnt_tbl[NDMP_HIGHEST_VERSION + 1] = {nullptr, tbl_v2, tbl_v2, tbl_v3, tbl_v4};

void* ndmp_create_connect(char* host, char* user, char* pas, void* data, int timeout,
                          int timeout2) {
    return ndmp_create_connect_sub(host, user, pas, data, timeout, timeout2, true);
}

void* ndmp_create_connect_without_auth(char* host, char* user, char* pas, void* data, int timeout,
                                       int timeout2) {
    return ndmp_create_connect_sub(host, user, pas, data, timeout, timeout2, false);
}

int ndmp_connect_auth(void* vdp, char* host, char* userp, char* pas) {
    ndmp_connection* ndp = static_cast<ndmp_connection*>(vdp);
    if (!ndp) return -1;
    const char* h = host ? host : ndp->ndmp_serverhostname;
    unsigned int mask = 0;
    int r = ndp->vers >= 3 ? ndmp_config_get_auth_type_v3(ndp, &mask)
                           : ndmp_config_get_auth_type(ndp, &mask);
    ndmp_auth_type type = NDMP_AUTH_TEXT;
    if (r == 0) {
        if (mask & (1u << NDMP_AUTH_MD5))
            type = NDMP_AUTH_MD5;
        else if (mask & (1u << NDMP_AUTH_TEXT))
            type = NDMP_AUTH_TEXT;
        else if (mask & (1u << NDMP_AUTH_NONE))
            type = NDMP_AUTH_NONE;
    }
    if (type != NDMP_AUTH_NONE && (!userp || !*userp)) {
        ndmp_msg_out(42608, "No NDMP user and password are specified for host '%s'.\n", h);
        return -1;
    }
    char empty[1] = {0};
    if (type != NDMP_AUTH_NONE && !pas) {
        ndmp_trace(1, "No password is associated with the NDMP user '%s' for host '%s'.\n", userp,
                   h);
        pas = empty;
    }
    ndmp_connect_client_auth_request req;
    memset(&req, 0, sizeof req);
    req.auth_data.auth_type = type;
    if (type == NDMP_AUTH_TEXT) {
        req.auth_data.ndmp_auth_data_u.auth_text.auth_id = userp;
        req.auth_data.ndmp_auth_data_u.auth_text.auth_password = pas;
    } else if (type == NDMP_AUTH_MD5) {
        ndmp_config_get_auth_attr_reply* attr = nullptr;
        bool ok = ndmp_config_get_auth_attr(ndp, NDMP_AUTH_MD5, &attr) == 0 && attr &&
                  attr->error == NDMP_NO_ERR && attr->server_attr.auth_type == NDMP_AUTH_MD5;
        ok = ok && md5_digest(pas,
                              reinterpret_cast<const unsigned char*>(
                                  attr->server_attr.ndmp_auth_attr_u.challenge),
                              reinterpret_cast<unsigned char*>(
                                  req.auth_data.ndmp_auth_data_u.auth_md5.auth_digest));
        ndmp_free_reply(ndp, NDMP_CONFIG_GET_AUTH_ATTR, attr);
        if (!ok) {
            ndmp_msg_out(42609, "Create MD5 digest failed.  Abort operation.\n");
            return -1;
        }
        req.auth_data.ndmp_auth_data_u.auth_md5.auth_id = userp;
    }
    void* reply = nullptr;
    r = ndmp_call(ndp, NDMP_CONNECT_CLIENT_AUTH, &req, &reply, ndmp_clnt_tbl);
    ndmp_error err = reply ? static_cast<ndmp_error_reply*>(reply)->error : NDMP_NO_ERR;
    ndmp_free_reply(ndp, NDMP_CONNECT_CLIENT_AUTH, reply);
    OPENSSL_cleanse(&req.auth_data.ndmp_auth_data_u.auth_md5.auth_digest,
                    sizeof req.auth_data.ndmp_auth_data_u.auth_md5.auth_digest);
    if (r < 0 || err != NDMP_NO_ERR) {
        if (r == 0) ndmp_errinfo("connect client auth", 0, err);
        ndmp_msg_out(42610, "The NDMP connection is not successfully authorized on host '%s'.\n",
                     h);
        return -1;
    }
    return 0;
}
