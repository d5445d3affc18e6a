// Unique identifiers and their text forms.
#include "liblocal/kvui.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "liblocal/kv_thread.h"
#include "liblocal/kv_tls.h"

static_assert(sizeof(kvui_t) == 20, "a kvui is 20 bytes without padding");

const kvui_t Zero_kvui = {0, {0}};
const kvui_t Not_kvui = {0xFFFFFFFFu, {0}};

namespace {
std::atomic<uint32_t> g_counter{0};
KVOnce g_hw_once = KV_ONCE_INIT;
unsigned char g_hwaddr[6];

// The first non-loopback interface with a hardware address, found once.
void find_hwaddr(void) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    for (struct ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_PACKET) continue;
        if (ifa->ifa_flags & IFF_LOOPBACK) continue;
        const struct sockaddr_ll* ll = reinterpret_cast<const struct sockaddr_ll*>(ifa->ifa_addr);
        if (ll->sll_halen != 6) continue;
        static const unsigned char zero[6] = {0};
        if (memcmp(ll->sll_addr, zero, 6) == 0) continue;
        memcpy(g_hwaddr, ll->sll_addr, 6);
        break;
    }
    freeifaddrs(list);
}

void get_words(const kvui_t* uid, uint32_t w[5]) {
    memcpy(w, uid, 20);
    for (int i = 0; i < 5; ++i) w[i] = ntohl(w[i]);
}

bool prints_short(uint32_t type, kvui_format_t how) {
    switch (type) {
    case KVUI_ZEROID:
    case KVUI_SHORTID:
    case KVUI_OVOLUME: return true;
    case KVUI_OSAVESET:
    case KVUI_CLIENT:
    case KVUI_SAVESET:
    case KVUI_GSTDB: return how != KVUI_FMT_LONG;
    case KVUI_MERLODE:
        // The snapshot module's identities go out in the long form by
        // default: their short form, a process id, would repeat.
        return how == KVUI_FMT_SHORT;
    default: return false;
    }
}

char* next_buffer(void) {
    liblocal_t_struct* t = get_liblocal_t_varp();
    char* b = t->kvui_buf[t->kvui_next];
    t->kvui_next = (t->kvui_next + 1) % KV_KVUI_BUFCOUNT;
    return b;
}

int hexval(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Eight hex digits into *out; false for anything else.
bool parse_word(const char* s, uint32_t* out) {
    uint32_t v = 0;
    for (int i = 0; i < 8; ++i) {
        int h = hexval(s[i]);
        if (h < 0) return false;
        v = (v << 4) | static_cast<uint32_t>(h);
    }
    *out = v;
    return true;
}
}  // namespace

uint32_t kvui_cksum(const unsigned char* data, unsigned int len) {
    uint32_t crc = 0;
    auto feed = [&crc](unsigned char byte) {
        crc ^= static_cast<uint32_t>(byte) << 24;
        for (int i = 0; i < 8; ++i) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
    };
    for (unsigned int i = 0; i < len; ++i) feed(data[i]);
    for (unsigned int n = len; n != 0; n >>= 8) feed(static_cast<unsigned char>(n & 0xFF));
    return ~crc;
}

kvui_t* kvui_create5(kvui_t* uid, uint32_t idtype, uint32_t priv, uint32_t ctime_lo,
                     uint32_t ctime_hi, uint32_t ipaddr) {
    if (uid == nullptr) return nullptr;
    uint32_t w[5] = {htonl(idtype), htonl(priv), htonl(ctime_lo), htonl(ctime_hi), htonl(ipaddr)};
    memcpy(uid, w, 20);
    return uid;
}

