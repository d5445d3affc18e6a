// Tape requests over a connection: open and close, the tape operations with
// the filemark held back until it is known whether one more follows, read,
// write, and a CDB sent to the tape.
#include <stdlib.h>
#include <string.h>

#include "libndmp/ndmp/ndmp_priv.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"

namespace {

// Extra reply time for TAPE_OPEN: a drive may be loading a cartridge.
const int kTapeOpenExtra = 900;

ndmp_error reply_error(void* reply) {
    return reply ? static_cast<ndmp_error_reply*>(reply)->error : NDMP_NO_ERR;
}

void set_err(ndmp_error* error, ndmp_error e) {
    if (error) *error = e;
}

int mtio_now(void* ndp, ndmp_tape_mtio_op op, int count, ndmp_error* error, u_long* resid) {
    ndmp_tape_mtio_request req;
    req.tape_op = op;
    req.count = static_cast<u_long>(count);
    ndmp_tape_mtio_reply* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_MTIO, &req, reinterpret_cast<void**>(&r), ndmp_clnt_tbl);
    ndmp_error e =
        rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : (r ? r->error : NDMP_NO_ERR);
    if (resid) *resid = r ? r->resid_count : 0;
    set_err(error, e);
    int out = ndmp_errinfo("tape mtio", rc, r ? r->error : NDMP_NO_ERR);
    ndmp_free_reply(ndp, NDMP_TAPE_MTIO, r);
    return out;
}

}  // namespace

int ndmp_tape_open(void* ndp, char* device, int mode, ndmp_error* error) {
    if (!ndp || !device) {
        set_err(error, NDMP_ILLEGAL_ARGS_ERR);
        return -1;
    }
    char os[256];
    if (ndmp_config_get_host_os(ndp, os, sizeof os) == 0 && strncmp(os, "NetApp", 6) == 0)
        ndmp_set_double_weof(ndp, 1);
    else
        ndmp_set_double_weof(ndp, 0);
    // The backup layer's names carry a suffix the server does not know.
    size_t n = strlen(device);
    static const char kSuffix[] = " (NDMP)";
    const size_t sl = sizeof kSuffix - 1;
    char* name = static_cast<char*>(malloc(n + 1));
    if (!name) {
        set_err(error, NDMP_NO_MEM_ERR);
        return -1;
    }
    memcpy(name, device, n + 1);
    if (n >= sl && strcmp(name + n - sl, kSuffix) == 0) name[n - sl] = '\0';

    ndmp_tape_open_request req;
    req.device = name;
    req.mode = mode == 0   ? NDMP_TAPE_READ_MODE
               : mode == 2 ? NDMP_TAPE_RAW_MODE
                           : NDMP_TAPE_RDWR_MODE;
    const int saved = ndmp_get_timeout(ndp);
    if (saved > 0) ndmp_set_timeout(ndp, saved + kTapeOpenExtra);
    void* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_OPEN, &req, &r, ndmp_clnt_tbl);
    ndmp_set_timeout(ndp, saved);
    free(name);
    ndmp_error e = rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : reply_error(r);
    ndmp_free_reply(ndp, NDMP_TAPE_OPEN, r);
    set_err(error, e);
    if (e != NDMP_NO_ERR) {
        if (rc == 0) ndmp_errinfo("tape open", 0, e);
        return -1;
    }
    ndmp_set_weof_pending(ndp, 0);
    return 1;
}

int ndmp_tape_flush_weof(void* ndp, ndmp_error* error) {
    set_err(error, NDMP_NO_ERR);
    if (!ndmp_get_weof_pending(ndp)) return 0;
    ndmp_set_weof_pending(ndp, 0);
    int count = ndmp_get_double_weof(ndp) ? 2 : 1;
    int r = mtio_now(ndp, NDMP_MTIO_EOF, count, error, nullptr);
    if (r < 0)
        ndmp_msg_out(0, "ndmp_tape_mtio: failed to write EOF (%d)\n",
                     error ? static_cast<int>(*error) : -1);
    return r;
}

int ndmp_tape_close(void* ndp, ndmp_error* error) {
    set_err(error, NDMP_NO_ERR);
    if (!ndp) {
        set_err(error, NDMP_ILLEGAL_ARGS_ERR);
        return -1;
    }
    if (ndmp_get_weof_pending(ndp))
        ndmp_tape_flush_weof(ndp, error);
    else
        ndmp_trace(2, "No need to write EOF while closing the tape.\n");
    void* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_CLOSE, nullptr, &r, ndmp_clnt_tbl);
    ndmp_error e = rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : reply_error(r);
    int out = ndmp_errinfo("tape close", rc, reply_error(r));
    ndmp_free_reply(ndp, NDMP_TAPE_CLOSE, r);
    if (out < 0) set_err(error, e);
    return out;
}

int ndmp_tape_mtio(void* ndp, ndmp_tape_mtio_op op, int count, ndmp_error* error,
                   u_long* resid_count) {
    set_err(error, NDMP_NO_ERR);
    if (resid_count) *resid_count = 0;
    if (!ndp) {
        set_err(error, NDMP_ILLEGAL_ARGS_ERR);
        return -1;
    }
    // A single filemark may be the first of the two a server wants at the
    // end: hold it until the next operation or the close says which.
    if (op == NDMP_MTIO_EOF && count == 1 && !ndmp_get_weof_pending(ndp)) {
        ndmp_trace(2, "Don't write EOF until closing the tape or next tape operation.\n");
        ndmp_set_weof_pending(ndp, 1);
        return 0;
    }
    if (ndmp_get_weof_pending(ndp) && ndmp_tape_flush_weof(ndp, error) < 0) return -1;
    return mtio_now(ndp, op, count, error, resid_count);
}

