// SCSI device requests over a connection, the table the device interface
// calls through (open, one CDB, close, target), and device discovery.
#include <stdlib.h>
#include <string.h>

#include "libndmp/ndmp/ndmp_priv.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"

namespace {

const int kStatusTransportFailed = 240;
// The server's own time limit in milliseconds must fit its field.
const long kMaxTimeoutSeconds = 1073740;
const u_long kMaxTimeoutMs = 0x3FFFFFFF;
// The client's wait outlasts the server's, so that the server's answer comes first.
const int kReplyMargin = 100;

ndmp_error reply_error(void* reply) {
    return reply ? static_cast<ndmp_error_reply*>(reply)->error : NDMP_NO_ERR;
}

int simple(void* ndp, ndmp_message proc, void* req, const char* tag, ndmp_error* error) {
    void* r = nullptr;
    int rc = ndmp_call(ndp, proc, req, &r, ndmp_clnt_tbl);
    ndmp_error e = rc < 0 ? static_cast<ndmp_error>(NDMP_CALL_FAILED_ERR) : reply_error(r);
    int out = ndmp_errinfo(tag, rc, reply_error(r));
    ndmp_free_reply(ndp, proc, r);
    if (error) *error = e;
    return out;
}

}  // namespace

int ndmp_scsidev_open(void* ndp, char* device, ndmp_error* error) {
    if (!ndp || !device) {
        if (error) *error = NDMP_ILLEGAL_ARGS_ERR;
        return -1;
    }
    ndmp_scsi_open_request req;
    req.device = device;
    return simple(ndp, NDMP_SCSI_OPEN, &req, "scsidev open", error);
}

int ndmp_scsidev_close(void* ndp, char*, ndmp_error* error) {
    if (!ndp) {
        if (error) *error = NDMP_ILLEGAL_ARGS_ERR;
        return -1;
    }
    return simple(ndp, NDMP_SCSI_CLOSE, nullptr, "scsidev close", error);
}

int pscNdmpOpen(ndmpscsihandle* dmh, char*, char*) {
    if (!dmh) {
        ndmp_msg_out(0, "Null pointer to dmh.\n");
        return -1;
    }
    if (!dmh->filename) {
        ndmp_msg_out(0, "Null filename.\n");
        return -1;
    }
    ndmp_scsi_open_request req;
    req.device = dmh->filename;
    dmh->otype = 0;
    return simple(dmh->stream, NDMP_SCSI_OPEN, &req, "ndmp scsi open", nullptr);
}

int pscNdmpClose(ndmpscsihandle* dmh) {
    if (!dmh) return -1;
    return simple(dmh->stream, NDMP_SCSI_CLOSE, nullptr, "ndmp scsi close", nullptr);
}

int pscNdmpTarget(ndmpscsihandle* dmh, ndmpscsitarget* t) {
    if (!dmh || !t) return -1;
    ndmp_scsi_set_target_request req;
    req.device = dmh->filename ? dmh->filename : const_cast<char*>("");
    req.target_controller = static_cast<u_short>(t->bus);
    req.target_id = static_cast<u_short>(t->target);
    req.target_lun = static_cast<u_short>(t->lun);
    ndmp_error e = NDMP_NO_ERR;
    int r = simple(dmh->stream, NDMP_SCSI_SET_TARGET, &req, "ndmp scsi target", &e);
    if (e == NDMP_NO_DEVICE_ERR) ndmp_msg_out(0, "No such Device.\n");
    if (e == NDMP_NO_BUS_ERR) ndmp_msg_out(0, "No such SCSI bus.\n");
    return r;
}

