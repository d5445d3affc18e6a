// Configuration requests and the negotiation of protocol extensions.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "libndmp/ndmp/ndmp_priv.h"
#include "libndmp/ndmp_clnt/ndmp_clnt.h"

namespace {

std::string debug_dir = "/vmr/tmp/ndmp_debug";

template <typename R>
int get(void* ndp, ndmp_message proc, void* req, R** reply) {
    void* r = nullptr;
    if (reply) *reply = nullptr;
    int rc = ndmp_call(ndp, proc, req, &r, ndmp_clnt_tbl);
    if (rc < 0) return -1;
    if (reply)
        *reply = static_cast<R*>(r);
    else
        ndmp_free_reply(ndp, proc, r);
    return 0;
}

unsigned int mask_of(const ndmp_auth_type* v, u_int n) {
    unsigned int m = 0;
    for (u_int i = 0; i < n; i++)
        if (v[i] >= 0 && v[i] < 32) m |= 1u << v[i];
    return m;
}

}  // namespace

void ndmp_set_debug_dir(const char* dir) {
    debug_dir = dir ? dir : "/vmr/tmp/ndmp_debug";
}

int ndmp_config_get_host_info(void* ndp, void** reply) {
    return get(ndp, NDMP_CONFIG_GET_HOST_INFO, nullptr, reply);
}
int ndmp_config_get_server_info(void* ndp, ndmp_config_get_server_info_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_SERVER_INFO, nullptr, reply);
}
int ndmp_config_get_butype_info(void* ndp, ndmp_config_get_butype_info_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_BUTYPE_INFO, nullptr, reply);
}
int ndmp_config_get_fs_info(void* ndp, ndmp_config_get_fs_info_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_FS_INFO, nullptr, reply);
}
int ndmp_config_get_tape_info(void* ndp, ndmp_config_get_tape_info_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_TAPE_INFO, nullptr, reply);
}
int ndmp_config_get_scsi_info(void* ndp, ndmp_config_get_scsi_info_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_SCSI_INFO, nullptr, reply);
}
int ndmp_config_get_connection_type(void* ndp, ndmp_config_get_connection_type_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_CONNECTION_TYPE, nullptr, reply);
}
int ndmp_config_get_butype_attr(void* ndp, char* name, ndmp_config_get_butype_attr_reply** reply) {
    ndmp_config_get_butype_attr_request req;
    req.name = name ? name : const_cast<char*>("");
    return get(ndp, NDMP_CONFIG_GET_BUTYPE_ATTR, &req, reply);
}
int ndmp_config_get_auth_attr(void* ndp, ndmp_auth_type type,
                              ndmp_config_get_auth_attr_reply** reply) {
    ndmp_config_get_auth_attr_request req;
    req.auth_type = type;
    return get(ndp, NDMP_CONFIG_GET_AUTH_ATTR, &req, reply);
}
int ndmp_config_get_ext_list(void* ndp, ndmp_config_get_ext_list_reply** reply) {
    return get(ndp, NDMP_CONFIG_GET_EXT_LIST, nullptr, reply);
}

int ndmp_config_set_ext_list(void* ndp, ndmp_class_version* list, unsigned int count) {
    ndmp_config_set_ext_list_request req;
    req.ndmp_selected_ext.ndmp_selected_ext_len = count;
    req.ndmp_selected_ext.ndmp_selected_ext_val = list;
    ndmp_error_reply* reply = nullptr;
    if (get(ndp, NDMP_CONFIG_SET_EXT_LIST, &req, &reply) < 0) return -1;
    int r = ndmp_errinfo("config set ext list", 0, reply ? reply->error : NDMP_NO_ERR);
    ndmp_free_reply(ndp, NDMP_CONFIG_SET_EXT_LIST, reply);
    return r;
}

int ndmp_config_get_auth_type(void* ndp, unsigned int* mask) {
    ndmp_config_get_host_info_reply_v2* r = nullptr;
    if (mask) *mask = 0;
    if (ndmp_config_get_host_info(ndp, reinterpret_cast<void**>(&r)) < 0 || !r) return -1;
    int rc = ndmp_errinfo("config get host info", 0, r->error);
    if (rc == 0 && mask) *mask = mask_of(r->auth_type.auth_type_val, r->auth_type.auth_type_len);
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_HOST_INFO, r);
    return rc;
}

int ndmp_config_get_auth_type_v3(void* ndp, unsigned int* mask) {
    ndmp_config_get_server_info_reply* r = nullptr;
    if (mask) *mask = 0;
    if (ndmp_config_get_server_info(ndp, &r) < 0 || !r) return -1;
    int rc = ndmp_errinfo("config get server info", 0, r->error);
    if (rc == 0 && mask) *mask = mask_of(r->auth_type.auth_type_val, r->auth_type.auth_type_len);
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_SERVER_INFO, r);
    return rc;
}