kvui_t* kvui_create(kvui_t* uid, kvui_idtype_t idtype, uint32_t priv) {
    if (uid == nullptr) return nullptr;
    if (idtype == KVUI_SHORTID)
        return kvui_create5(uid, static_cast<uint32_t>(idtype), priv, 0, 0, 0);
    kv_once(&g_hw_once, find_hwaddr);
    uint32_t now = static_cast<uint32_t>(time(nullptr));
    uint32_t count = g_counter.fetch_add(1) & 0xFFFFu;
    uint32_t hi = (count << 16) | (static_cast<uint32_t>(g_hwaddr[0]) << 8) | g_hwaddr[1];
    uint32_t ip = (static_cast<uint32_t>(g_hwaddr[2]) << 24) |
                  (static_cast<uint32_t>(g_hwaddr[3]) << 16) |
                  (static_cast<uint32_t>(g_hwaddr[4]) << 8) | g_hwaddr[5];
    return kvui_create5(uid, static_cast<uint32_t>(idtype), priv, now, hi, ip);
}

char* kvui_to_long_string(const kvui_t* uid, char* outbuf) {
    if (outbuf == nullptr) outbuf = next_buffer();
    if (uid == nullptr) uid = &Zero_kvui;
    const unsigned char* b = reinterpret_cast<const unsigned char*>(uid);
    int n = snprintf(outbuf, KVUI_STRING_SIZE, "%08x-", kvui_cksum(b, 20));
    for (int i = 0; i < 20; ++i) {
        if (i > 0 && i % 4 == 0) outbuf[n++] = '-';
        n += snprintf(outbuf + n, static_cast<size_t>(KVUI_STRING_SIZE - n), "%02x", b[i]);
    }
    return outbuf;
}

char* kvui_to_string(const kvui_t* uid, char* outbuf, kvui_format_t how) {
    if (outbuf == nullptr) outbuf = next_buffer();
    if (uid == nullptr) uid = &Zero_kvui;
    uint32_t w[5];
    get_words(uid, w);
    if (prints_short(w[0], how)) {
        snprintf(outbuf, KVUI_STRING_SIZE, "%lu", static_cast<unsigned long>(w[1]));
        return outbuf;
    }
    return kvui_to_long_string(uid, outbuf);
}

int string_to_kvui(const char* str, kvui_t* uid) {
    if (str == nullptr || uid == nullptr || *str == '\0') return -1;
    size_t len = strlen(str);
    if (len == 53) {
        uint32_t crc, w[5];
        if (!parse_word(str, &crc) || str[8] != '-') return -1;
        for (int i = 0; i < 5; ++i) {
            const char* p = str + 9 + i * 9;
            if (!parse_word(p, &w[i])) return -1;
            if (i < 4 && p[8] != '-') return -1;
        }
        kvui_t tmp;
        kvui_create5(&tmp, w[0], w[1], w[2], w[3], w[4]);
        if (kvui_cksum(reinterpret_cast<const unsigned char*>(&tmp), 20) != crc) return -1;
        *uid = tmp;
        return 0;
    }
    // The short form is a decimal private value that fits 32 bits.
    if (len > 10) return -1;
    unsigned long long v = 0;
    for (const char* p = str; *p; ++p) {
        if (*p < '0' || *p > '9') return -1;
        v = v * 10 + static_cast<unsigned>(*p - '0');
    }
    if (v > 0xFFFFFFFFull) return -1;
    kvui_create5(uid, KVUI_SHORTID, static_cast<uint32_t>(v), 0, 0, 0);
    return 0;
}

int kvui_cmp(const kvui_t* a, const kvui_t* b) {
    if (a == nullptr) a = &Zero_kvui;
    if (b == nullptr) b = &Zero_kvui;
    return memcmp(a, b, 20);
}

int kvui_is_zeroid(const kvui_t* uid) {
    return uid == nullptr || kvui_cmp(uid, &Zero_kvui) == 0;
}

int kvui_is_notid(const kvui_t* uid) {
    return uid != nullptr && kvui_cmp(uid, &Not_kvui) == 0;
}

kvui_idtype_t kvui_get_idtype(const kvui_t* uid) {
    if (uid == nullptr) return KVUI_ZEROID;
    uint32_t w[5];
    get_words(uid, w);
    return static_cast<kvui_idtype_t>(static_cast<int32_t>(w[0]));
}

uint32_t kvui_get_private(const kvui_t* uid) {
    if (uid == nullptr) return 0;
    uint32_t w[5];
    get_words(uid, w);
    return w[1];
}
