// cdi_os_open and cdi_os_close on Linux: opening the device, finding the
// SCSI generic node that carries its commands (cached per thread), and the
// choice of transport by kernel version.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "drivers/uscsi/uscsi.h"
#include "liblocal/kv_mem.h"

namespace {

UscsiHooks g_hooks = {nullptr, nullptr, nullptr, nullptr};

const int kNodeFlags = O_RDWR | O_NONBLOCK | O_CLOEXEC;

void close_aux(CDI_INFOP cdi_info) {
    ACCESS_PATH& p = cdi_info->path;
    if (p.aux_handle >= 0 && p.aux_handle != p.handle) close(p.aux_handle);
    p.aux_handle = -1;
    free(p.aux_device_file);
    p.aux_device_file = nullptr;
}

void take_aux(CDI_INFOP cdi_info, int fd, const char* name) {
    cdi_info->path.aux_handle = fd;
    free(cdi_info->path.aux_device_file);
    cdi_info->path.aux_device_file = xstrdup(name);
}

bool sysfs_present() {
    char sysfs[4096];
    get_path_sysfs(sysfs, sizeof sysfs);
    struct stat st;
    return stat(sysfs, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

void uscsi_set_hooks(const UscsiHooks* hooks) {
    g_hooks = hooks ? *hooks : UscsiHooks{nullptr, nullptr, nullptr, nullptr};
}

const UscsiHooks& uscsi_hooks(void) {
    return g_hooks;
}

int uscsi_ioctl(int fd, unsigned long request, void* arg) {
    if (g_hooks.ioctl_fn) return g_hooks.ioctl_fn(fd, request, arg);
    return ioctl(fd, request, arg);
}

int cdi_release_prefers_sg_io(const char* release) {
    int major = 0, minor = 0, patch = 0;
    if (!release) return 0;
    int n = sscanf(release, "%d.%d.%d", &major, &minor, &patch);
    if (n >= 1 && major >= 3) return 1;
    if (n < 3 || major < 2) return 0;
    if (major > 2 || minor > 6) return 1;
    return minor == 6 && patch >= 16;
}

int cdi_os_detect_sg_io(void) {
    if (g_hooks.kernel_release) return cdi_release_prefers_sg_io(g_hooks.kernel_release);
    struct utsname u;
    if (uname(&u) != 0) return 0;
    return cdi_release_prefers_sg_io(u.release);
}

int cdi_os_open(CDI_INFOP cdi_info) {
    cdi_t_struct* t = cdi_t_get();
    ACCESS_PATH& p = cdi_info->path;
    close_aux(cdi_info);

    // An INQUIRY needs no write access; read-write only when asked.
    const int flags = (p.options == CDI_OPT_READ_WRITE ? O_RDWR : O_RDONLY) | O_NONBLOCK;
    if (p.handle < 0) {
        int fd = open(p.device_file, flags | O_CLOEXEC);
        if (fd < 0) {
            int err = errno;
            cdi_info->error.errnum = err;
            cdi_info->status = cdi_errno_to_status(err);
            vcdi_AssignErrStrf(cdi_info,
                               "invalid file handle opening device_file '%s' with flags: 0x%x",
                               p.device_file, flags);
            return cdi_info->status;
        }
        p.handle = fd;
    }

    INQ dev;
    const int dev_ok =
        (t->use_SG_IO ? sg_inquiry(p.handle, &dev) : st_inquiry(p.handle, &dev)) == 0;
    // Without its own identity the device can't be told from another: no
    // node is picked for it, and the direct handle remains.
    if (dev_ok) {
        for (SNLP n = t->sg_list; n; n = n->next) {
            if (!n->sg_inq_ok || inq_compare(reinterpret_cast<unsigned char*>(&n->sg_inq),
                                             reinterpret_cast<unsigned char*>(&dev)) != 0)
                continue;
            int fd = open(n->sgname, kNodeFlags);
            if (fd >= 0) {
                take_aux(cdi_info, fd, n->sgname);
                cdi_info->status = CDI_STAT_SUCCESS;
                return CDI_STAT_SUCCESS;
            }
            break;
        }
        if (t->sg_list) cdi_dprintf(3, "CDI info: clearing device cache.\n");
        cdi_sg_list_free(t->sg_list);
        t->sg_list = nullptr;

        SNLP list = get_sysfs_sg_device(p.device_file);
        if (!list) list = find_matching_scsi_devs(&dev);
        bool found = false;
        for (SNLP n = list; n; n = n->next) {
            int fd = open(n->sgname, kNodeFlags);
            if (fd < 0) continue;
            n->sg_inq_ok = sg_inquiry(fd, &n->sg_inq) == 0;
            // The walk goes on past a hit so that the cache is complete.
            if (!found && n->sg_inq_ok &&
                inq_compare(reinterpret_cast<unsigned char*>(&n->sg_inq),
                            reinterpret_cast<unsigned char*>(&dev)) == 0) {
                take_aux(cdi_info, fd, n->sgname);
                found = true;
            } else {
                close(fd);
            }
        }
        t->sg_list = list;
        if (found) {
            cdi_info->status = CDI_STAT_SUCCESS;
            return CDI_STAT_SUCCESS;
        }
        if (list) {
            take_aux(cdi_info, p.handle, list->sgname);
            cdi_dprintf(3, "CDI info: cdi_os_open() using primary handle(%d) for aux file(%s)\n",
                        p.handle, list->sgname);
            cdi_info->status = CDI_STAT_SUCCESS;
            return CDI_STAT_SUCCESS;
        }
    }
    if (sysfs_present()) cdi_dprintf(2, "CDI warning: Using old-style passthrough via st driver\n");
    cdi_info->status = CDI_STAT_SUCCESS;
    return CDI_STAT_SUCCESS;
}

int cdi_os_close(CDI_INFOP cdi_info) {
    ACCESS_PATH& p = cdi_info->path;
    free(p.aux_device_file);
    p.aux_device_file = nullptr;
    // The primary handle may double as the auxiliary one: close it once.
    if (p.aux_handle == p.handle) p.aux_handle = -1;
    if (p.handle >= 0) {
        close(p.handle);
        p.handle = -1;
    }
    if (p.aux_handle >= 0) {
        close(p.aux_handle);
        p.aux_handle = -1;
    }
    return 0;
}