int pscNdmpIoctl(ndmpscsihandle* dmh, ndmpscsi* dmpr) {
    if (!dmh || !dmpr) return -1;
    void* ndp = dmh->stream;
    ndmp_execute_cdb_request req;
    memset(&req, 0, sizeof req);
    req.cdb.cdb_len = dmpr->cdblen > 0 ? static_cast<u_int>(dmpr->cdblen) : 0;
    req.cdb.cdb_val = reinterpret_cast<char*>(dmpr->cdb);
    if (!dmpr->cdb) req.cdb.cdb_len = 0;
    req.timeout = dmpr->to > kMaxTimeoutSeconds
                      ? kMaxTimeoutMs
                      : static_cast<u_long>(dmpr->to < 0 ? 0 : dmpr->to) * 1000;
    const u_long buflen = dmpr->bufaddr && dmpr->buflen > 0 ? static_cast<u_long>(dmpr->buflen) : 0;
    if (dmpr->flags == NDMPSCSI_DATA_IN) {
        req.flags = NDMPSCSI_DATA_IN;
        req.datain_len = buflen;
    } else if (dmpr->flags == NDMPSCSI_DATA_OUT) {
        req.flags = NDMPSCSI_DATA_OUT;
        req.dataout.dataout_len = static_cast<u_int>(buflen);
        req.dataout.dataout_val = reinterpret_cast<char*>(dmpr->bufaddr);
    }
    if (!ndp || ndmp_eof(ndp)) {
        ndmp_msg_out(0, "Found eof on NDMP socket.\n");
        dmpr->senselen = 0;
        dmpr->buflen = 0;
        dmpr->status = kStatusTransportFailed;
        return -1;
    }
    const int saved = ndmp_get_timeout(ndp);
    const long to =
        dmpr->to > kMaxTimeoutSeconds ? kMaxTimeoutSeconds : (dmpr->to < 0 ? 0 : dmpr->to);
    ndmp_set_timeout(ndp, static_cast<int>(to) + kReplyMargin);
    const ndmp_message proc = dmh->otype ? NDMP_TAPE_EXECUTE_CDB : NDMP_SCSI_EXECUTE_CDB;
    ndmp_execute_cdb_reply* r = nullptr;
    int rc = ndmp_call(ndp, proc, &req, reinterpret_cast<void**>(&r), ndmp_clnt_tbl);
    ndmp_set_timeout(ndp, saved);
    if (rc < 0 || !r) {
        ndmp_msg_out(0, "ndmp_call failed: \n");
        ndmp_free_reply(ndp, proc, r);
        dmpr->senselen = 0;
        dmpr->buflen = 0;
        dmpr->status = kStatusTransportFailed;
        return -1;
    }
    if (r->error != NDMP_NO_ERR) {
        switch (r->error) {
        case NDMP_IO_ERR: ndmp_msg_out(0, "IO Error.\n"); break;
        case NDMP_NO_DEVICE_ERR: ndmp_msg_out(0, "No device found.\n"); break;
        case NDMP_NO_BUS_ERR: ndmp_msg_out(0, "No such SCSI bus.\n"); break;
        default: ndmp_msg_out(0, "error = %02x\n", static_cast<unsigned int>(r->error)); break;
        }
        ndmp_free_reply(ndp, proc, r);
        return -1;
    }
    dmpr->status = r->status;
    if (dmpr->flags == NDMPSCSI_DATA_IN) {
        u_int n = r->datain.datain_len;
        if (n > buflen) n = static_cast<u_int>(buflen);
        if (n) memcpy(dmpr->bufaddr, r->datain.datain_val, n);
        dmpr->buflen = n;
    } else if (dmpr->flags == NDMPSCSI_DATA_OUT) {
        dmpr->buflen =
            r->dataout_len < buflen ? static_cast<long>(r->dataout_len) : static_cast<long>(buflen);
    } else {
        dmpr->buflen = 0;
    }
    u_int s = r->ext_sense.ext_sense_len;
    const u_int cap = dmpr->sense && dmpr->senselen > 0 ? static_cast<u_int>(dmpr->senselen) : 0;
    if (s > cap) s = cap;
    if (s) memcpy(dmpr->sense, r->ext_sense.ext_sense_val, s);
    dmpr->senselen = static_cast<int>(s);
    ndmp_free_reply(ndp, proc, r);
    return 0;
}

const ndmpscsi_ops ndmpscsitbl = {pscNdmpOpen, pscNdmpIoctl, pscNdmpClose, pscNdmpTarget};

