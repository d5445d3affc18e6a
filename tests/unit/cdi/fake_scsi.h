// A fake SCSI device layer for the device interface tests: plain files stand
// for devices, and an ioctl hook answers SG_IO and SCSI_IOCTL_SEND_COMMAND
// for them from canned data. Single-threaded, as the tests are.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "drivers/uscsi/uscsi.h"

struct FakeDevice {
    std::vector<unsigned char> standard;            // standard INQUIRY data
    std::map<int, std::vector<unsigned char>> vpd;  // VPD pages by code
    std::vector<unsigned char> data;                // answer to any other CDB
    int ioctl_errno = 0;                            // non-zero: the ioctl fails
    unsigned char status = 0, host = 0, driver = 0, msg = 0;
    std::vector<unsigned char> sense;
    int old_ret = -1;  // old transport: forced return value
    // What arrived.
    int sg_calls = 0, st_calls = 0;
    std::vector<unsigned char> last_cdb, last_out;
    int last_direction = 0;
    unsigned last_timeout = 0, last_mx_sb_len = 0, last_dxfer_len = 0;
};

// Standard INQUIRY data with the array's own bytes: LUN in 121-122, the
// frame's IPv4 address in 140-143.
inline std::vector<unsigned char> make_inquiry(const char* vendor, const char* product,
                                               const char* rev, int type = 0, int lun = -1,
                                               const unsigned char* ip = nullptr,
                                               size_t len = 144) {
    std::vector<unsigned char> d(len < 36 ? 36 : len, 0);
    d[0] = static_cast<unsigned char>(type);
    d[4] = static_cast<unsigned char>(d.size() - 5);
    auto put = [&](size_t off, const char* s, size_t n) {
        size_t l = strlen(s);
        for (size_t i = 0; i < n; i++) d[off + i] = i < l ? s[i] : ' ';
    };
    put(8, vendor, 8);
    put(16, product, 16);
    put(32, rev, 4);
    if (lun >= 0 && d.size() > 122) {
        d[121] = static_cast<unsigned char>(lun >> 8);
        d[122] = static_cast<unsigned char>(lun & 0xff);
    }
    if (ip && d.size() > 143) memcpy(&d[140], ip, 4);
    d.resize(len);
    return d;
}

inline std::vector<unsigned char> make_vpd(int page, const std::string& payload) {
    std::vector<unsigned char> d(4 + payload.size());
    d[1] = static_cast<unsigned char>(page);
    d[2] = static_cast<unsigned char>(payload.size() >> 8);
    d[3] = static_cast<unsigned char>(payload.size() & 0xff);
    memcpy(&d[4], payload.data(), payload.size());
    return d;
}

// Page 0 listing 0x80 and 0x83, with a serial number and an identifier.
inline void give_identity_pages(FakeDevice& d, const std::string& sn, const std::string& wwn) {
    d.vpd[0x00] = make_vpd(0x00, std::string("\x00\x80\x83", 3));
    d.vpd[0x80] = make_vpd(0x80, sn);
    d.vpd[0x83] = make_vpd(0x83, wwn);
}

class FakeScsi {
public:
    static FakeScsi& get() {
        static FakeScsi f;
        return f;
    }
    // Installs the hook; release and proc path as the tests want them.
    void install(const char* release, const char* proc_path, const char* sg_prefix) {
        release_ = release ? release : "";
        proc_ = proc_path ? proc_path : "";
        prefix_ = sg_prefix ? sg_prefix : "";
        UscsiHooks h = {&FakeScsi::ioctl_hook, release ? release_.c_str() : nullptr,
                        proc_path ? proc_.c_str() : nullptr, sg_prefix ? prefix_.c_str() : nullptr};
        uscsi_set_hooks(&h);
    }
    void uninstall() {
        uscsi_set_hooks(nullptr);
        devices_.clear();
    }
    // The device is a plain file at path (made here if missing).
    FakeDevice& add(const std::string& path) {
        int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd >= 0) close(fd);
        char real[4096];
        std::string key = realpath(path.c_str(), real) ? real : path;
        return devices_[key];
    }
    FakeDevice* find_fd(int fd) {
        char link[64], target[4096];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(link, target, sizeof target - 1);
        if (n < 0) return nullptr;
        target[n] = '\0';
        auto it = devices_.find(target);
        return it == devices_.end() ? nullptr : &it->second;
    }