int ndmp_config_get_host_os(void* ndp, char* os, size_t size) {
    if (!os || size == 0) return -1;
    os[0] = '\0';
    void* r = nullptr;
    if (ndmp_config_get_host_info(ndp, &r) < 0 || !r) return -1;
    // Both forms begin alike: error, hostname, os_type.
    int vers = ndmp_get_vers(ndp);
    const char* t = nullptr;
    ndmp_error err;
    if (vers <= 2) {
        const ndmp_config_get_host_info_reply_v2* v =
            static_cast<ndmp_config_get_host_info_reply_v2*>(r);
        err = v->error;
        t = v->os_type;
    } else {
        const ndmp_config_get_host_info_reply* v = static_cast<ndmp_config_get_host_info_reply*>(r);
        err = v->error;
        t = v->os_type;
    }
    int rc = ndmp_errinfo("config get host info", 0, err);
    if (rc == 0) snprintf(os, size, "%s", t ? t : "");
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_HOST_INFO, r);
    return rc;
}

int ndmp_server_supports_getextlst(void* ndp, int* getextlst_supported) {
    if (getextlst_supported) *getextlst_supported = 0;
    if (ndmp_get_vers(ndp) < 4) return 0;
    ndmp_config_get_server_info_reply* r = nullptr;
    if (ndmp_config_get_server_info(ndp, &r) < 0 || !r) return -1;
    if (ndmp_errinfo("config get server info", 0, r->error) < 0) {
        ndmp_free_reply(ndp, NDMP_CONFIG_GET_SERVER_INFO, r);
        return -1;
    }
    std::string vendor = r->vendor_name ? r->vendor_name : "";
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_SERVER_INFO, r);
    std::string off = debug_dir + "/ndmpgetextlist_disable_" + vendor;
    struct stat st;
    if (stat(off.c_str(), &st) == 0) return 0;
    if (vendor == "Sun Microsystems") {
        ndmp_trace(1,
                   "Skipped NDMP extension support check because vendor %s does not support get "
                   "extension list requests.\n",
                   vendor.c_str());
        return 0;
    }
    if (getextlst_supported) *getextlst_supported = 1;
    return 0;
}

int ndmp_negotiate_extensions(void* ndp, int try_bre, int* got_bre, int try_cae, int* got_cae,
                              int try_cab, int* got_cab) {
    if (got_bre) *got_bre = 0;
    if (got_cae) *got_cae = 0;
    if (got_cab) *got_cab = 0;
    if (ndmp_get_vers(ndp) < 4) return 0;
    int supported = 0;
    if (ndmp_server_supports_getextlst(ndp, &supported) < 0) return -1;
    if (!supported) return 0;
    ndmp_config_get_ext_list_reply* r = nullptr;
    // A server that does not answer the list, or refuses it, offers no
    // extension; that is no reason to give up the connection.
    if (ndmp_config_get_ext_list(ndp, &r) < 0 || !r) return ndmp_eof(ndp) ? -1 : 0;
    if (r->error != NDMP_NO_ERR) {
        ndmp_free_reply(ndp, NDMP_CONFIG_GET_EXT_LIST, r);
        return 0;
    }
    std::vector<ndmp_class_version> chosen;
    for (u_int i = 0; i < r->class_list.class_list_len; i++) {
        const ndmp_class_list& c = r->class_list.class_list_val[i];
        for (u_int j = 0; j < c.ext_version.ext_version_len; j++) {
            const u_short v = c.ext_version.ext_version_val[j];
            int* got = nullptr;
            if (c.ext_class_id == NDMP_EXT_CLASS_BRE && v == 2 && try_bre) {
                ndmp_trace(1, "NDMP BRE is available\n");
                got = got_bre;
            } else if (c.ext_class_id == NDMP_EXT_CLASS_CAE && try_cae) {
                got = got_cae;
            } else if (c.ext_class_id == NDMP_EXT_CLASS_CAB && try_cab) {
                got = got_cab;
            } else {
                continue;
            }
            if (got) *got = 1;
            chosen.push_back(ndmp_class_version{c.ext_class_id, v});
            break;  // one version of a class
        }
    }
    ndmp_free_reply(ndp, NDMP_CONFIG_GET_EXT_LIST, r);
    if (chosen.empty()) return 0;
    return ndmp_config_set_ext_list(ndp, chosen.data(), static_cast<unsigned int>(chosen.size()));
}
