// What every fuzz target needs of its input: a copy that ends in NUL (the
// surfaces read C strings) and a stream over it (the parsers read a child's
// output through a FILE*), and a log function that drops what it is given.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace fuzz {

// The input as a writable, NUL-terminated buffer (inner NULs stay).
inline std::vector<char> c_text(const uint8_t* data, size_t size) {
    std::vector<char> v(data, data + size);
    v.push_back('\0');
    return v;
}

// A read stream over `text`, which must outlive it; empty text reads as end.
inline FILE* stream_over(std::string& text) {
    if (text.empty()) return fopen("/dev/null", "r");
    return fmemopen(&text[0], text.size(), "r");
}

inline void drop_log(int, const char*, int, const char*, void*) {}

// A file of this process's own for surfaces that read a path, named once;
// `put` replaces its content with the input. False when it cannot be written.
class ScratchFile {
public:
    explicit ScratchFile(const char* prefix) {
        std::string tmpl = std::string("/tmp/") + prefix + "XXXXXX";
        int fd = mkstemp(&tmpl[0]);
        if (fd >= 0) close(fd);
        m_path = fd >= 0 ? tmpl : "";
    }
    const std::string& path() const { return m_path; }
    bool put(const uint8_t* data, size_t size) const {
        FILE* f = m_path.empty() ? nullptr : fopen(m_path.c_str(), "w");
        if (f == nullptr) return false;
        bool ok = fwrite(data, 1, size, f) == size;
        return fclose(f) == 0 && ok;
    }

private:
    std::string m_path;
};

}  // namespace fuzz
