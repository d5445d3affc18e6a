// cditool's commands: each fills the request record, runs cdi_cmd, and turns
// the answer, the drive status and the sense into lines or JSON.
#include "tools/cditool/cditool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "drivers/cdi/cdi.h"
#include "drivers/cdi/cdi_rqs.h"

namespace cditool {

const char* kUsage =
    "Usage: cditool [--json] [--tape] [--rw] [--ndmp SERVER --user NAME --password-file F]\n"
    "               DEVICE COMMAND [ARGS]\n"
    "  Checks a SCSI tape drive, changer or disk through the device interface.\n"
    "Commands:\n"
    "  inquiry            vendor, product, revision, device type\n"
    "  tur                test unit ready (retries a reset, reports write protection)\n"
    "  status             ready, write protection, density, block position\n"
    "  position           block position (READ POSITION)\n"
    "  rewind | eod | load | unload | offline\n"
    "  fsf N | bsf N | fsr N | bsr N | locate BLOCK | weof N\n"
    "  limits             block size limits\n"
    "  alerts             TapeAlert flags that are set\n"
    "  cleaning           whether the drive asks to be cleaned\n"
    "  sense              REQUEST SENSE, decoded\n"
    "  encryption         encryption capabilities and state\n"
    "  elements           changer: slots, drives, import/export element\n"
    "  move SRC DST       changer: move a cartridge between element addresses\n"
    "Options:\n"
    "  --json             one JSON object instead of lines\n"
    "  --tape             use the tape driver (path type 2) instead of SCSI pass-through\n"
    "  --rw               open read-write (needed by commands that move or write)\n"
    "  --ndmp SERVER      reach the device through an NDMP server\n"
    "  --user NAME        the NDMP server's user\n"
    "  --password-file F  the file whose first line is the NDMP user's password\n"
    "Exit: 0 success, 1 the device reported a failure, 2 usage or open error.\n";

namespace {

struct Report {
    std::vector<std::pair<std::string, std::string>> fields;  // decoded answer
    void add(const std::string& k, const std::string& v) { fields.emplace_back(k, v); }
    void add(const std::string& k, long long v) { fields.emplace_back(k, std::to_string(v)); }
};

std::string json_str(const std::string& s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += static_cast<char>(c);
        } else if (c < 0x20) {
            char b[8];
            snprintf(b, sizeof b, "\\u%04x", c);
            o += b;
        } else {
            o += static_cast<char>(c);
        }
    }
    return o + "\"";
}

std::string trim(const char* s, size_t n) {
    std::string r(s, strnlen(s, n));
    while (!r.empty() && (r.back() == ' ' || r.back() == '\n')) r.pop_back();
    return r;
}

bool number(const std::string& s, long& v) {
    char* end = nullptr;
    v = strtol(s.c_str(), &end, 0);
    return !s.empty() && end && !*end;
}

// A changer command through the caller's CDB (the table has no changer commands).
int send_cdb(CDI_INFO& ci, unsigned char* cdb, int len, unsigned char* buf, long blen) {
    ci.command = CDI_SEND_SCSI_CDB;
    ci.scmd.scmd_result = 0;
    ci.scmd.scmd_cdb = cdb;
    ci.scmd.scmd_cdblen = len;
    ci.scmd.scmd_bufaddr = buf;
    ci.scmd.scmd_buflen = static_cast<unsigned long>(blen);
    ci.scmd.scmd_flags = blen > 0 ? 1 : 2;
    ci.scmd.scmd_time = 300;
    ci.scmd.scmd_sense = ci.default_sense_buffer;
    ci.scmd.scmd_senselen = CDI_DEFAULT_SENSE_LEN;
    int st = cdi_cmd(&ci);
    ci.scmd.scmd_cdb = nullptr;
    ci.scmd.scmd_cdblen = 0;
    return st;
}

