// Reading and writing merlsnap's handle files.
#include "tools/merlsnap/handle_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

namespace {
const char* const kMagic = "# merlsnap snapshot handle v1";

bool has_line_break(const std::string& s) {
    return s.find_first_of("\r\n") != std::string::npos;
}
}  // namespace

bool write_handle_file(const std::string& path, const HandleFile& h, std::string& why) {
    if (has_line_break(h.tech) || has_line_break(h.guid) || has_line_break(h.details)) {
        why = "the handle holds a line break and cannot be kept in a handle file";
        return false;
    }
    std::string tmp = path + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    if (f == nullptr) {
        why = "cannot write " + tmp + ": " + strerror(errno);
        return false;
    }
    fprintf(f, "%s\ntech %s\nguid %s\ndetails %s\n", kMagic, h.tech.c_str(), h.guid.c_str(),
            h.details.c_str());
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
    bool magic = false, tech = false, guid = false, details = false;
    size_t pos = 0;
    while (pos < content.size()) {
        size_t end = content.find('\n', pos);
        if (end == std::string::npos) end = content.size();
        std::string line = content.substr(pos, end - pos);
        pos = end + 1;
        if (line == kMagic) {
            magic = true;
        } else if (line.compare(0, 5, "tech ") == 0) {
            h.tech = line.substr(5);
            tech = true;
        } else if (line.compare(0, 5, "guid ") == 0) {
            h.guid = line.substr(5);
            guid = true;
        } else if (line.compare(0, 8, "details ") == 0) {
            h.details = line.substr(8);
            details = true;
        }
    }
    if (!magic || !tech || !guid || !details) {
        why = path + " is not a merlsnap handle file";
        return false;
    }
    return true;
}
