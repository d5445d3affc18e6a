// Life cycle of a CDI_INFO record: build, create, copy, free, and the list of
// buffers that live as long as the record.
#include <stdlib.h>
#include <string.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "liblocal/kv_mem.h"

CDI_INFOP cdi_build_cdi_info(CDI_INFOP cdi_info) {
    if (!cdi_info) cdi_info = static_cast<CDI_INFOP>(xmalloc(sizeof(CDI_INFO)));
    memset(cdi_info, 0, sizeof(CDI_INFO));
    cdi_info->status = CDI_STAT_CMD_NOT_SUPPORTED;
    cdi_info->drivestat.status = CDI_DRIVE_STATUS_UNKNOWN;
    cdi_info->path.handle = -1;
    cdi_info->path.aux_handle = -1;
    cdi_info->version = current_cdi_version;
    cdi_info->free_bufferlist_on_close = 1;
    return cdi_info;
}

CDI_INFO* cdi_create_cdi_info(char* pszDeviceFile, int iPathType, int iPathOptions,
                              unsigned int uiCdiMinVersion) {
    CDI_INFO* cdi_info = cdi_build_cdi_info(nullptr);
    cdi_info->path.type = iPathType;
    cdi_info->path.options = iPathOptions;
    cdi_info->path.device_file = xstrdup(pszDeviceFile);
    if (uiCdiMinVersion > current_cdi_version)
        cdi_dprintf(2,
                    "CDI info: cdi_create_cdi_info() version requested(%d) is greater than "
                    "version supported(%d).\nSome functionally may not be available.\n",
                    static_cast<int>(uiCdiMinVersion), static_cast<int>(current_cdi_version));
    return cdi_info;
}

void cdi_free_cdi_info(CDI_INFOP cdi_info, int cdi_info_is_malloced) {
    if (!cdi_info) return;
    // A record dropped while open must not leave its descriptors behind.
    if (cdi_info->path.handle >= 0 || cdi_info->path.aux_handle >= 0) cdi_close(cdi_info);
    // An NDMP record holds a connection and credentials but no descriptor. A
    // copy shares its original's connection and leaves it open.
    if (cdi_info->path.type == CDI_PATH_NDMP_SCSI) {
        if (cdi_info->path.cdi_opened_handle) {
            cdi_ndmp_close(cdi_info);
        } else {
            free(cdi_info->path.ndmp.ndmp_server);
            cdi_info->path.ndmp.ndmp_server = nullptr;
            vObscureAndFreeString(&cdi_info->path.ndmp.ndmp_user);
            vObscureAndFreeString(&cdi_info->path.ndmp.ndmp_password);
        }
    }
    free(cdi_info->path.device_file);
    cdi_info->path.device_file = nullptr;
    free(cdi_info->path.aux_device_file);
    cdi_info->path.aux_device_file = nullptr;
    vcdi_free_errstr(cdi_info);
    cdi_free_bufferlist(cdi_info);
    if (cdi_info_is_malloced) free(cdi_info);
}

void cdi_destory_cdi_info(CDI_INFO** pcdi_info) {
    if (!pcdi_info) return;
    cdi_free_cdi_info(*pcdi_info, 1);
    *pcdi_info = nullptr;
}

namespace {

// A pointer into the source record is moved to the same place in the target.
template <typename T>
void rebase(T*& p, const CDI_INFO* source, CDI_INFO* target) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(source);
    const unsigned char* q = reinterpret_cast<const unsigned char*>(p);
    if (q >= b && q < b + sizeof(CDI_INFO))
        p = reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(target) + (q - b));
}

}  // namespace

// The copy is for nested commands on a private record: it shares the
// descriptors but never closes them (cdi_opened_handle 0, no aux handle of
// its own), and owns its own copies of every text.
void cdi_copy_cdi_info(CDI_INFOP target, CDI_INFOP source) {
    if (!target || !source || target == source) return;
    memcpy(target, source, sizeof(CDI_INFO));
    target->path.device_file = xstrdup(source->path.device_file);
    target->path.aux_device_file = xstrdup(source->path.aux_device_file);
    target->path.scsi_ip_path = nullptr;
    target->path.ndmp.ndmp_server = xstrdup(source->path.ndmp.ndmp_server);
    target->path.ndmp.ndmp_user = xstrdup(source->path.ndmp.ndmp_user);
    target->path.ndmp.ndmp_password = xstrdup(source->path.ndmp.ndmp_password);
    target->path.cdi_opened_handle = 0;
    target->bufferlist = nullptr;
    if (source->errstr_can_be_freed) target->error.errstr = xstrdup(source->error.errstr);
    rebase(target->sense_buffer, source, target);
    rebase(target->scmd.scmd_sense, source, target);
    rebase(target->scmd.scmd_bufaddr, source, target);
    rebase(target->scmd.scmd_cdb, source, target);
}

void* cdi_calloc(CDI_INFOP cdi_info, size_t nmemb, size_t size) {
    void* p = xcalloc(nmemb ? nmemb : 1, size ? size : 1);
    if (!cdi_info) return p;
    BUFFERLIST* node = static_cast<BUFFERLIST*>(xmalloc(sizeof(BUFFERLIST)));
    node->buffer = p;
    node->next = cdi_info->bufferlist;
    cdi_info->bufferlist = node;
    return p;
}

char* cdi_strdup(CDI_INFOP cdi_info, const char* s) {
    if (!s) return nullptr;
    size_t n = strlen(s) + 1;
    char* p = static_cast<char*>(cdi_calloc(cdi_info, n, 1));
    memcpy(p, s, n);
    return p;
}

void cdi_free_bufferlist(CDI_INFOP cdi_info) {
    if (!cdi_info) return;
    BUFFERLIST* n = cdi_info->bufferlist;
    while (n) {
        BUFFERLIST* next = n->next;
        free(n->buffer);
        free(n);
        n = next;
    }
    cdi_info->bufferlist = nullptr;
}