void elements(CDI_INFO& ci, const unsigned char* d, long got, Report& r) {
    static const char* const kinds[] = {"", "transport", "slot", "ie", "drive"};
    long off = 8;
    while (off + 8 <= got) {
        const int type = d[off] & 0x0f;
        const long dlen = static_cast<long>(uint_from_scsi_data(d + off + 2, 2));
        const long bytes = static_cast<long>(uint_from_scsi_data(d + off + 5, 3));
        const bool voltag = d[off + 1] & 0x80;
        long e = off + 8;
        const long end = off + 8 + bytes < got ? off + 8 + bytes : got;
        for (; dlen >= 3 && e + dlen <= end; e += dlen) {
            char name[32];
            snprintf(name, sizeof name, "%s 0x%04x", type >= 1 && type <= 4 ? kinds[type] : "?",
                     static_cast<unsigned>(uint_from_scsi_data(d + e, 2)));
            std::string v = (d[e + 2] & 1) ? "full" : "empty";
            if (voltag && dlen >= 12 + 32 && (d[e + 2] & 1))
                v += " " + trim(reinterpret_cast<const char*>(d + e + 12), 32);
            r.add(name, v);
        }
        off = end;
    }
    (void)ci;
}

}  // namespace

bool parse_args(const std::vector<std::string>& argv, Options& o, std::string& err) {
    std::vector<std::string> pos;
    for (size_t i = 0; i < argv.size(); i++) {
        const std::string& a = argv[i];
        if (a == "--help" || a == "-h") return false;
        if (a == "--json") {
            o.json = true;
        } else if (a == "--tape") {
            o.transport.path_type = CDI_PATH_TAPE;
        } else if (a == "--rw") {
            o.transport.options = CDI_OPT_READ_WRITE;
        } else if (a == "--ndmp") {
            if (i + 1 >= argv.size()) {
                err = "--ndmp needs a server";
                return false;
            }
            o.transport.ndmp_server = argv[++i];
        } else if (a == "--user" || a == "--password-file") {
            if (i + 1 >= argv.size()) {
                err = a + " needs a value";
                return false;
            }
            (a == "--user" ? o.transport.ndmp_user : o.transport.ndmp_password_file) = argv[++i];
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            err = "unknown option " + a;
            return false;
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() < 2) {
        err = pos.empty() ? "no device given" : "no command given";
        return false;
    }
    o.device = pos[0];
    o.command = pos[1];
    o.args.assign(pos.begin() + 2, pos.end());
    return true;
}

int run(const Options& o, FILE* out, FILE* err) {
    CDI_INFO ci;
    cdi_build_cdi_info(&ci);
    ci.path.type = o.transport.path_type;
    ci.path.options = o.transport.options;
    ci.path.device_file = strdup(o.device.c_str());
    if (!o.transport.ndmp_server.empty()) {
        std::string password;
        if (!o.transport.ndmp_password_file.empty()) {
            FILE* pf = fopen(o.transport.ndmp_password_file.c_str(), "r");
            if (pf == nullptr) {
                fprintf(err, "cditool: cannot read %s\n", o.transport.ndmp_password_file.c_str());
                cdi_free_cdi_info(&ci, 0);
                return 2;
            }
            for (int ch; (ch = fgetc(pf)) != EOF && ch != '\n';) password += static_cast<char>(ch);
            fclose(pf);
        }
        ci.path.type =
            o.transport.path_type == CDI_PATH_TAPE ? CDI_PATH_NDMP_TAPE : CDI_PATH_NDMP_SCSI;
        std::string server = o.transport.ndmp_server, user = o.transport.ndmp_user;
        cdi_set_ndmp_info(&ci.path.ndmp, &server[0], &user[0], &password[0]);
        // The interface keeps copies; ours is not left lying in memory.
        std::fill(password.begin(), password.end(), '\0');
    }
    Report r;
    int status = cdi_open(&ci);
    if (status != CDI_STAT_SUCCESS) {
        if (o.json)
            fprintf(
                out,
                "{\"device\": %s, \"command\": \"open\", \"status\": %d, \"status_text\": %s}\n",
                json_str(o.device).c_str(), status,
                json_str(ci.error.errstr ? ci.error.errstr : "").c_str());
        else
            fprintf(err, "cditool: cannot open %s: %s (status %d, errno %d)\n", o.device.c_str(),
                    ci.error.errstr ? ci.error.errstr : "", status, ci.error.errnum);
        cdi_free_cdi_info(&ci, 0);
        return 2;
    }
    long n = 0;
    const std::string& c = o.command;
    const bool need_num =
        c == "fsf" || c == "bsf" || c == "fsr" || c == "bsr" || c == "locate" || c == "weof";
    if (need_num && (o.args.empty() || !number(o.args[0], n) || n < 0)) {
        fprintf(err, "cditool: %s needs a count\n", c.c_str());
        cdi_close(&ci);
        cdi_free_cdi_info(&ci, 0);
        return 2;
    }
    std::vector<unsigned char> buf(4096);
    memset(&ci.cmd_data, 0, sizeof ci.cmd_data);
    bool known = true;
    auto simple = [&](int command) {
        ci.command = command;
        return cdi_cmd(&ci);
    };
    if (c == "inquiry") {
        r.add("vendor", trim(ci.vendor, 8));
        r.add("product", trim(ci.product, 16));
        r.add("revision", trim(ci.rev, 4));
        ci.cmd_data.inquiry.inq_data_requested = CDI_INQ_STANDARD;
        status = simple(CDI_INQUIRY_DATA);
        if (status == 0) r.add("device type", ci.cmd_data.inquiry.inquiry_data[0] & 0x1f);
    } else if (c == "tur") {
        status = simple(CDI_TUR);
    } else if (c == "status") {
        status = simple(CDI_GET_STATUS);
        const CDI_GET_STATUS_DATA& g = ci.cmd_data.get_status;
        r.add("ready", g.ready ? "yes" : "no");
        r.add("write protected", g.write_protected ? "yes" : "no");
        r.add("density", g.density);
        r.add("block position", g.block_position);
        if (g.file_number >= 0) r.add("file number", g.file_number);
    } else if (c == "position") {
        status = simple(CDI_READ_POSITION);
        r.add("block position", ci.cmd_data.read_position.first_block);
        r.add("beginning of partition", ci.cmd_data.read_position.bop ? "yes" : "no");
    } else if (c == "rewind") {
        status = simple(CDI_REWIND);
    } else if (c == "eod") {
        status = simple(CDI_EOD);
    } else if (c == "load" || c == "unload") {
        ci.cmd_data.load_unload.load = c == "load";
        status = simple(CDI_UNLOAD);
    } else if (c == "offline") {
        status = simple(CDI_OFFLINE);
    } else if (c == "fsf" || c == "bsf" || c == "fsr" || c == "bsr") {
        const std::map<std::string, int> m = {
            {"fsf", CDI_FSF}, {"bsf", CDI_BSF}, {"fsr", CDI_FSR}, {"bsr", CDI_BSR}};
        ci.cmd_data.fsf.count = n;
        status = simple(m.at(c));
    } else if (c == "locate") {
        ci.cmd_data.locate.block = static_cast<unsigned long>(n);
        status = simple(CDI_LOCATE);
    } else if (c == "weof") {
        ci.cmd_data.write_filemarks.count = n;
        status = simple(CDI_WRITE_FILEMARKS);
    } else if (c == "limits") {
        status = simple(CDI_GET_BLOCK_LIMITS);
        r.add("minimum block", ci.cmd_data.get_block_limits.min);
        r.add("maximum block", ci.cmd_data.get_block_limits.max);
    } else if (c == "alerts") {
        status = simple(CDI_GET_TAPEALERT);
        std::string set;
        for (int f = 1; f <= 64; f++)
            if (ci.cmd_data.get_tapealert.flags[f])
                set += (set.empty() ? "" : " ") + std::to_string(f);
        r.add("tapealert flags", set.empty() ? "none" : set);
    } else if (c == "cleaning") {
        status = simple(CDI_CHECK_IF_DRIVE_NEEDS_CLEANING);
        r.add("needs cleaning", ci.drivestat.status == CDI_DRIVE_NEEDS_CLEANING ? "yes" : "no");
    } else if (c == "sense") {
        status = simple(CDI_REQUEST_SENSE);
        SenseFields f;
        cdi_sense_fields(ci.cmd_data.array, 32, &f);
        asc_info_t a = {nullptr, f.key, f.asc, f.ascq, nullptr, nullptr};
        char* t = scsi_sinfo(&a, 2);
        r.add("sense", t ? t : "");
        free(t);
    } else if (c == "encryption") {
        status = simple(CDI_GET_ENCRYPTION);
        const CDI_GET_ENCRYPTION_DATA& e = ci.cmd_data.get_encryption;
        r.add("supported", e.supported ? "yes" : "no");
        for (int i = 0; i < e.num_algorithms; i++) {
            char v[64];
            snprintf(v, sizeof v, "0x%08x, key %d bytes", e.alg[i].id, e.alg[i].key_size);
            r.add("algorithm " + std::to_string(e.alg[i].index), v);
        }
        r.add("encryption mode", e.encryption_mode);
        r.add("decryption mode", e.decryption_mode);
    } else if (c == "elements") {
        unsigned char cdb[12] = {0xB8, 0x10, 0, 0, 0xFF, 0xFF, 0, 0, 0x10, 0, 0, 0};
        status = send_cdb(ci, cdb, 12, buf.data(), static_cast<long>(buf.size()));
        if (status == 0) {
            long got = static_cast<long>(buf.size()) - ci.scmd.scmd_resid;
            elements(ci, buf.data(), got, r);
        }
    } else if (c == "move") {
        long s = 0, d = 0;
        if (o.args.size() < 2 || !number(o.args[0], s) || !number(o.args[1], d) || s < 0 || d < 0 ||
            s > 0xffff || d > 0xffff) {
            fprintf(err, "cditool: move needs two element addresses\n");
            cdi_close(&ci);
            cdi_free_cdi_info(&ci, 0);
            return 2;
        }
        unsigned char cdb[12] = {0xA5, 0, 0, 1};
        fill_cdb_multibyte_field(cdb + 4, 2, static_cast<uint64_t>(s));
        fill_cdb_multibyte_field(cdb + 6, 2, static_cast<uint64_t>(d));
        status = send_cdb(ci, cdb, 12, nullptr, 0);
    } else {
        known = false;
    }
    if (!known) {
        fprintf(err, "cditool: unknown command %s\n", c.c_str());
        cdi_close(&ci);
        cdi_free_cdi_info(&ci, 0);
        return 2;
    }

    // The sense a person reads: from the check condition, with the drive's names.
    std::string sense_text;
    SenseFields f = {};
    if (status == CDI_STAT_CHECK_CONDITION && ci.scmd.scmd_sense) {
        cdi_sense_fields(ci.scmd.scmd_sense, ci.scmd.scmd_senselen, &f);
        std::string v = trim(ci.vendor, 8), p = trim(ci.product, 16);
        asc_info_t a = {nullptr,
                        f.key,
                        f.asc,
                        f.ascq,
                        v.empty() ? nullptr : &v[0],
                        p.empty() ? nullptr : &p[0]};
        char* t = scsi_sinfo(&a, 2);
        sense_text = t ? t : "";
        free(t);
    }
    const std::string status_text = ci.error.errstr ? ci.error.errstr : "";
    std::string drive_text = trim(ci.drivestat.msg, sizeof ci.drivestat.msg);
    // A caller's own CDB is not digested: the status is the table's text.
    if (drive_text.empty() && ci.drivestat.status >= 0 &&
        ci.drivestat.status < CDI_DRIVE_STAT_COUNT)
        drive_text = cdi_drive_stat_messages[ci.drivestat.status];
    if (o.json) {
        fprintf(out, "{\"device\": %s, \"command\": %s, \"status\": %d, \"status_text\": %s, ",
                json_str(o.device).c_str(), json_str(c).c_str(), status,
                json_str(status_text).c_str());
        fprintf(out, "\"drive_status\": %d, \"drive_text\": %s", ci.drivestat.status,
                json_str(drive_text).c_str());
        if (!sense_text.empty())
            fprintf(out, ", \"sense\": {\"key\": %d, \"asc\": %d, \"ascq\": %d, \"text\": %s}",
                    f.key, f.asc, f.ascq, json_str(sense_text).c_str());
        fputs(", \"result\": {", out);
        for (size_t i = 0; i < r.fields.size(); i++)
            fprintf(out, "%s%s: %s", i ? ", " : "", json_str(r.fields[i].first).c_str(),
                    json_str(r.fields[i].second).c_str());
        fputs("}}\n", out);
    } else {
        for (const auto& kv : r.fields)
            fprintf(out, "%-24s %s\n", (kv.first + ":").c_str(), kv.second.c_str());
        fprintf(out, "%-24s %d (%s)\n", "status:", status, status_text.c_str());
        fprintf(out, "%-24s %d (%s)\n", "drive status:", ci.drivestat.status, drive_text.c_str());
        if (!sense_text.empty())
            fprintf(out, "%-24s key 0x%x, ASC 0x%02x, ASCQ 0x%02x: %s\n", "sense:", f.key, f.asc,
                    f.ascq, sense_text.c_str());
    }
    cdi_close(&ci);
    cdi_free_cdi_info(&ci, 0);
    return status == CDI_STAT_SUCCESS ? 0 : 1;
}

}  // namespace cditool
