// The fake SCSI device layer: an LD_PRELOAD library that answers SG_IO (and
// the older SCSI_IOCTL_SEND_COMMAND) INQUIRY for device files in the state
// folder's dev/ directory, from the same state the tools use. Every other
// path and descriptor goes to the real C library untouched.
// Thread-safe: the descriptor table is guarded by a mutex.
#include <dlfcn.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "tools/arraysim/inquiry.h"
#include "tools/arraysim/preload/scsi_tape_preload.h"

using namespace arraysim;

namespace {

constexpr unsigned long kScsiIoctlSendCommand = 1;  // <scsi/scsi_ioctl.h>
constexpr unsigned char kDriverSense = 0x08;        // driver_status: sense data valid
constexpr unsigned char kCheckCondition = 0x02;     // SAM status

std::mutex g_mtx;
std::map<int, DevIdentity>* g_fds = nullptr;  // never freed: used until exit

template <class F>
F real(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// The device name when `path` is a file directly in the state's dev folder.
bool sim_device(const char* path, std::string& name) {
    if (!path) return false;
    const char* dir = getenv(kStateEnv);
    if (!dir || !*dir) return false;
    std::string prefix = dev_dir(dir) + "/";
    if (strncmp(path, prefix.c_str(), prefix.size()) != 0) return false;
    name = path + prefix.size();
    return !name.empty() && name.find('/') == std::string::npos;
}

// The state as last read, and which file that was. A loader opens each
// source several times per snapshot, and reading thousands of LUNs again for
// every open cost more than the loader's own work. The tools replace the file
// by renaming, so a changed file has a new inode (or time, or size).
struct CachedState {
    bool ok = false;
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec mtim = {0, 0};
    off_t size = 0;
    State st;
};
CachedState* g_state = nullptr;  // never freed: used until exit
// Its own lock: reading the state closes descriptors, and the close wrapper
// takes g_mtx.
std::mutex g_state_mtx;

bool identity_of(const std::string& name, DevIdentity& id) {
    const char* dir = getenv(kStateEnv);
    struct stat sb;
    if (!dir || stat(state_file(dir).c_str(), &sb) != 0) return false;
    std::lock_guard<std::mutex> l(g_state_mtx);
    if (!g_state) g_state = new CachedState;
    CachedState& c = *g_state;
    if (!c.ok || c.dev != sb.st_dev || c.ino != sb.st_ino || c.size != sb.st_size ||
        c.mtim.tv_sec != sb.st_mtim.tv_sec || c.mtim.tv_nsec != sb.st_mtim.tv_nsec) {
        std::string err;
        c.ok = load_state(dir, c.st, err);
        c.dev = sb.st_dev;
        c.ino = sb.st_ino;
        c.mtim = sb.st_mtim;
        c.size = sb.st_size;
    }
    return c.ok && device_identity(c.st, name, id);
}

// After a successful real open: remember the device, or refuse a file whose
// device the array no longer has.
int adopt(int fd, const char* path) {
    std::string name;
    if (fd < 0 || !sim_device(path, name)) return fd;
    if (tape::preload_adopt(fd, name)) return fd;
    DevIdentity id;
    if (!identity_of(name, id)) {
        real<int (*)(int)>("close")(fd);
        errno = ENXIO;
        return -1;
    }
    std::lock_guard<std::mutex> l(g_mtx);
    if (!g_fds) g_fds = new std::map<int, DevIdentity>;
    (*g_fds)[fd] = id;
    return fd;
}

bool lookup(int fd, DevIdentity& id) {
    std::lock_guard<std::mutex> l(g_mtx);
    if (!g_fds) return false;
    auto it = g_fds->find(fd);
    if (it == g_fds->end()) return false;
    id = it->second;
    return true;
}

// Runs one CDB. Returns the SAM status; fills data and sense.
unsigned char execute(const DevIdentity& id, const unsigned char* cdb, unsigned char* data,
                      size_t dlen, size_t& got, unsigned char* sense, size_t slen,
                      size_t& sense_len) {
    got = 0;
    sense_len = 0;
    if (cdb[0] == 0x12) {  // INQUIRY
        int n = build_inquiry(id, cdb, data, dlen);
        if (n >= 0) {
            got = static_cast<size_t>(n);
            return 0;
        }
        sense_len = static_cast<size_t>(build_sense(0x24, sense, slen));
        return kCheckCondition;
    }
    if (cdb[0] == 0x00) return 0;  // TEST UNIT READY
    sense_len = static_cast<size_t>(build_sense(0x20, sense, slen));
    return kCheckCondition;
}

int sg_io(const DevIdentity& id, sg_io_hdr_t* h) {
    if (!h || h->interface_id != 'S' || !h->cmdp || h->cmd_len < 6) {
        errno = EINVAL;
        return -1;
    }
    unsigned char sense[32];
    size_t got = 0, sl = 0;
    unsigned char* data = static_cast<unsigned char*>(h->dxferp);
    size_t dlen = h->dxfer_direction == SG_DXFER_FROM_DEV && data ? h->dxfer_len : 0;
    unsigned char status = execute(id, h->cmdp, data, dlen, got, sense, sizeof sense, sl);
    h->status = status;
    h->masked_status = status >> 1;
    h->host_status = 0;
    h->msg_status = 0;
    h->driver_status = status ? kDriverSense : 0;
    h->resid = static_cast<int>(h->dxfer_len - got);
    h->duration = 0;
    h->info = status ? SG_INFO_CHECK : 0;
    h->sb_len_wr = 0;
    if (sl && h->sbp && h->mx_sb_len) {
        size_t n = sl < h->mx_sb_len ? sl : h->mx_sb_len;
        memcpy(h->sbp, sense, n);
        h->sb_len_wr = static_cast<unsigned char>(n);
    }
    return 0;
}

// SCSI_IOCTL_SEND_COMMAND: { inlen, outlen, cdb then data }. A check
// condition returns the status with the driver byte's sense bit, and the
// sense where the data would go.
int send_command(const DevIdentity& id, void* arg) {
    if (!arg) {
        errno = EINVAL;
        return -1;
    }
    unsigned int hdr[2];
    memcpy(hdr, arg, sizeof hdr);
    unsigned char* p = static_cast<unsigned char*>(arg) + sizeof hdr;
    unsigned char cdb[16];
    memcpy(cdb, p, 6);
    unsigned char sense[32];
    unsigned char data[4096];
    size_t got = 0, sl = 0;
    size_t out = hdr[1] < sizeof data ? hdr[1] : sizeof data;
    unsigned char status = execute(id, cdb, data, out, got, sense, sizeof sense, sl);
    if (status) {
        memcpy(p, sense, sl);
        return (kDriverSense << 24) | status;
    }
    memcpy(p, data, got);
    return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    return adopt(real<int (*)(const char*, int, ...)>("open")(path, flags, mode), path);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    return adopt(real<int (*)(const char*, int, ...)>("open64")(path, flags, mode), path);
}

__attribute__((visibility("default"))) int openat(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    return adopt(real<int (*)(int, const char*, int, ...)>("openat")(dirfd, path, flags, mode),
                 path);
}

__attribute__((visibility("default"))) int openat64(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list ap;
        va_start(ap, flags);
        mode = va_arg(ap, mode_t);
        va_end(ap);
    }
    return adopt(real<int (*)(int, const char*, int, ...)>("openat64")(dirfd, path, flags, mode),
                 path);
}

__attribute__((visibility("default"))) int __openat_2(int dirfd, const char* path, int flags) {
    return adopt(real<int (*)(int, const char*, int)>("__openat_2")(dirfd, path, flags), path);
}

__attribute__((visibility("default"))) int __openat64_2(int dirfd, const char* path, int flags) {
    return adopt(real<int (*)(int, const char*, int)>("__openat64_2")(dirfd, path, flags), path);
}

__attribute__((visibility("default"))) int __open_2(const char* path, int flags) {
    return adopt(real<int (*)(const char*, int)>("__open_2")(path, flags), path);
}

__attribute__((visibility("default"))) int __open64_2(const char* path, int flags) {
    return adopt(real<int (*)(const char*, int)>("__open64_2")(path, flags), path);
}

__attribute__((visibility("default"))) int close(int fd) {
    {
        std::lock_guard<std::mutex> l(g_mtx);
        if (g_fds) g_fds->erase(fd);
    }
    tape::preload_forget(fd);
    return real<int (*)(int)>("close")(fd);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long req, ...) {
    va_list ap;
    va_start(ap, req);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    std::string tape_dev;
    if (tape::preload_owns(fd, tape_dev)) return tape::preload_ioctl(tape_dev, req, arg);
    DevIdentity id;
    if (lookup(fd, id)) {
        if (req == SG_IO) return sg_io(id, static_cast<sg_io_hdr_t*>(arg));
        if (req == kScsiIoctlSendCommand) return send_command(id, arg);
    }
    return real<int (*)(int, unsigned long, ...)>("ioctl")(fd, req, arg);
}

}  // extern "C"
