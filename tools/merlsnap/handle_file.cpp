// Reading and writing merlsnap's handle files.
#include "tools/merlsnap/handle_file.h"

#include <errno.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>

namespace {
const char* const kMagicV1 = "# merlsnap snapshot handle v1";
const char* const kMagic = "# merlsnap snapshot handle v2";

bool has_line_break(const std::string& s) {
    return s.find_first_of("\r\n") != std::string::npos;
}

bool starts(const std::string& s, const char* word) {
    return s.compare(0, strlen(word), word) == 0;
}

// The MD5 digest of `text` in lower-case hexadecimal.
std::string md5_hex(const std::string& text) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(text.data(), text.size(), md, &n, EVP_md5(), nullptr) != 1) return "";
    std::string out;
    static const char hex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < n; i++) {
        out += hex[md[i] >> 4];
        out += hex[md[i] & 15];
    }
    return out;
}

std::string body_of(const HandleFile& h) {
    return "tech " + h.tech + "\nguid " + h.guid + "\ndetails " + h.details + "\n";
}

// Reads the tech, guid and details lines of `body` into `h`.
bool read_body(const std::string& body, HandleFile& h) {
    bool tech = false, guid = false, details = false;
    size_t pos = 0;
    while (pos < body.size()) {
        size_t end = body.find('\n', pos);
        if (end == std::string::npos) end = body.size();
        std::string line = body.substr(pos, end - pos);
        pos = end + 1;
        if (starts(line, "tech ")) {
            h.tech = line.substr(5);
            tech = true;
        } else if (starts(line, "guid ")) {
            h.guid = line.substr(5);
            guid = true;
        } else if (starts(line, "details ")) {
            h.details = line.substr(8);
            details = true;
        }
    }
    return tech && guid && details;
}
}  // namespace

bool write_handle_file(const std::string& path, const HandleFile& h, std::string& why) {
    if (has_line_break(h.tech) || has_line_break(h.guid) || has_line_break(h.details)) {
        why = "the handle holds a line break and cannot be kept in a handle file";
        return false;
    }
    const std::string body = body_of(h);
    std::string tmp = path + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (f == nullptr) {
        why = "cannot write " + tmp + ": " + strerror(errno);
        return false;
    }
    // The length and digest let a reader refuse a file cut short or altered
    // instead of handing the module half a handle.
    fprintf(f, "%s\n%slength %zu\nmd5 %s\n", kMagic, body.c_str(), body.size(),
            md5_hex(body).c_str());
    bool ok = fflush(f) == 0 && ferror(f) == 0;
    ok = (fclose(f) == 0) && ok;
    // Renamed into place so that a crash never leaves half a handle behind.
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        why = "cannot write " + path + ": " + strerror(errno);
        remove(tmp.c_str());
        return false;
    }
    return true;
}

bool read_handle_file(const std::string& path, HandleFile& h, std::string& why) {
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) {
        why = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    std::string content;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0 && content.size() < (1u << 20))
        content.append(buf, n);
    fclose(f);

    h = HandleFile();
    const size_t first = content.find('\n');
    const std::string magic = content.substr(0, first);
    const std::string rest = first == std::string::npos ? "" : content.substr(first + 1);
    if (magic == kMagicV1) {
        // Written before files carried a digest: taken as it stands.
        if (read_body(rest, h)) return true;
    } else if (magic == kMagic) {
        const size_t tail = rest.rfind("length ");
        if (tail == std::string::npos || (tail > 0 && rest[tail - 1] != '\n')) {
            why = path + " is damaged: its length and digest are missing (cut short?)";
            return false;
        }
        const std::string body = rest.substr(0, tail);
        unsigned long long length = 0;
        char digest[64] = {0};
        if (sscanf(rest.c_str() + tail, "length %llu\nmd5 %32[0-9a-f]", &length, digest) != 2 ||
            strlen(digest) != 32) {
            why = path + " is damaged: its length and digest are missing (cut short?)";
            return false;
        }
        if (length != body.size() || md5_hex(body) != digest) {
            why = path + " is damaged: it holds " + std::to_string(body.size()) +
                  " bytes of handle where " + std::to_string(length) +
                  " were written, or they were changed since";
            return false;
        }
        if (read_body(body, h)) return true;
    }
    why = path + " is not a merlsnap handle file";
    return false;
}