private:
    std::map<std::string, FakeDevice> devices_;
    std::string release_, proc_, prefix_;

    static const std::vector<unsigned char>* answer(FakeDevice& d, const unsigned char* cdb) {
        if (cdb[0] == 0x12) {
            if (!(cdb[1] & 1)) return &d.standard;
            auto it = d.vpd.find(cdb[2]);
            return it == d.vpd.end() ? nullptr : &it->second;
        }
        return &d.data;
    }

    static int ioctl_hook(int fd, unsigned long request, void* arg) {
        FakeDevice* d = get().find_fd(fd);
        if (!d) {
            errno = ENOTTY;
            return -1;
        }
        if (d->ioctl_errno) {
            errno = d->ioctl_errno;
            return -1;
        }
        if (request == SG_IO) return sg_io(*d, static_cast<sg_io_hdr_t*>(arg));
        if (request == SCSI_IOCTL_SEND_COMMAND)
            return send_command(*d, static_cast<unsigned char*>(arg));
        errno = ENOTTY;
        return -1;
    }

    static int sg_io(FakeDevice& d, sg_io_hdr_t* h) {
        d.sg_calls++;
        d.last_cdb.assign(h->cmdp, h->cmdp + h->cmd_len);
        d.last_direction = h->dxfer_direction;
        d.last_timeout = h->timeout;
        d.last_mx_sb_len = h->mx_sb_len;
        d.last_dxfer_len = h->dxfer_len;
        unsigned char* buf = static_cast<unsigned char*>(h->dxferp);
        if (h->dxfer_direction == SG_DXFER_TO_DEV) d.last_out.assign(buf, buf + h->dxfer_len);
        h->status = d.status;
        h->host_status = d.host;
        h->driver_status = d.driver;
        h->msg_status = d.msg;
        h->resid = static_cast<int>(h->dxfer_len);
        h->sb_len_wr = 0;
        const std::vector<unsigned char>* a = answer(d, h->cmdp);
        const bool is_inquiry = h->cmdp[0] == 0x12;
        if (is_inquiry && !a) {
            h->status = 2;  // no such page: check condition, illegal request
            static const unsigned char ill[] = {0x70, 0, 5, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x24, 0};
            size_t n = sizeof ill < h->mx_sb_len ? sizeof ill : h->mx_sb_len;
            memcpy(h->sbp, ill, n);
            h->sb_len_wr = static_cast<unsigned char>(n);
            return 0;
        }
        if (h->dxfer_direction == SG_DXFER_FROM_DEV && a) {
            size_t n = a->size() < h->dxfer_len ? a->size() : h->dxfer_len;
            if (n) memcpy(buf, a->data(), n);
            h->resid = static_cast<int>(h->dxfer_len - n);
        }
        if (!d.sense.empty() && h->sbp) {
            size_t n = d.sense.size() < h->mx_sb_len ? d.sense.size() : h->mx_sb_len;
            memcpy(h->sbp, d.sense.data(), n);
            h->sb_len_wr = static_cast<unsigned char>(n);
        }
        return 0;
    }

    // Block: inlen, outlen, then CDB followed by data; data in comes back at the CDB's place.
    static int send_command(FakeDevice& d, unsigned char* blk) {
        d.st_calls++;
        unsigned inlen, outlen;
        memcpy(&inlen, blk, 4);
        memcpy(&outlen, blk + 4, 4);
        unsigned char* data = blk + 8;
        int cdblen = (data[0] >> 5) == 0 ? 6 : (data[0] >> 5) <= 2 ? 10 : 12;
        d.last_cdb.assign(data, data + cdblen);
        if (inlen) d.last_out.assign(blk + 8 + 512, blk + 8 + 512 + inlen);
        if (d.old_ret >= 0) {
            if (!d.sense.empty()) memcpy(data, d.sense.data(), d.sense.size());
            return d.old_ret;
        }
        const std::vector<unsigned char>* a = answer(d, data);
        if (!a) return 2;
        memset(data, 0, outlen);
        size_t n = a->size() < outlen ? a->size() : outlen;
        if (n) memcpy(data, a->data(), n);
        return 0;
    }
};

// Open descriptors of this process, to prove nothing is left behind.
inline int count_open_fds() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (!d) return -1;
    while (readdir(d)) n++;
    closedir(d);
    return n;
}
