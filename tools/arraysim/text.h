// Small text helpers shared by the simulated tools. Thread-safe (pure).
#pragma once

#include <string>
#include <vector>

namespace arraysim {

// "Key:" padded to `width`, then at least two blanks, the value and a line feed.
void kv(std::string& out, const char* key, const std::string& value, size_t width = 30);

// The unsigned decimal of at most nine digits at p, as arraysim writes its
// numbers: where the digits end (p when there are none), with their value in
// `v`. What ends them is for the caller to judge.
inline const char* scan_digits(const char* p, const char* end, unsigned& v) {
    const char* q = p;
    v = 0;
    for (; q < end && q - p < 9; ++q) {
        unsigned d = static_cast<unsigned char>(*q) - '0';
        if (d > 9) break;
        v = v * 10 + d;
    }
    return q;
}

// Makes room for n more bytes at the end of out, its pages handed over by
// the kernel at once: a listing of thousands of records fills hundreds of
// pages, and taking them one fault at a time costs more than writing them.
void reserve_filled(std::string& out, size_t n);
// The same for any memory about to be written: the whole pages in [b, e).
void populate_pages(const void* b, const void* e);

// Appends the decimal form of v (as "%lld" prints it).
void append_int(std::string& out, long long v);

bool iequals(const std::string& a, const char* b);
bool is_number(const std::string& s);
std::string to_lower(std::string s);
std::string join(const std::vector<std::string>& v, const char* sep);

// A hexadecimal identifier of `bytes` bytes from a seed, colon-separated.
std::string make_wwn(const char* prefix4, unsigned long long seed);

// Linux-style disk suffix: 0 -> "a", 25 -> "z", 26 -> "aa".
std::string disk_suffix(int n);

// ctime-like text for listings.
std::string time_text(long long t);

}  // namespace arraysim
