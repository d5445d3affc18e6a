// Command execution of the fake tape drives and changers: SSC commands of a
// drive, SMC commands of a changer, the SPC ones both answer, and the
// magnetic-tape ioctls of the tape driver. Sense data is fixed format
// (SPC "Fixed format sense data").
#include "tools/arraysim/preload/tape_sim.h"

#include <linux/mtio.h>
#include <scsi/sg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace arraysim {
namespace tape {

namespace {

constexpr int kGood = 0, kCheck = 2, kConflict = 0x18;

// Sense keys (SPC table "Sense key descriptions").
enum {
    NO_SENSE = 0,
    NOT_READY = 2,
    MEDIUM_ERROR = 3,
    ILLEGAL_REQUEST = 5,
    UNIT_ATTENTION = 6,
    DATA_PROTECT = 7,
    BLANK_CHECK = 8
};

struct Ctx {
    std::vector<unsigned char>& sense;
    int fail(int key, int asc, int ascq, bool fm = false, bool eom = false, bool ili = false,
             int64_t info = 0, bool info_valid = false) {
        sense.assign(18, 0);
        sense[0] = 0x70 | (info_valid ? 0x80 : 0);
        sense[2] =
            static_cast<unsigned char>(key | (fm ? 0x80 : 0) | (eom ? 0x40 : 0) | (ili ? 0x20 : 0));
        uint32_t i = static_cast<uint32_t>(info);
        sense[3] = i >> 24;
        sense[4] = i >> 16;
        sense[5] = i >> 8;
        sense[6] = i;
        sense[7] = 10;
        sense[12] = static_cast<unsigned char>(asc);
        sense[13] = static_cast<unsigned char>(ascq);
        return kCheck;
    }
};

uint32_t be(const unsigned char* p, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; i++) v = v << 8 | p[i];
    return v;
}

void put(unsigned char* p, int n, uint64_t v) {
    for (int i = n - 1; i >= 0; i--, v >>= 8) p[i] = static_cast<unsigned char>(v & 0xff);
}

void pad(unsigned char* p, const std::string& s, size_t n) {
    memset(p, ' ', n);
    memcpy(p, s.data(), std::min(n, s.size()));
}

// Copies what fits of an answer into the caller's buffer.
void give(const std::vector<unsigned char>& a, unsigned char* in, size_t inlen, size_t& got) {
    got = std::min(a.size(), inlen);
    if (got) memcpy(in, a.data(), got);
}

int inquiry(int type, const std::string& v, const std::string& p, const std::string& r,
            const std::string& serial, const unsigned char* cdb, unsigned char* in, size_t inlen,
            size_t& got, Ctx& c) {
    std::vector<unsigned char> a;
    if (cdb[1] & 1) {
        if (cdb[2] == 0x00) {
            a = {static_cast<unsigned char>(type), 0, 0, 2, 0x00, 0x80};
        } else if (cdb[2] == 0x80) {
            a = {static_cast<unsigned char>(type), 0x80, 0,
                 static_cast<unsigned char>(serial.size())};
            a.insert(a.end(), serial.begin(), serial.end());
        } else {
            return c.fail(ILLEGAL_REQUEST, 0x24, 0);
        }
    } else {
        a.assign(36, 0);
        a[0] = static_cast<unsigned char>(type);
        a[1] = 0x80;  // removable medium
        a[2] = 5;
        a[3] = 2;
        a[4] = 31;
        pad(&a[8], v, 8);
        pad(&a[16], p, 16);
        pad(&a[32], r, 4);
    }
    give(a, in, inlen, got);
    return kGood;
}

// REQUEST SENSE: the last sense, or none, in 96 bytes of fixed data; a
// drive that needs cleaning shows it in every family's vendor bytes.
int request_sense(const std::vector<unsigned char>& last, bool cleaning, unsigned char* in,
                  size_t inlen, size_t& got) {
    std::vector<unsigned char> a(96, 0);
    a[0] = 0x70;
    a[7] = 96 - 8;
    for (size_t i = 0; i < last.size() && i < a.size(); i++)
        if (i != 7) a[i] = last[i];
    if (cleaning) {
        a[21] |= 0x08 | 0x01;
        a[34] |= 0x81;
        a[86] = 64;
    }
    give(a, in, inlen, got);
    return kGood;
}

Medium* medium_of(TapeState& st, Drive& d) {
    if (d.volume.empty()) return nullptr;
    auto it = st.media.find(d.volume);
    return it == st.media.end() ? nullptr : &it->second;
}

size_t eod_of(Medium& m) {
    return m.items.size();
}

int space(Drive& d, Medium& m, int code, int32_t count, Ctx& c) {
    if (code == 3) {  // end of data
        d.pos = eod_of(m);
        return kGood;
    }
    if (code != 0 && code != 1) return c.fail(ILLEGAL_REQUEST, 0x24, 0);
    const bool blocks = code == 0;
    int32_t left = count < 0 ? -count : count;
    while (left > 0) {
        if (count > 0) {
            if (d.pos >= eod_of(m))
                return c.fail(BLANK_CHECK, 0x00, 0x05, false, false, false, left, true);
            const Item& it = m.items[d.pos++];
            if (blocks && it.filemark)
                return c.fail(NO_SENSE, 0x00, 0x01, true, false, false, left, true);
            if (blocks || it.filemark) left--;
        } else {
            if (d.pos == 0) return c.fail(NO_SENSE, 0x00, 0x04, false, true, false, left, true);
            const Item& it = m.items[d.pos - 1];
            if (blocks && it.filemark)
                return c.fail(NO_SENSE, 0x00, 0x01, true, false, false, left, true);
            d.pos--;
            if (blocks || it.filemark) left--;
        }
    }
    return kGood;
}

void fill_record(unsigned char* p, size_t n, size_t index) {
    for (size_t i = 0; i < n; i++) p[i] = static_cast<unsigned char>((index + i) & 0xff);
}

int log_sense(const Drive& d, const unsigned char* cdb, unsigned char* in, size_t inlen,
              size_t& got, Ctx& c) {
    const int page = cdb[2] & 0x3f;
    std::vector<unsigned char> a;
    if (page == 0x00) {
        a = {0x00, 0, 0, 4, 0x00, 0x0C, 0x2E, 0x31};
    } else if (page == 0x2E) {
        a = {0x2E, 0, 1, 0x40};
        for (int n = 1; n <= 64; n++) {
            bool set = std::find(d.alerts.begin(), d.alerts.end(), n) != d.alerts.end();
            a.insert(a.end(), {0, static_cast<unsigned char>(n), 0, 1,
                               static_cast<unsigned char>(set ? 1 : 0)});
        }
    } else if (page == 0x31) {  // tape capacity, in megabytes
        a = {0x31, 0, 0, 16};
        for (int p = 1; p <= 2; p++) {
            a.insert(a.end(), {0, static_cast<unsigned char>(p == 1 ? 1 : 3), 0, 4});
            unsigned char v[4];
            put(v, 4, p == 1 ? 1400000 : 1500000);
            a.insert(a.end(), v, v + 4);
        }
    } else {
        return c.fail(ILLEGAL_REQUEST, 0x24, 0);
    }
    give(a, in, inlen, got);
    return kGood;
}

// MODE SENSE(6) and (10): header, one block descriptor, the pages asked for.
int mode_sense(TapeState& st, Drive& d, const unsigned char* cdb, unsigned char* in, size_t inlen,
               size_t& got, Ctx& c) {
    const bool ten = cdb[0] == 0x5A;
    const int page = cdb[2] & 0x3f;
    const bool dbd = cdb[1] & 0x08;
    Medium* m = medium_of(st, d);
    std::vector<unsigned char> pages;
    auto add_page = [&](int p) {
        if (p == 0x02)
            pages.insert(pages.end(), {0x02, 14, 0x80, 0x40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        if (p == 0x0F) {
            std::vector<unsigned char> pg = {
                0x0F, 14, static_cast<unsigned char>(d.compression ? 0xC0 : 0x40),
                0x80, 0,  0,
                0,    1,  0,
                0,    0,  1,
                0,    0,  0,
                0};
            pages.insert(pages.end(), pg.begin(), pg.end());
        }
        if (p == 0x10) {
            std::vector<unsigned char> pg(16, 0);
            pg[0] = 0x10;
            pg[1] = 14;
            pg[14] = d.compression ? 1 : 0;
            pages.insert(pages.end(), pg.begin(), pg.end());
        }
    };
    if (page == 0x3F) {
        add_page(0x02);
        add_page(0x0F);
        add_page(0x10);
    } else if (page == 0x00 || page == 0x02 || page == 0x0F || page == 0x10) {
        if (page) add_page(page);
    } else {
        return c.fail(ILLEGAL_REQUEST, 0x24, 0);
    }
    std::vector<unsigned char> bd;
    if (!dbd) {
        bd.assign(8, 0);
        bd[0] = static_cast<unsigned char>(m ? m->density : 0);
        put(&bd[5], 3, d.blocksize);
    }
    const unsigned char wp = m && m->wp ? 0x80 : 0;
    std::vector<unsigned char> a;
    if (ten) {
        a.assign(8, 0);
        put(&a[0], 2, 6 + bd.size() + pages.size());
        a[3] = wp | 0x10;  // buffered mode 1
        put(&a[6], 2, bd.size());
    } else {
        a.assign(4, 0);
        a[0] = static_cast<unsigned char>(3 + bd.size() + pages.size());
        a[2] = wp | 0x10;
        a[3] = static_cast<unsigned char>(bd.size());
    }
    a.insert(a.end(), bd.begin(), bd.end());
    a.insert(a.end(), pages.begin(), pages.end());
    give(a, in, inlen, got);
    return kGood;
}

// MODE SELECT: the block descriptor sets density and block size, page 0x0F
// compression.
int mode_select(TapeState& st, Drive& d, const unsigned char* cdb, const unsigned char* out,
                size_t outlen, Ctx& c) {
    const bool ten = cdb[0] == 0x55;
    const size_t hdr = ten ? 8 : 4;
    if (outlen < hdr) return outlen ? c.fail(ILLEGAL_REQUEST, 0x1A, 0) : kGood;
    const size_t bdl = ten ? be(out + 6, 2) : out[3];
    if (hdr + bdl > outlen) return c.fail(ILLEGAL_REQUEST, 0x1A, 0);
    if (bdl >= 8) {
        if (Medium* m = medium_of(st, d))
            if (out[hdr]) m->density = out[hdr];
        d.blocksize = be(out + hdr + 5, 3);
    }
    for (size_t p = hdr + bdl; p + 2 <= outlen;) {
        const size_t len = out[p + 1];
        if (p + 2 + len > outlen) return c.fail(ILLEGAL_REQUEST, 0x26, 0);
        if ((out[p] & 0x3f) == 0x0F && len >= 1) d.compression = (out[p + 2] & 0x80) != 0;
        p += 2 + len;
    }
    return kGood;
}

int security_in(const Drive& d, const unsigned char* cdb, unsigned char* in, size_t inlen,
                size_t& got, Ctx& c) {
    const int proto = cdb[1];
    const int page = static_cast<int>(be(cdb + 2, 2));
    std::vector<unsigned char> a;
    if (proto == 0x00 && page == 0) {
        a = {0, 0, 0, 0, 0, 0, 0, 2, 0x00, 0x20};
    } else if (proto == 0x20 && page == 0x0000) {
        a = {0, 0, 0, 8, 0, 0x01, 0, 0x10, 0, 0x20, 0, 0x21};
        a[3] = 8;
    } else if (proto == 0x20 && page == 0x0010) {
        // One algorithm: AES-256-GCM (0x00010014), a 32-byte key, both ways.
        std::vector<unsigned char> desc(24, 0);
        desc[0] = 1;  // algorithm index
        put(&desc[2], 2, 20);
        desc[4] = 0x8B;  // AVFMV, SDK_C, MAC_C... : capable of encrypt and decrypt
        desc[4] = 0x80 | (3 << 3) | 3;
        put(&desc[8], 2, 32);  // key size
        put(&desc[20], 4, 0x00010014);
        a = {0, 0x10, 0, 0};
        a.insert(a.end(), 16, 0);
        a.insert(a.end(), desc.begin(), desc.end());
        put(&a[2], 2, a.size() - 4);
    } else if (proto == 0x20 && page == 0x0020) {
        a.assign(24, 0);
        put(&a[0], 2, 0x0020);
        put(&a[2], 2, 20);
        a[4] = 0x40;  // scope: I_T nexus
        a[5] = static_cast<unsigned char>(d.enc_mode);
        a[6] = static_cast<unsigned char>(d.dec_mode);
        a[7] = d.enc_mode ? 1 : 0;  // algorithm index
    } else if (proto == 0x20 && page == 0x0021) {
        a.assign(16, 0);
        put(&a[0], 2, 0x0021);
        put(&a[2], 2, 12);
        a[12] = d.enc_mode ? 0x05 : 0x02;  // encrypted with this key / not encrypted
        a[13] = d.enc_mode ? 1 : 0;
    } else {
        return c.fail(ILLEGAL_REQUEST, 0x24, 0);
    }
    give(a, in, inlen, got);
    return kGood;
}

int security_out(Drive& d, const unsigned char* cdb, const unsigned char* out, size_t outlen,
                 Ctx& c) {
    if (cdb[1] != 0x20 || be(cdb + 2, 2) != 0x0010) return c.fail(ILLEGAL_REQUEST, 0x24, 0);
    if (outlen < 20) return c.fail(ILLEGAL_REQUEST, 0x1A, 0);
    const int enc = out[6], dec = out[7], alg = out[8];
    const size_t klen = be(out + 18, 2);
    if ((enc || dec) && alg != 1) return c.fail(ILLEGAL_REQUEST, 0x26, 0x02);
    if (enc && klen != 32) return c.fail(ILLEGAL_REQUEST, 0x26, 0x02);
    if (20 + klen > outlen) return c.fail(ILLEGAL_REQUEST, 0x1A, 0);
    d.enc_mode = enc;
    d.dec_mode = dec;
    return kGood;
}

int drive_cmd(TapeState& st, Drive& d, const unsigned char* cdb, size_t cdblen, unsigned char* in,
              size_t inlen, const unsigned char* out, size_t outlen, size_t& got, Ctx& c) {
    const unsigned char op = cdb[0];
    if (op == 0x12) return inquiry(1, d.vendor, d.product, d.rev, d.serial, cdb, in, inlen, got, c);
    if (op == 0x03) return request_sense(d.last_sense, d.cleaning, in, inlen, got);
    const bool pr_cmd = op == 0x5E || op == 0x5F;
    if (d.reserved_other && !pr_cmd && op != 0x4D) return kConflict;
    if (d.ua) {
        const int ua = d.ua;
        if (d.sticky_reset > 0)
            d.sticky_reset--;
        else
            d.ua = 0;
        return ua == 1 ? c.fail(UNIT_ATTENTION, 0x29, 0x00) : c.fail(UNIT_ATTENTION, 0x28, 0x00);
    }
    switch (op) {
    case 0x16: d.reserved_self = true; return kGood;
    case 0x17: d.reserved_self = false; return kGood;
    case 0x05: {  // READ BLOCK LIMITS
        std::vector<unsigned char> a = {0, 0xFF, 0xFF, 0xFF, 0, 1};
        give(a, in, inlen, got);
        return kGood;
    }
    case 0x4D: return log_sense(d, cdb, in, inlen, got, c);
    case 0x5E: {  // PERSISTENT RESERVE IN: READ KEYS (0) or READ RESERVATION (1)
        std::vector<unsigned char> a(8, 0);
        if ((cdb[1] & 0x1f) == 0 && d.pr_key) {
            a.resize(16);
            put(&a[8], 8, d.pr_key);
        } else if ((cdb[1] & 0x1f) == 1 && d.pr_reserved) {
            a.resize(24);
            put(&a[8], 8, d.pr_key);
            a[21] = 0x03;  // exclusive access
        }
        put(&a[4], 4, a.size() - 8);
        give(a, in, inlen, got);
        return kGood;
    }
    case 0x5F: {  // PERSISTENT RESERVE OUT
        if (outlen < 24) return c.fail(ILLEGAL_REQUEST, 0x1A, 0);
        const uint64_t key = (uint64_t(be(out, 4)) << 32) | be(out + 4, 4);
        const uint64_t sakey = (uint64_t(be(out + 8, 4)) << 32) | be(out + 12, 4);
        switch (cdb[1] & 0x1f) {
        case 0x06: d.pr_key = sakey; return kGood;  // register and ignore existing key
        case 0x01:
            if (!d.pr_key || key != d.pr_key) return kConflict;
            d.pr_reserved = true;
            return kGood;
        case 0x02:
            if (key != d.pr_key) return kConflict;
            d.pr_reserved = false;
            return kGood;
        default: return c.fail(ILLEGAL_REQUEST, 0x24, 0);
        }
    }
    case 0xA2: return security_in(d, cdb, in, inlen, got, c);
    case 0xB5: return security_out(d, cdb, out, outlen, c);
    case 0x3C: {  // READ BUFFER: the descriptor (mode 3) or zeros
        std::vector<unsigned char> a(std::min<size_t>(inlen, be(cdb + 6, 3)), 0);
        if ((cdb[1] & 0x1f) == 3 && a.size() >= 4) put(&a[1], 3, 0x10000);
        give(a, in, inlen, got);
        return kGood;
    }
    case 0x3B: return kGood;  // WRITE BUFFER: taken and forgotten
    default: break;
    }

    Medium* m = medium_of(st, d);
    if (!m || !d.threaded) {
        if (op == 0x1B && m && (cdb[4] & 1)) {  // LOAD
            d.threaded = true;
            d.pos = 0;
            return kGood;
        }
        if (op == 0x1A || op == 0x5A) return mode_sense(st, d, cdb, in, inlen, got, c);
        if (op == 0x15 || op == 0x55) return mode_select(st, d, cdb, out, outlen, c);
        if (op == 0x1B) return kGood;  // unload with nothing loaded
        return c.fail(NOT_READY, 0x3A, 0x00);
    }
    switch (op) {
    case 0x00: return kGood;
    case 0x01: d.pos = 0; return kGood;
    case 0x1B:
        if (cdb[4] & 1) {
            d.pos = 0;
            return kGood;
        }
        d.threaded = false;
        d.pos = 0;
        return kGood;
    case 0x1A:
    case 0x5A: return mode_sense(st, d, cdb, in, inlen, got, c);
    case 0x15:
    case 0x55: return mode_select(st, d, cdb, out, outlen, c);
    case 0x11: {
        int32_t count = static_cast<int32_t>(be(cdb + 2, 3) << 8) >> 8;
        return space(d, *m, cdb[1] & 7, count, c);
    }
    case 0x2B: {  // LOCATE(10)
        const uint32_t block = be(cdb + 3, 4);
        if (block > eod_of(*m)) {
            d.pos = eod_of(*m);
            return c.fail(BLANK_CHECK, 0x00, 0x05);
        }
        d.pos = block;
        return kGood;
    }
    case 0x34: {  // READ POSITION, short form
        std::vector<unsigned char> a(20, 0);
        a[0] =
            static_cast<unsigned char>((d.pos == 0 ? 0x80 : 0) | (d.pos >= m->capacity ? 0x40 : 0));
        put(&a[4], 4, d.pos);
        put(&a[8], 4, d.pos);
        give(a, in, inlen, got);
        return kGood;
    }
    case 0x10: {  // WRITE FILEMARKS
        if (m->wp) return c.fail(DATA_PROTECT, 0x27, 0x00);
        const uint32_t n = be(cdb + 2, 3);
        m->items.resize(d.pos);
        for (uint32_t i = 0; i < n; i++) m->items.push_back(Item{true, 0});
        d.pos = m->items.size();
        return kGood;
    }
    case 0x0A: {  // WRITE(6), variable blocks
        if (m->wp) return c.fail(DATA_PROTECT, 0x27, 0x00);
        if (d.pos >= m->capacity + 10) return c.fail(MEDIUM_ERROR, 0x00, 0x02, false, true);
        const uint32_t n = be(cdb + 2, 3);
        m->items.resize(d.pos);
        m->items.push_back(Item{false, n});
        d.pos = m->items.size();
        // Past the early warning the write is done, and said so.
        if (d.pos > m->capacity) return c.fail(NO_SENSE, 0x00, 0x02, false, true);
        return kGood;
    }
    case 0x08: {  // READ(6)
        const bool fixed = cdb[1] & 1;
        const uint32_t want = be(cdb + 2, 3) * (fixed ? std::max<uint32_t>(d.blocksize, 1) : 1);
        if (d.pos >= eod_of(*m))
            return c.fail(BLANK_CHECK, 0x00, 0x05, false, false, false, want, true);
        if (static_cast<int>(d.pos) == d.medium_error_at) return c.fail(MEDIUM_ERROR, 0x11, 0x00);
        const Item it = m->items[d.pos++];
        if (it.filemark) return c.fail(NO_SENSE, 0x00, 0x01, true, false, false, want, true);
        const size_t n = std::min<size_t>({it.size, want, inlen});
        fill_record(in, n, d.pos - 1);
        got = n;
        if (it.size != want)
            return c.fail(NO_SENSE, 0x00, 0x00, false, false, true,
                          static_cast<int64_t>(want) - static_cast<int64_t>(it.size), true);
        return kGood;
    }
    case 0x8C: {  // READ ATTRIBUTE: medium serial number and a text label
        std::vector<unsigned char> a = {0, 0, 0, 0};
        auto attr = [&](int id, const std::string& v, size_t n) {
            unsigned char h[5] = {static_cast<unsigned char>(id >> 8),
                                  static_cast<unsigned char>(id), 0x81, 0,
                                  static_cast<unsigned char>(n)};
            a.insert(a.end(), h, h + 5);
            std::string s = v;
            s.resize(n, ' ');
            a.insert(a.end(), s.begin(), s.end());
        };
        attr(0x0401, d.volume, 32);
        attr(0x0800, d.vendor, 8);
        put(&a[0], 4, a.size() - 4);
        give(a, in, inlen, got);
        return kGood;
    }
    case 0x8D: return m->wp ? c.fail(DATA_PROTECT, 0x27, 0x00) : kGood;
    default: break;
    }
    (void)cdblen;
    return c.fail(ILLEGAL_REQUEST, 0x20, 0x00);
}

// An element address to a place in the changer: 'S' slot, 'D' drive, 'I'
// the import/export element.
bool element(Changer& ch, int addr, char& kind, size_t& idx) {
    if (addr == kIeAddr) {
        kind = 'I';
        idx = 0;
        return true;
    }
    if (addr >= kDriveBase && addr < kDriveBase + static_cast<int>(ch.drives.size())) {
        kind = 'D';
        idx = static_cast<size_t>(addr - kDriveBase);
        return true;
    }
    if (addr >= kSlotBase && addr < kSlotBase + static_cast<int>(ch.slots.size())) {
        kind = 'S';
        idx = static_cast<size_t>(addr - kSlotBase);
        return true;
    }
    return false;
}

int changer_cmd(TapeState& st, Changer& ch, const unsigned char* cdb, unsigned char* in,
                size_t inlen, size_t& got, Ctx& c) {
    const unsigned char op = cdb[0];
    if (op == 0x12)
        return inquiry(8, ch.vendor, ch.product, ch.rev, ch.serial, cdb, in, inlen, got, c);
    if (op == 0x03) return request_sense(ch.last_sense, false, in, inlen, got);
    if (ch.reserved_other) return kConflict;
    if (ch.ua) {
        const int ua = ch.ua;
        ch.ua = 0;
        return ua == 1 ? c.fail(UNIT_ATTENTION, 0x29, 0x00) : c.fail(UNIT_ATTENTION, 0x28, 0x01);
    }
    auto drive_volume = [&](size_t i) -> std::string* {
        Drive* d = st.drive(ch.drives[i]);
        return d ? &d->volume : nullptr;
    };
    switch (op) {
    case 0x00:
    case 0x07:  // INITIALIZE ELEMENT STATUS
    case 0x1E:  // PREVENT ALLOW MEDIUM REMOVAL
    case 0x16:
    case 0x17: return kGood;
    case 0x1A: {  // MODE SENSE(6), element address assignment page
        if ((cdb[2] & 0x3f) != 0x1D && (cdb[2] & 0x3f) != 0x3F)
            return c.fail(ILLEGAL_REQUEST, 0x24, 0);
        std::vector<unsigned char> a = {0, 0, 0, 0, 0x1D, 0x12};
        unsigned char pg[18] = {};
        put(pg + 0, 2, kTransportAddr);
        put(pg + 2, 2, 1);
        put(pg + 4, 2, kSlotBase);
        put(pg + 6, 2, ch.slots.size());
        put(pg + 8, 2, kIeAddr);
        put(pg + 10, 2, 1);
        put(pg + 12, 2, kDriveBase);
        put(pg + 14, 2, ch.drives.size());
        a.insert(a.end(), pg, pg + 18);
        a[0] = static_cast<unsigned char>(a.size() - 1);
        give(a, in, inlen, got);
        return kGood;
    }
    case 0xA5: {  // MOVE MEDIUM
        const int src = static_cast<int>(be(cdb + 4, 2)), dst = static_cast<int>(be(cdb + 6, 2));
        char sk, dk;
        size_t si, di;
        if (!element(ch, src, sk, si) || !element(ch, dst, dk, di))
            return c.fail(ILLEGAL_REQUEST, 0x21, 0x01);
        std::string* from = sk == 'S' ? &ch.slots[si] : sk == 'I' ? &ch.ie : drive_volume(si);
        std::string* to = dk == 'S' ? &ch.slots[di] : dk == 'I' ? &ch.ie : drive_volume(di);
        if (!from || !to) return c.fail(ILLEGAL_REQUEST, 0x21, 0x01);
        if (from->empty()) return c.fail(ILLEGAL_REQUEST, 0x3B, 0x0E);
        if (!to->empty()) return c.fail(ILLEGAL_REQUEST, 0x3B, 0x0D);
        if (sk == 'D' && st.drive(ch.drives[si])->threaded)
            return c.fail(ILLEGAL_REQUEST, 0x53, 0x03);
        to->swap(*from);
        if (dk == 'D') {
            Drive* d = st.drive(ch.drives[di]);
            d->threaded = true;  // loads on insertion
            d->pos = 0;
            d->ua = 2;
        }
        return kGood;
    }
    case 0xB8: {  // READ ELEMENT STATUS, all types, with volume tags
        const bool voltag = cdb[1] & 0x10;
        const int type = cdb[1] & 0x0f;
        struct El {
            int type, addr;
            std::string vol;
        };
        std::vector<El> els;
        if (type == 0 || type == 1) els.push_back({1, kTransportAddr, ""});
        if (type == 0 || type == 2)
            for (size_t i = 0; i < ch.slots.size(); i++)
                els.push_back({2, kSlotBase + static_cast<int>(i), ch.slots[i]});
        if (type == 0 || type == 3) els.push_back({3, kIeAddr, ch.ie});
        if (type == 0 || type == 4)
            for (size_t i = 0; i < ch.drives.size(); i++) {
                std::string* v = drive_volume(i);
                els.push_back({4, kDriveBase + static_cast<int>(i), v ? *v : ""});
            }
        const int start = static_cast<int>(be(cdb + 2, 2));
        const size_t max = be(cdb + 4, 2);
        const size_t dlen = 12 + (voltag ? 36 : 0);
        std::vector<unsigned char> a(8, 0);
        size_t n = 0;
        for (int t = 1; t <= 4; t++) {
            std::vector<unsigned char> page(8, 0), body;
            size_t count = 0;
            for (const El& e : els) {
                if (e.type != t || e.addr < start || n + count >= max) continue;
                std::vector<unsigned char> d(dlen, 0);
                put(&d[0], 2, e.addr);
                d[2] = e.vol.empty() ? 0 : 1;  // full
                if (!e.vol.empty() && voltag) pad(&d[12], e.vol, 32);
                body.insert(body.end(), d.begin(), d.end());
                count++;
            }
            if (!count) continue;
            n += count;
            page[0] = static_cast<unsigned char>(t);
            page[1] = voltag ? 0x80 : 0;
            put(&page[2], 2, dlen);
            put(&page[5], 3, body.size());
            a.insert(a.end(), page.begin(), page.end());
            a.insert(a.end(), body.begin(), body.end());
        }
        put(&a[0], 2, els.empty() ? 0 : els.front().addr);
        put(&a[2], 2, n);
        put(&a[5], 3, a.size() - 8);
        give(a, in, inlen, got);
        return kGood;
    }
    default: return c.fail(ILLEGAL_REQUEST, 0x20, 0x00);
    }
}

}  // namespace

Drive* TapeState::drive(const std::string& name) {
    for (auto& d : drives)
        if (d.name == name) return &d;
    return nullptr;
}

Changer* TapeState::changer(const std::string& name) {
    for (auto& c : changers)
        if (c.name == name) return &c;
    return nullptr;
}

bool known_device(const TapeState& st, const std::string& dev) {
    for (const auto& d : st.drives)
        if (d.name == dev) return true;
    for (const auto& c : st.changers)
        if (c.name == dev) return true;
    return false;
}

int execute(TapeState& st, const std::string& dev, const unsigned char* cdb, size_t cdblen,
            unsigned char* in, size_t inlen, const unsigned char* out, size_t outlen, size_t& got,
            std::vector<unsigned char>& sense) {
    got = 0;
    sense.clear();
    Ctx c{sense};
    if (!cdb || cdblen < 6) return c.fail(ILLEGAL_REQUEST, 0x20, 0);
    int status;
    if (Drive* d = st.drive(dev)) {
        status = drive_cmd(st, *d, cdb, cdblen, in, inlen, out, outlen, got, c);
        if (cdb[0] != 0x03) d->last_sense = sense;
    } else if (Changer* ch = st.changer(dev)) {
        status = changer_cmd(st, *ch, cdb, in, inlen, got, c);
        if (cdb[0] != 0x03) ch->last_sense = sense;
    } else {
        return c.fail(NOT_READY, 0x05, 0x00);
    }
    return status;
}

namespace {

// The tape driver's operations on a drive, as the kernel's st driver does
// them: counts are in records or filemarks, errors are errno values.
int mtop(TapeState& st, Drive& d, const struct mtop& op) {
    Medium* m = medium_of(st, d);
    std::vector<unsigned char> sense;
    Ctx c{sense};
    const bool needs_tape = op.mt_op != MTLOAD && op.mt_op != MTSETBLK &&
                            op.mt_op != MTCOMPRESSION && op.mt_op != MTNOP && op.mt_op != MTRESET;
    if (needs_tape && (!m || !d.threaded)) {
        errno = EIO;
        return -1;
    }
    int rc = kGood;
    switch (op.mt_op) {
    case MTNOP:
    case MTRESET: return 0;
    case MTREW: d.pos = 0; return 0;
    case MTOFFL:
    case MTUNLOAD:
        d.threaded = false;
        d.pos = 0;
        return 0;
    case MTLOAD:
        if (!m) {
            errno = EIO;
            return -1;
        }
        d.threaded = true;
        d.pos = 0;
        return 0;
    case MTFSF: rc = space(d, *m, 1, op.mt_count, c); break;
    case MTBSF: rc = space(d, *m, 1, -op.mt_count, c); break;
    case MTFSR: rc = space(d, *m, 0, op.mt_count, c); break;
    case MTBSR: rc = space(d, *m, 0, -op.mt_count, c); break;
    case MTEOM: d.pos = eod_of(*m); return 0;
    case MTWEOF:
    case MTWEOFI:
        if (m->wp) {
            errno = EACCES;
            return -1;
        }
        m->items.resize(d.pos);
        for (int i = 0; i < op.mt_count; i++) m->items.push_back(Item{true, 0});
        d.pos = m->items.size();
        return 0;
    case MTSEEK:
        if (op.mt_count < 0 || static_cast<size_t>(op.mt_count) > eod_of(*m)) {
            errno = EIO;
            return -1;
        }
        d.pos = static_cast<size_t>(op.mt_count);
        return 0;
    case MTSETBLK: d.blocksize = static_cast<uint32_t>(op.mt_count); return 0;
    case MTCOMPRESSION: d.compression = op.mt_count != 0; return 0;
    case MTERASE:
        if (m->wp) {
            errno = EACCES;
            return -1;
        }
        m->items.resize(d.pos);
        return 0;
    default: errno = EINVAL; return -1;
    }
    if (rc != kGood) {
        errno = EIO;
        return -1;
    }
    return 0;
}

void mtget_of(TapeState& st, Drive& d, struct mtget* g) {
    memset(g, 0, sizeof *g);
    g->mt_type = MT_ISSCSI2;
    Medium* m = medium_of(st, d);
    g->mt_dsreg = (static_cast<long>(d.blocksize) << MT_ST_BLKSIZE_SHIFT) |
                  (static_cast<long>(m ? m->density : 0) << MT_ST_DENSITY_SHIFT);
    long gstat = 0;
    if (!m || !d.threaded) {
        gstat |= GMT_DR_OPEN(-1);
    } else {
        gstat |= GMT_ONLINE(-1);
        if (d.pos == 0) gstat |= GMT_BOT(-1);
        if (d.pos >= eod_of(*m)) gstat |= GMT_EOD(-1);
        if (m->wp) gstat |= GMT_WR_PROT(-1);
        if (d.pos > 0 && m->items[d.pos - 1].filemark) gstat |= GMT_EOF(-1);
        int file = 0, block = 0;
        for (size_t i = 0; i < d.pos; i++) {
            if (m->items[i].filemark) {
                file++;
                block = 0;
            } else {
                block++;
            }
        }
        g->mt_fileno = file;
        g->mt_blkno = block;
    }
    g->mt_gstat = gstat;
}

int sg_io(TapeState& st, const std::string& dev, sg_io_hdr_t* h, Seen* seen) {
    if (!h || h->interface_id != 'S' || !h->cmdp || h->cmd_len < 6) {
        errno = EINVAL;
        return -1;
    }
    if (seen) {
        seen->cdb.assign(h->cmdp, h->cmdp + h->cmd_len);
        seen->direction = h->dxfer_direction;
        seen->dxfer_len = h->dxfer_len;
        seen->timeout_ms = h->timeout;
    }
    unsigned char* data = static_cast<unsigned char*>(h->dxferp);
    const bool in = h->dxfer_direction == SG_DXFER_FROM_DEV && data;
    const bool out = h->dxfer_direction == SG_DXFER_TO_DEV && data;
    size_t got = 0;
    std::vector<unsigned char> sense;
    int status = execute(st, dev, h->cmdp, h->cmd_len, in ? data : nullptr, in ? h->dxfer_len : 0,
                         out ? data : nullptr, out ? h->dxfer_len : 0, got, sense);
    h->status = static_cast<unsigned char>(status);
    h->masked_status = static_cast<unsigned char>(status >> 1);
    h->host_status = 0;
    h->msg_status = 0;
    h->driver_status = status == kCheck ? 0x08 : 0;
    h->resid = in ? static_cast<int>(h->dxfer_len - got) : 0;
    h->duration = 0;
    h->info = status ? SG_INFO_CHECK : 0;
    h->sb_len_wr = 0;
    if (!sense.empty() && h->sbp && h->mx_sb_len) {
        size_t n = std::min<size_t>(sense.size(), h->mx_sb_len);
        memcpy(h->sbp, sense.data(), n);
        h->sb_len_wr = static_cast<unsigned char>(n);
    }
    return 0;
}

// SCSI_IOCTL_SEND_COMMAND: inlen, outlen, then the CDB and data; data in
// and sense come back where the CDB was.
int send_command(TapeState& st, const std::string& dev, unsigned char* blk, Seen* seen) {
    if (!blk) {
        errno = EINVAL;
        return -1;
    }
    unsigned int inlen, outlen;
    memcpy(&inlen, blk, 4);
    memcpy(&outlen, blk + 4, 4);
    unsigned char* p = blk + 8;
    const size_t cdblen = (p[0] >> 5) == 0 ? 6 : (p[0] >> 5) <= 2 ? 10 : (p[0] >> 5) == 4 ? 16 : 12;
    unsigned char cdb[16];
    memcpy(cdb, p, cdblen);
    if (seen) seen->cdb.assign(cdb, cdb + cdblen);
    std::vector<unsigned char> data(std::min<size_t>(outlen, 4096));
    size_t got = 0;
    std::vector<unsigned char> sense;
    inlen = std::min<unsigned>(inlen, 4096 - 8 - static_cast<unsigned>(cdblen));
    int status =
        execute(st, dev, cdb, cdblen, data.data(), data.size(), p + cdblen, inlen, got, sense);
    if (status == kCheck) {
        memcpy(p, sense.data(), std::min<size_t>(sense.size(), 4088));
        return (0x08 << 24) | status;
    }
    if (got) memcpy(p, data.data(), got);
    return status;
}

}  // namespace

int device_ioctl(TapeState& st, const std::string& dev, unsigned long req, void* arg, Seen* seen) {
    if (seen) seen->request = req;
    if (req == SG_IO) return sg_io(st, dev, static_cast<sg_io_hdr_t*>(arg), seen);
    if (req == 1) return send_command(st, dev, static_cast<unsigned char*>(arg), seen);
    Drive* d = st.drive(dev);
    if (!d || !arg) {
        errno = d ? EFAULT : ENOTTY;
        return -1;
    }
    if (req == MTIOCTOP) {
        const struct mtop* op = static_cast<const struct mtop*>(arg);
        if (seen) {
            seen->mt_op = op->mt_op;
            seen->mt_count = op->mt_count;
        }
        return mtop(st, *d, *op);
    }
    if (req == MTIOCGET) {
        mtget_of(st, *d, static_cast<struct mtget*>(arg));
        return 0;
    }
    if (req == MTIOCPOS) {
        static_cast<struct mtpos*>(arg)->mt_blkno = static_cast<long>(d->pos);
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

}  // namespace tape
}  // namespace arraysim