int ndmp_tape_write(void* ndp, char* buf, int size, ndmp_error* error) {
    set_err(error, NDMP_NO_ERR);
    if (!ndp || (!buf && size > 0) || size < 0) {
        set_err(error, NDMP_ILLEGAL_ARGS_ERR);
        return -1;
    }
    if (ndmp_get_weof_pending(ndp) && ndmp_tape_flush_weof(ndp, error) < 0) return -1;
    ndmp_tape_write_request req;
    req.data_out.data_out_len = static_cast<u_int>(size);
    req.data_out.data_out_val = buf;
    ndmp_tape_write_reply* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_WRITE, &req, reinterpret_cast<void**>(&r), ndmp_clnt_tbl);
    ndmp_error e =
        rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : (r ? r->error : NDMP_NO_ERR);
    int out = ndmp_errinfo("tape write", rc, r ? r->error : NDMP_NO_ERR);
    if (out == 0 && r) out = static_cast<int>(r->count);
    ndmp_free_reply(ndp, NDMP_TAPE_WRITE, r);
    set_err(error, e);
    return out;
}

int ndmp_tape_read(void* ndp, char* buf, int size, ndmp_error* error) {
    set_err(error, NDMP_NO_ERR);
    if (!ndp || !buf || size < 0) {
        set_err(error, NDMP_ILLEGAL_ARGS_ERR);
        return -1;
    }
    ndmp_tape_read_request req;
    req.count = static_cast<u_long>(size);
    ndmp_tape_read_reply* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_READ, &req, reinterpret_cast<void**>(&r), ndmp_clnt_tbl);
    ndmp_error e =
        rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : (r ? r->error : NDMP_NO_ERR);
    int out = -1;
    if (rc == 0 && r && r->error == NDMP_NO_ERR) {
        // Never more than the caller's buffer, whatever the server sent.
        u_int n = r->data_in.data_in_len;
        if (n > static_cast<u_int>(size)) n = static_cast<u_int>(size);
        if (n) memcpy(buf, r->data_in.data_in_val, n);
        out = static_cast<int>(n);
    } else if (e != NDMP_EOF_ERR) {
        // Reaching a filemark is an answer the caller expects, not a failure to report.
        ndmp_errinfo("tape read", rc, r ? r->error : NDMP_NO_ERR);
    }
    ndmp_free_reply(ndp, NDMP_TAPE_READ, r);
    set_err(error, e);
    return out;
}

int ndmp_tape_write_must_chunk(void* ndp, ndmp_u_quad* total_backup_size) {
    static const int kBlocks = 16;
    static const int kBlock = 32768;
    char* zero = static_cast<char*>(calloc(1, kBlock));
    if (!zero) return -1;
    int rc = 0;
    for (int i = 0; i < kBlocks && rc >= 0; i++) {
        ndmp_error e = NDMP_NO_ERR;
        if (ndmp_tape_write(ndp, zero, kBlock, &e) < 0) {
            ndmp_msg_out(42641, "NDMP write failed, %s\n", ndmp_err2str(e));
            rc = -1;
        }
    }
    free(zero);
    if (rc == 0) {
        ndmp_error e = NDMP_NO_ERR;
        if (ndmp_tape_mtio(ndp, NDMP_MTIO_EOF, 1, &e, nullptr) < 0) {
            ndmp_msg_out(101910, "Error %d during writing a EOF on ndmp device\n",
                         static_cast<int>(e));
            rc = -1;
        }
    }
    if (rc == 0 && total_backup_size) {
        total_backup_size->high = 0;
        total_backup_size->low = 0x80000;
    }
    return rc;
}

int ndmp_tape_set_record_size(void* ndp, u_long size, ndmp_error* error) {
    set_err(error, NDMP_NO_ERR);
    if (ndmp_get_vers(ndp) != 1) {
        ndmp_msg_out(0, "TAPE_SET_RECORD_SIZE message is only supported in NDMP version 1.0.\n");
        set_err(error, NDMP_NOT_SUPPORTED_ERR);
        return -1;
    }
    ndmp_tape_set_record_size_request req;
    req.record_size = size;
    void* r = nullptr;
    int rc = ndmp_call(ndp, NDMP_TAPE_SET_RECORD_SIZE, &req, &r, ndmp_clnt_tbl);
    int out = ndmp_errinfo("tape set record size", rc, reply_error(r));
    set_err(error, rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : reply_error(r));
    ndmp_free_reply(ndp, NDMP_TAPE_SET_RECORD_SIZE, r);
    return out;
}

ndmp_tape_execute_cdb_reply* ndmp_tape_execute_cdb(void* tape_ndp, u_long flags, u_long timeout,
                                                   u_long datain_len, u_int cdb_len, char* cdb_val,
                                                   u_int dataout_len, char* dataout_val) {
    ndmp_tape_execute_cdb_request req;
    req.flags = flags;
    req.timeout = timeout;
    req.datain_len = datain_len;
    req.cdb.cdb_len = cdb_len;
    req.cdb.cdb_val = cdb_val;
    req.dataout.dataout_len = dataout_len;
    req.dataout.dataout_val = dataout_val;
    void* r = nullptr;
    if (ndmp_call(tape_ndp, NDMP_TAPE_EXECUTE_CDB, &req, &r, ndmp_clnt_tbl) < 0 || !r) {
        ndmp_msg_out(0, "NDMP_TAPE_EXECUTE_CDB request failed\n");
        return nullptr;
    }
    return static_cast<ndmp_tape_execute_cdb_reply*>(r);
}
