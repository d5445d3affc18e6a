// INQUIRY data for the fake device layer. Standard data (SPC-3 table
// "Standard INQUIRY data format"), and the array's own bytes behind it: the
// LUN number at 121-122, high byte first, and the owning storage processor's
// IPv4 address at 140-143. VPD pages 0x00, 0x80 and 0x83 (SPC-3 7.6).
#include "tools/arraysim/inquiry.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

namespace arraysim {

namespace {

void pad(unsigned char* dst, const std::string& s, size_t n) {
    memset(dst, ' ', n);
    memcpy(dst, s.data(), s.size() < n ? s.size() : n);
}

void wwn_bytes(const std::string& text, unsigned char* out, bool& ok) {
    unsigned v[16];
    ok = sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x:%2x",
                &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8], &v[9], &v[10],
                &v[11], &v[12], &v[13], &v[14], &v[15]) == 16;
    for (int i = 0; ok && i < 16; ++i) out[i] = static_cast<unsigned char>(v[i]);
}

void array_identity(const State& st, const Lun& l, const char* product, int lun, DevIdentity& id) {
    id.vendor = "QXR";
    id.product = product;
    id.rev = "0533";
    id.array = true;
    id.lun = lun;
    std::string addr = st.owner_addr(l);
    struct in_addr a;
    if (inet_pton(AF_INET, addr.c_str(), &a) == 1) memcpy(id.ip, &a, 4);
    wwn_bytes(l.wwn, id.wwn, id.have_wwn);
    const std::string& serial =
        l.frame < static_cast<int>(st.frames.size()) ? st.frames[l.frame].serial : std::string();
    id.serial = serial + "-" + std::to_string(lun);
}

}  // namespace

bool device_identity(const State& st, const std::string& name, DevIdentity& id) {
    for (const auto& f : st.foreign)
        if (f.name == name) {
            id = DevIdentity();
            id.vendor = f.vendor;
            id.product = f.product;
            id.rev = "1.0";
            id.serial = "FD-" + name;
            return true;
        }
    for (const auto& l : st.luns) {
        for (const auto& d : l.devs) {
            bool hit = d.pseudo == name;
            for (const auto& p : d.paths) hit = hit || p == name;
            if (hit) {
                array_identity(st, l, "SIMDISK", l.num, id);
                return true;
            }
        }
        if (!l.snapdev.empty() && l.snapdev == name) {
            array_identity(st, l, "SIMSNAP", l.num, id);
            id.wwn[15] ^= 0x5A;  // the snapshot LU is a device of its own
            return true;
        }
        if (!l.smpdev.empty() && l.smpdev == name) {
            array_identity(st, l, "SIMSMP", l.smp, id);
            id.wwn[14] ^= 0xA5;
            return true;
        }
    }
    return false;
}

int build_inquiry(const DevIdentity& id, const unsigned char* cdb, unsigned char* buf, size_t len) {
    unsigned char d[256];
    memset(d, 0, sizeof d);
    int n;
    bool evpd = cdb[1] & 1;
    if (!evpd) {
        if (cdb[2] != 0) return -1;
        n = 144;
        d[0] = 0x00;  // direct-access block device
        d[2] = 0x05;  // SPC-3
        d[3] = 0x02;  // response data format 2
        d[4] = static_cast<unsigned char>(n - 5);
        d[7] = 0x02;  // command queuing
        pad(d + 8, id.vendor, 8);
        pad(d + 16, id.product, 16);
        pad(d + 32, id.rev, 4);
        if (id.array) {
            d[121] = static_cast<unsigned char>((id.lun >> 8) & 0xff);
            d[122] = static_cast<unsigned char>(id.lun & 0xff);
            memcpy(d + 140, id.ip, 4);
        }
    } else if (cdb[2] == 0x00) {
        unsigned char pages[] = {0x00, 0x80, 0x83};
        d[1] = 0x00;
        d[3] = sizeof pages;
        memcpy(d + 4, pages, sizeof pages);
        n = 4 + static_cast<int>(sizeof pages);
    } else if (cdb[2] == 0x80) {
        size_t sl = id.serial.size() > 200 ? 200 : id.serial.size();
        d[1] = 0x80;
        d[3] = static_cast<unsigned char>(sl);
        memcpy(d + 4, id.serial.data(), sl);
        n = 4 + static_cast<int>(sl);
    } else if (cdb[2] == 0x83) {
        d[1] = 0x83;
        if (id.have_wwn) {
            d[4] = 0x01;  // binary code set
            d[5] = 0x03;  // associated with the LUN, NAA designator
            d[7] = 16;
            memcpy(d + 8, id.wwn, 16);
            d[3] = 20;
            n = 24;
        } else {
            std::string t = id.vendor + id.serial;  // T10 vendor ID designator
            size_t tl = t.size() > 200 ? 200 : t.size();
            d[4] = 0x02;  // ASCII
            d[5] = 0x01;
            d[7] = static_cast<unsigned char>(tl);
            memcpy(d + 8, t.data(), tl);
            d[3] = static_cast<unsigned char>(tl + 4);
            n = 8 + static_cast<int>(tl);
        }
    } else {
        return -1;
    }
    size_t alloc = (static_cast<size_t>(cdb[3]) << 8) | cdb[4];
    size_t out = static_cast<size_t>(n);
    if (out > alloc) out = alloc;
    if (out > len) out = len;
    memcpy(buf, d, out);
    return static_cast<int>(out);
}

int build_sense(unsigned char asc, unsigned char* buf, size_t len) {
    unsigned char s[18];
    memset(s, 0, sizeof s);
    s[0] = 0x70;  // current error, fixed format
    s[2] = 0x05;  // ILLEGAL REQUEST
    s[7] = 10;
    s[12] = asc;  // 0x20 invalid command operation code, 0x24 invalid field in CDB
    size_t n = len < sizeof s ? len : sizeof s;
    memcpy(buf, s, n);
    return static_cast<int>(n);
}

}  // namespace arraysim
