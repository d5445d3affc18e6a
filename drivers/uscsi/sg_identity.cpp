// Device identities from INQUIRY data: decoding standard data and vital
// product data pages (SPC: standard INQUIRY data, Supported VPD Pages 0x00,
// Unit Serial Number 0x80, Device Identification 0x83), and the four-step
// identity read through either transport.
#include <string.h>

#include "drivers/uscsi/uscsi.h"

int inq_compare(const unsigned char* p1, const unsigned char* p2) {
    return memcmp(p1, p2, sizeof(INQ)) != 0;
}

void inq_from_standard(INQP ip, const unsigned char* data, int len) {
    if (!ip || !data || len <= 0) return;
    ip->iPerDevType = data[0] & 0x1f;
    // Short data leaves the missing fields zero.
    auto field = [&](char* dst, int off, int n) {
        int avail = len - off;
        if (avail <= 0) return;
        memcpy(dst, data + off, avail < n ? avail : n);
    };
    field(ip->vendor, 8, 8);
    field(ip->product, 16, 16);
    field(ip->rev, 32, 4);
}

namespace {

// Page length of a VPD page (bytes 2 and 3), bounded by what arrived.
int vpd_payload_len(const unsigned char* data, int len) {
    if (len < 4) return 0;
    int n = (data[2] << 8) | data[3];
    return n < len - 4 ? n : len - 4;
}

}  // namespace

int vpd_page_listed(const unsigned char* data, int len, unsigned char page) {
    if (!data || len < 4 || data[1] != 0x00) return 0;
    int n = vpd_payload_len(data, len);
    for (int i = 0; i < n; i++)
        if (data[4 + i] == page) return 1;
    return 0;
}

int vpd_copy_payload(char* dst, int dstlen, const unsigned char* data, int len,
                     unsigned char page) {
    if (!dst || !data || len < 4 || data[1] != page) return 0;
    int n = vpd_payload_len(data, len);
    if (n > dstlen) n = dstlen;
    memcpy(dst, data + 4, n);
    return 1;
}

int read_identity(int fd, inq_sender_t send, INQP ip) {
    memset(ip, 0, sizeof(INQ));
    unsigned char buf[INQ_BUF_LEN];
    unsigned char cdb[6] = {0x12, 0, 0, 0, 0xff, 0};

    memset(buf, 0, sizeof buf);
    int standard = send(fd, cdb, buf, sizeof buf);
    if (standard == 0) inq_from_standard(ip, buf, sizeof buf);

    cdb[1] = 1;
    cdb[2] = 0x00;
    memset(buf, 0, sizeof buf);
    if (send(fd, cdb, buf, sizeof buf) != 0) return standard == 0 ? 0 : -1;
    const bool has_sn = vpd_page_listed(buf, sizeof buf, 0x80);
    const bool has_wwn = vpd_page_listed(buf, sizeof buf, 0x83);

    if (has_sn) {
        cdb[2] = 0x80;
        memset(buf, 0, sizeof buf);
        if (send(fd, cdb, buf, sizeof buf) == 0)
            vpd_copy_payload(ip->sn, sizeof ip->sn, buf, sizeof buf, 0x80);
    }
    if (has_wwn) {
        cdb[2] = 0x83;
        memset(buf, 0, sizeof buf);
        if (send(fd, cdb, buf, sizeof buf) == 0)
            vpd_copy_payload(ip->wwn, sizeof ip->wwn, buf, sizeof buf, 0x83);
    }
    return standard == 0 ? 0 : -1;
}
