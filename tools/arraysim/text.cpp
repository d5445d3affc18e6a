// Small text helpers shared by the simulated tools.
#include "tools/arraysim/text.h"

#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace arraysim {

void populate_pages(const void* b, const void* e) {
#ifdef MADV_POPULATE_WRITE
    static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    uintptr_t first = (reinterpret_cast<uintptr_t>(b) + page - 1) & ~(page - 1);
    uintptr_t last = reinterpret_cast<uintptr_t>(e) & ~(page - 1);
    // A few pages are cheaper to fault in than to ask for. Where the kernel
    // cannot do it, the pages come one fault at a time, as they would.
    if (last > first + 8 * page)
        madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
#else
    (void)b;
    (void)e;
#endif
}

void reserve_filled(std::string& out, size_t n) {
    out.reserve(out.size() + n);
    populate_pages(out.data() + out.size(), out.data() + out.capacity());
}

void kv(std::string& out, const char* key, const std::string& value, size_t width) {
    size_t start = out.size();
    out += key;
    out += ':';
    size_t used = out.size() - start;
    out.append(used + 2 < width ? width - used : 2, ' ');
    out += value;
    out += '\n';
}

void append_int(std::string& out, long long v) {
    char buf[24];
    char* e = buf + sizeof buf;
    char* b = e;
    unsigned long long u =
        v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        *--b = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u);
    if (v < 0) *--b = '-';
    out.append(b, e);
}

bool iequals(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

bool is_number(const std::string& s) {
    if (s.empty() || s.size() > 9) return false;
    for (char c : s)
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::string to_lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string join(const std::vector<std::string>& v, const char* sep) {
    std::string out;
    for (size_t i = 0; i < v.size(); ++i) {
        if (i) out += sep;
        out += v[i];
    }
    return out;
}

std::string make_wwn(const char* prefix4, unsigned long long seed) {
    // Four fixed leading bytes, then the seed spread over twelve bytes.
    char buf[64];
    unsigned char b[16];
    for (int i = 0; i < 4; ++i) {
        unsigned v = 0;
        sscanf(prefix4 + i * 2, "%2x", &v);
        b[i] = static_cast<unsigned char>(v);
    }
    for (int i = 15; i >= 4; --i) {
        b[i] = static_cast<unsigned char>(seed & 0xff);
        seed >>= 8;
    }
    int n = 0;
    for (int i = 0; i < 16; ++i) n += snprintf(buf + n, sizeof buf - n, i ? ":%02X" : "%02X", b[i]);
    return std::string(buf, n);
}

std::string disk_suffix(int n) {
    std::string s;
    ++n;
    while (n > 0) {
        --n;
        s.insert(s.begin(), static_cast<char>('a' + n % 26));
        n /= 26;
    }
    return s;
}

std::string time_text(long long t) {
    time_t tt = static_cast<time_t>(t);
    struct tm tmv;
    gmtime_r(&tt, &tmv);
    char buf[64];
    strftime(buf, sizeof buf, "%m/%d/%y %H:%M:%S", &tmv);
    return buf;
}

}  // namespace arraysim
