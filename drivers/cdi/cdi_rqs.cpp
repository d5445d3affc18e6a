// Text of sense keys and additional sense codes for people: the published
// table, the decoded range codes, and vendor codes from the vendor directory
// ("orvtovendors": one file per vendor, and OEM_MAP for drives sold under
// another name). A failure on the vendor path becomes the text itself, so a
// user always gets a line.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "drivers/cdi/cdi_rqs.h"
#include "liblocal/kv_mem.h"
#include "liblocal/kv_spawn.h"

namespace {

char adesc_types[64];
char adesc_desc[512];

const char* const kSenseKeyText[16] = {
    "No Additional Sense", "Soft Error",      "Not Ready",        "Media Error",
    "Hardware Error",      "Illegal Request", "Unit Attention",   "Write Protected",
    "Blank Check",         "Vendor Unique",   "Copy Aborted",     "Aborted Command",
    "Equal Error",         "Volume Overflow", "Miscompare Error", "Reserved",
};

std::string hex02(unsigned v) {
    char b[8];
    snprintf(b, sizeof b, "0x%02x", v & 0xffu);
    return b;
}

std::string num(long v) {
    char b[24];
    snprintf(b, sizeof b, "%ld", v);
    return b;
}

// A structured message of the vendor path: every argument is text, the
// code is the one these messages share. The result is a heap copy.
char* vendor_msg(int id, const char* form, const char* a1 = nullptr, const char* a2 = nullptr,
                 int a2_kind = ARG_TEXT) {
    errinfo* m;
    if (a2)
        m = msg_create(id, RQS_ERRCODE, form, ARG_TEXT, a1, a2_kind, a2);
    else if (a1)
        m = msg_create(id, RQS_ERRCODE, form, ARG_TEXT, a1);
    else
        m = msg_create(id, RQS_ERRCODE, form);
    char* out = xstrdup(m && m->errstr ? m->errstr : form);
    if (m) msg_free(m);
    return out;
}

std::string lit(int id, const char* text) {
    const char* t = msg_lit_create(id, text);
    return t ? t : text;
}

void rtrim(char* s) {
    size_t n = strlen(s);
    while (n > 0 && (isspace(static_cast<unsigned char>(s[n - 1])) ||
                     iscntrl(static_cast<unsigned char>(s[n - 1]))))
        s[--n] = '\0';
}

char* ltrim(char* s) {
    while (*s && isspace(static_cast<unsigned char>(*s))) s++;
    return s;
}

bool all_letters(const char* s) {
    if (!*s) return false;
    for (; *s; s++)
        if (!isalpha(static_cast<unsigned char>(*s))) return false;
    return true;
}

// Directory + name; a directory given without its closing slash still works.
std::string join(const std::string& dir, const char* name) {
    if (!dir.empty() && dir.back() != '/') return dir + "/" + name;
    return dir + name;
}

bool is_dir(const std::string& p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

s_adesc Adesc = {adesc_types, adesc_desc};

char* sense_keys(unsigned char index) {
    if (index >= 16) return msg_lit_create(1852, "UNKNOWN");
    return msg_lit_create(1836 + index, kSenseKeyText[index]);
}

char* scsi_sinfo(asc_info_t* sinfo, int flag) {
    if (!sinfo) return nullptr;
    switch (flag) {
    case 0: {
        const char* k = sense_keys(sinfo->skey);
        return xstrdup(k ? k : "UNKNOWN");
    }
    case 1: {
        char* r = nullptr;
        axx(sinfo, &r);
        return r;
    }
    case 2: {
        std::string key;
        const char* k = sense_keys(sinfo->skey);
        key = k ? k : "UNKNOWN";
        char* r = nullptr;
        axx(sinfo, &r);
        std::string both = key + ", " + (r ? r : "");
        free(r);
        return xstrdup(both.c_str());
    }
    default: return nullptr;
    }
}

void axx(asc_info_t* sinfo, char** result) {
    if (!result) return;
    *result = nullptr;
    if (!sinfo) return;
    adesc_types[0] = '\0';
    adesc_desc[0] = '\0';
    std::string text;
    if (const AscRow* r = asc_table_find(sinfo->asc, sinfo->ascq)) {
        snprintf(adesc_types, sizeof adesc_types, "%s", r->types);
        text = lit(r->msgid, r->text);
    } else if (sinfo->asc == 0x70) {
        text = "Decompression Exception";
    } else if (sinfo->asc == 0x44 || sinfo->asc >= 0x80 || sinfo->ascq >= 0x80) {
        char* v = uscsi_get_vendor_err(sinfo);
        if (v) text = v;
        free(v);
    }
    if (text.empty()) {
        char b[128];
        if (sinfo->asc == 0x40 && sinfo->ascq != 0) {
            // The catalogue's form is not used as a format: it is data.
            std::string f = lit(1835, "Diagnostic Failure on Component 0x%02x");
            snprintf(b, sizeof b, "Diagnostic Failure on Component 0x%02x", sinfo->ascq);
            if (f != "Diagnostic Failure on Component 0x%02x") {
                size_t at = f.find("0x%02x");
                if (at != std::string::npos) f.replace(at, 6, hex02(sinfo->ascq));
                snprintf(b, sizeof b, "%s", f.c_str());
            }
        } else {
            snprintf(b, sizeof b, "ASC 0x%02x ASCQ 0x%02x", sinfo->asc, sinfo->ascq);
        }
        text = b;
    }
    snprintf(adesc_desc, sizeof adesc_desc, "%s", text.c_str());
    *result = xstrdup(text.c_str());
}

char* uscsi_get_vendor_err(asc_info_t* ascinfo) {
    if (!ascinfo) return xstrdup("");
    std::string dir;
    if (ascinfo->path) {
        dir = ascinfo->path;
    } else {
        const char* origin = find_origin(nullptr);
        if (!origin) return vendor_msg(2190, "Internal error: No file path specified");
        dir = join(origin, RQS_VENDOR_DIR) + "/";
    }
    const std::string asc = hex02(ascinfo->asc), ascq = hex02(ascinfo->ascq);
    const bool generic = ascinfo->vendor && strcmp(ascinfo->vendor, RQS_GENERIC_VENDOR) == 0;

    // Without a vendor directory there is nothing to say about a vendor code
    // beyond its numbers.
    if (!generic && !is_dir(dir))
        return vendor_msg(107612, "ASC/ASCQ=%s/%s (No vendor specific information available)",
                          asc.c_str(), ascq.c_str());

    std::string file;
    if (ascinfo->vendor && ascinfo->product && !generic) {
        char* oem = nullptr;
        std::string map = join(dir, RQS_OEM_MAP);
        errinfo* e =
            uscsi_find_oem(const_cast<char*>(map.c_str()), &oem, ascinfo->vendor, ascinfo->product);
        if (e) {
            char* out = xstrdup(e->errstr ? e->errstr : "");
            msg_free(e);
            return out;
        }
        if (oem) file = oem;
        free(oem);
    } else if (ascinfo->vendor && !ascinfo->product && !generic) {
        file = ascinfo->vendor;
    }

    if (!file.empty()) {
        // A name from data never leaves the directory.
        if (file.find('/') != std::string::npos || file == "." || file == "..")
            return vendor_msg(2191,
                              "Error: Cannot access file %s\nMake sure you have specified the "
                              "correct vendor ID",
                              join(dir, file.c_str()).c_str());
        std::string full = join(dir, file.c_str());
        struct stat st;
        if (stat(full.c_str(), &st) != 0)
            return vendor_msg(2191,
                              "Error: Cannot access file %s\nMake sure you have specified the "
                              "correct vendor ID",
                              full.c_str());
        return uscsi_scan_vendor_file(const_cast<char*>(full.c_str()),
                                      const_cast<char*>(asc.c_str()),
                                      const_cast<char*>(ascq.c_str()));
    }
    if (!generic)
        return vendor_msg(107612, "ASC/ASCQ=%s/%s (No vendor specific information available)",
                          asc.c_str(), ascq.c_str());

    DIR* d = opendir(dir.c_str());
    if (!d) return vendor_msg(2192, "Internal error: Path '%s' does not exist", dir.c_str());
    std::string joined;
    while (struct dirent* de = readdir(d)) {
        if (!strcmp(de->d_name, ".") || !strcmp(de->d_name, "..") ||
            !strcmp(de->d_name, RQS_OEM_MAP))
            continue;
        std::string full = join(dir, de->d_name);
        struct stat st;
        if (stat(full.c_str(), &st) != 0) {
            closedir(d);
            return vendor_msg(2193, "Error: Cannot access file %s", full.c_str());
        }
        if (!S_ISREG(st.st_mode)) continue;
        char* one =
            uscsi_scan_vendor_file(const_cast<char*>(full.c_str()), const_cast<char*>(asc.c_str()),
                                   const_cast<char*>(ascq.c_str()));
        if (one && *one) joined = joined.empty() ? std::string(one) : joined + "\n" + one;
        free(one);
    }
    closedir(d);
    return xstrdup(joined.c_str());
}

int uscsi_read_line(char* buffer, int max, FILE* file, int* line_number) {
    if (!buffer || max <= 0 || !file) return -1;
    for (;;) {
        int n = 0, c;
        bool any = false;
        while ((c = fgetc(file)) != EOF) {
            any = true;
            if (c == '\n') break;
            if (n < max - 1) buffer[n++] = static_cast<char>(c);
        }
        if (!any) return -1;
        buffer[n] = '\0';
        if (line_number) (*line_number)++;
        char* hash = strchr(buffer, '#');
        if (hash) *hash = '\0';
        rtrim(buffer);
        if (*ltrim(buffer)) return static_cast<int>(strlen(buffer));
        if (c == EOF) return -1;
    }
}

char* uscsi_get_next_token(char* buffer, char delimiter) {
    if (!buffer) return nullptr;
    char* p = strchr(buffer, delimiter);
    if (!p) return nullptr;
    *p = '\0';
    return ltrim(p + 1);
}

errinfo* uscsi_find_oem(char* oemfile, char** oem, char* vendor, char* product) {
    if (oem) *oem = nullptr;
    if (!vendor || !product) return msg_create(2186, RQS_ERRCODE, "Missing vendor or product id\n");
    FILE* f = oemfile ? fopen(oemfile, "re") : nullptr;
    if (!f) {
        int err = errno;
        return msg_create(2187, RQS_ERRCODE, "Unable to open OEM file %s: %s", ARG_PATH,
                          oemfile ? oemfile : "", ARG_SYSERR, strerror(err));
    }
    char line[RQS_LINE_MAX];
    int lineno = 0;
    errinfo* result = nullptr;
    while (uscsi_read_line(line, sizeof line, f, &lineno) >= 0) {
        char* tag = ltrim(line);
        char* ven = uscsi_get_next_token(tag, ':');
        rtrim(tag);
        if (!all_letters(tag) || !ven) {
            result = msg_create(2188, RQS_ERRCODE, "Invalid entry in %s file at line `%d'",
                                ARG_PATH, oemfile, ARG_INT, num(lineno).c_str());
            break;
        }
        char* prod = uscsi_get_next_token(ven, ',');
        if (!prod) {
            result =
                msg_create(2189, RQS_ERRCODE, "Invalid OEM vendor entry in %s file at line `%d'",
                           ARG_PATH, oemfile, ARG_INT, num(lineno).c_str());
            break;
        }
        rtrim(ven);
        rtrim(prod);
        if (strcmp(ven, vendor) == 0 && strcmp(prod, product) == 0) {
            if (oem) *oem = xstrdup(tag);
            break;
        }
    }
    fclose(f);
    return result;
}

char* uscsi_scan_vendor_file(char* filename, char* asc, char* ascq) {
    if (!filename || !asc || !ascq) return xstrdup("");
    const char* slash = strrchr(filename, '/');
    const char* vendor = slash ? slash + 1 : filename;
    if (!*vendor)
        return vendor_msg(2184, "Internal error: Unable to extract vendor ID from full path '%s'",
                          filename);
    FILE* f = fopen(filename, "re");
    if (!f) {
        int err = errno;
        return vendor_msg(2183, "Unable to open vendor file %s: %s", filename, strerror(err),
                          ARG_SYSERR);
    }
    char line[RQS_LINE_MAX];
    int lineno = 0;
    std::string out;
    char head[16];
    while (uscsi_read_line(line, sizeof line, f, &lineno) >= 0) {
        char* a = ltrim(line);
        char* q = uscsi_get_next_token(a, ',');
        if (!q) continue;
        char* text = uscsi_get_next_token(q, ',');
        if (!text) continue;
        rtrim(a);
        rtrim(q);
        rtrim(text);
        if (strcmp(a, asc) != 0 || strcmp(q, ascq) != 0) continue;
        // The vendor heads the first match; further ones get a blank head.
        snprintf(head, sizeof head, "%-8s", "");
        if (out.empty()) {
            std::string v = vendor;
            if (v.size() < 8) v.append(8 - v.size(), ' ');
            out = v + ": " + text;
        } else {
            out += std::string(head) + ": " + text;
        }
    }
    fclose(f);
    return xstrdup(out.c_str());
}

void cdi_sense_fields(const unsigned char* s, int len, SenseFields* o) {
    if (!o) return;
    memset(o, 0, sizeof *o);
    o->format = -1;
    if (!s || len <= 0) return;
    const int rc = s[0] & 0x7f;
    if (rc == 0x72 || rc == 0x73) {
        o->format = 1;
        o->deferred = rc == 0x73;
        int total = len >= 8 ? 8 + s[7] : len;
        o->valid_len = total < len ? total : len;
        if (o->valid_len >= 2) {
            o->key = s[1] & 0x0f;
            o->have_key = 1;
        }
        if (o->valid_len >= 4) {
            o->asc = s[2];
            o->ascq = s[3];
            o->have_asc = 1;
        }
        // Descriptors: each is type, additional length, then its bytes; one
        // that claims to run past the data ends the walk.
        int off = 8;
        while (off + 2 <= o->valid_len) {
            const int type = s[off], dlen = s[off + 1];
            if (off + 2 + dlen > o->valid_len) break;
            if (type == 0x00 && dlen >= 10) {  // information
                o->info_valid = (s[off + 2] & 0x80) != 0;
                o->information = uint_from_scsi_data(s + off + 4, 8);
            } else if (type == 0x04 && dlen >= 2) {  // stream commands
                o->filemark = (s[off + 3] >> 7) & 1;
                o->eom = (s[off + 3] >> 6) & 1;
                o->ili = (s[off + 3] >> 5) & 1;
            }
            off += 2 + dlen;
        }
        return;
    }
    o->format = rc == 0x70 || rc == 0x71 ? 0 : -1;
    o->deferred = rc == 0x71;
    int total = len >= 8 ? 8 + s[7] : len;
    // A device that gives no additional length for fixed data still had its
    // bytes cleared before the call: trust the length the transport reports.
    o->valid_len = o->format == 0 && len >= 8 && total < len ? total : len;
    if (o->valid_len >= 3) {
        o->key = s[2] & 0x0f;
        o->have_key = 1;
        o->filemark = (s[2] >> 7) & 1;
        o->eom = (s[2] >> 6) & 1;
        o->ili = (s[2] >> 5) & 1;
    }
    if (o->valid_len >= 7) {
        o->info_valid = (s[0] & 0x80) != 0;
        o->information = uint_from_scsi_data(s + 3, 4);
    }
    if (o->valid_len >= 14) {
        o->asc = s[12];
        o->ascq = s[13];
        o->have_asc = 1;
    }
}

void dump_sense(char* s, char* cmd, asc_info_t* sinfo) {
    dump_sense_n(reinterpret_cast<const unsigned char*>(s), s ? CDI_DEFAULT_SENSE_LEN : 0, cmd,
                 sinfo, stderr, stdout);
}

void dump_sense_n(const unsigned char* s, int len, const char* cmd, asc_info_t* sinfo, FILE* err,
                  FILE* out) {
    if (!s || len <= 0 || !err || !out) return;
    std::string head = lit(1833, "Check Condition for cmd '%s':\n");
    size_t at = head.find("%s");
    if (at != std::string::npos) head.replace(at, 2, cmd ? cmd : "");
    fputs(head.c_str(), err);
    char* both = scsi_sinfo(sinfo, 2);
    fprintf(err, " %s\n", both ? both : "");
    free(both);
    if (len > 2) {
        if (s[2] & 0x80) fputs(" FileMark", out);
        if (s[2] & 0x40) fputs(" EOM", out);
        if (s[2] & 0x20) fputs(" ILI", out);
    }
    fputs(lit(1834, " Additional Sense Information (byte 15 out...):\n").c_str(), err);
    int count = len > 7 ? s[7] - 7 : 0;
    if (count > len - 15) count = len - 15;  // never past what the buffer holds
    for (int i = 0; i < count; i++) {
        if (i % 8 == 0) fprintf(err, "\n\t% 2d:", i);
        fprintf(err, " 0x%02x", s[15 + i]);
    }
    fputs("\n", err);
}