namespace {

struct Found {
    char** paths = nullptr;
    ndmpscsitarget* btl = nullptr;
    int n = 0;
    int busy = 0;
};

void add(Found& f, const char* path) {
    char** p = static_cast<char**>(realloc(f.paths, sizeof(char*) * (f.n + 1)));
    if (!p) return;
    f.paths = p;
    ndmpscsitarget* b =
        static_cast<ndmpscsitarget*>(realloc(f.btl, sizeof(ndmpscsitarget) * (f.n + 1)));
    if (!b) return;
    f.btl = b;
    f.paths[f.n] = strdup(path);
    f.btl[f.n] = ndmpscsitarget{0, f.n, 0};
    f.n++;
}

void walk(void* ndp, const ndmp_device_info* v, u_int n, bool tape, bool raw, Found& f) {
    for (u_int i = 0; i < n; i++) {
        for (u_int j = 0; j < v[i].caplist.caplist_len; j++) {
            char* dev = v[i].caplist.caplist_val[j].device;
            if (!dev) continue;
            ndmp_error e = NDMP_NO_ERR;
            int ok;
            // Opening is how the device shows it is there and free.
            if (tape) {
                ok = ndmp_tape_open(ndp, dev, raw ? 2 : 0, &e) > 0;
                if (ok) ndmp_tape_close(ndp, &e);
            } else {
                ok = ndmp_scsidev_open(ndp, dev, &e) == 0;
                if (ok) ndmp_scsidev_close(ndp, dev, &e);
            }
            if (!ok && (e == NDMP_DEVICE_BUSY_ERR || e == NDMP_DEVICE_OPENED_ERR)) f.busy++;
            if (ok || e == NDMP_DEVICE_BUSY_ERR) add(f, dev);
        }
    }
}

}  // namespace

int ndmp_device_auto_discovery(char* host, char* user, char* passwd,
                               ndmpscsitarget** scsi_device_btl, char*** device_paths,
                               int* busy_devices_count) {
    if (scsi_device_btl) *scsi_device_btl = nullptr;
    if (device_paths) *device_paths = nullptr;
    if (busy_devices_count) *busy_devices_count = 0;
    void* ndp = ndmp_create_connect(host, user, passwd, nullptr, 60, 600);
    if (!ndp) return -1;
    if (ndmp_get_vers(ndp) < 3) {
        ndmp_connect_close(&ndp);
        return -1;
    }
    const char* rawenv = getenv("VMR_NDMP_TAPE_OPEN_RAW");
    const bool raw = rawenv && *rawenv && strcmp(rawenv, "0") != 0;
    Found f;
    ndmp_config_get_tape_info_reply* t = nullptr;
    if (ndmp_config_get_tape_info(ndp, &t) == 0 && t && t->error == NDMP_NO_ERR)
        walk(ndp, t->tape_info.tape_info_val, t->tape_info.tape_info_len, true, raw, f);
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_TAPE_INFO, t);
    ndmp_config_get_scsi_info_reply* s = nullptr;
    if (ndmp_config_get_scsi_info(ndp, &s) == 0 && s && s->error == NDMP_NO_ERR)
        walk(ndp, s->scsi_info.scsi_info_val, s->scsi_info.scsi_info_len, false, raw, f);
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_SCSI_INFO, s);
    ndmp_connect_close(&ndp);
    if (busy_devices_count) *busy_devices_count = f.busy;
    if (device_paths)
        *device_paths = f.paths;
    else {
        for (int i = 0; i < f.n; i++) free(f.paths[i]);
        free(f.paths);
    }
    if (scsi_device_btl)
        *scsi_device_btl = f.btl;
    else
        free(f.btl);
    return f.n;
}

int check_ndmp_auto_discovery_support(char* snode, char* ndmp_user, char* ndmp_passwd) {
    void* ndp = ndmp_create_connect(snode, ndmp_user, ndmp_passwd, nullptr, 60, 600);
    if (!ndp) return 0;
    int ok = 0;
    if (ndmp_get_vers(ndp) >= 3) {
        ndmp_config_get_tape_info_reply* t = nullptr;
        ok = ndmp_config_get_tape_info(ndp, &t) == 0 && t && t->error == NDMP_NO_ERR;
        ndmp_free_reply(ndp, NDMP_CONFIG_GET_TAPE_INFO, t);
    }
    ndmp_connect_close(&ndp);
    return ok;
}
