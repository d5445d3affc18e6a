// The tape command set of the device interface: each command builds its
// CDB, runs it through the frame's digestion, and reads its answer into its
// record of cmd_data; on the tape driver's paths the commands that have an
// equivalent run as a tape operation instead.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "drivers/cdi/cdi_rqs.h"
#include "drivers/cdi/cdi_tape.h"

namespace {

enum { TR_ERROR = 1, TR_WARN = 2, TR_INFO = 3 };

// The largest block the system's tape driver moves.
const long long kSystemMaxBlock = 0x100000;

// Runs one CDB with the frame's defaults, then the given direction, buffer
// and time. The CDB lives on the caller's frame only for the call.
int run(CDI_INFOP ci, const unsigned char* cdb, int cdblen, unsigned char* buf, long len, bool in,
        int seconds) {
    vcdi_SetupDefaultScmd(ci);
    CDI_SCSICMD& s = ci->scmd;
    s.scmd_cdb = const_cast<unsigned char*>(cdb);
    s.scmd_cdblen = cdblen;
    s.scmd_bufaddr = len > 0 ? buf : nullptr;
    s.scmd_buflen = len > 0 ? static_cast<unsigned long>(len) : 0;
    // A command that moves no data asks for no transfer at all.
    s.scmd_flags = len <= 0 ? 2 : in ? 1 : 0;
    s.scmd_time = seconds;
    if (in && buf && len > 0) memset(buf, 0, static_cast<size_t>(len));
    int status = vcdi_DoScmdAndDigestResult(ci);
    s.scmd_cdb = nullptr;
    s.scmd_cdblen = 0;
    return status;
}

long arrived(CDI_INFOP ci, long len) {
    long resid = ci->scmd.scmd_resid;
    if (resid < 0 || resid > len) return len;
    return len - resid;
}

bool scsi_path(int type) {
    return type == CDI_PATH_SCSI || type == CDI_PATH_NDMP_SCSI;
}
bool tape_path(int type) {
    return type == CDI_PATH_TAPE || type == CDI_PATH_TAPE_NR;
}

// The path-type test of a command that has no tape equivalent: 3 for the
// tape, NDMP tape and reserved types, 4 for unknown ones; -1 to go on.
int gate(CDI_INFOP ci) {
    const int t = ci->path.type;
    if (scsi_path(t)) return -1;
    if (t >= CDI_PATH_TAPE && t <= CDI_PATH_RESERVED) {
        vcdi_unimplemented_cmd(ci);
    } else {
        vcdi_unimplemented_path(ci);
    }
    return ci->status;
}

void set_drive(CDI_INFOP ci, int drive_status) {
    ci->drivestat.status = drive_status;
    if (drive_status >= 0 && drive_status < CDI_DRIVE_STAT_COUNT) {
        const char* text = cdi_drive_stat_messages[drive_status];
        size_t n = strnlen(text, CDI_MSG_SLOT_LEN - 1);
        memcpy(ci->drivestat.msg, text, n);
        ci->drivestat.msg[n] = '\0';
    }
}

// A tape operation through the tape driver, with the drive status it leaves.
int tape_op(CDI_INFOP ci, int op, long count) {
    ci->tape_op.mt_cmd = CDI_MT_OP;
    ci->tape_op.cdi_mtop.operation = op;
    ci->tape_op.cdi_mtop.count = static_cast<int>(count);
    int status = cdi_tape_cmd(ci);
    set_drive(ci, status == CDI_STAT_SUCCESS ? CDI_DRIVE_READY : CDI_DRIVE_STATUS_UNKNOWN);
    return status;
}

// A command that a tape path runs as op; other paths as the SCSI command.
#define TAPE_OR_SCSI(op, count)                                          \
    do {                                                                 \
        if (tape_path(ci->path.type)) return tape_op(ci, (op), (count)); \
        int g = gate(ci);                                                \
        if (g >= 0) return g;                                            \
    } while (0)

int space_cdb(CDI_INFOP ci, int code, long count) {
    unsigned char cdb[6] = {0x11, static_cast<unsigned char>(code & 7), 0, 0, 0, 0};
    // Three bytes of two's complement: a count that does not fit is refused
    // rather than cut.
    if (count < -0x800000L || count > 0x7FFFFFL) {
        vcdi_parameter_error(ci);
        return ci->status;
    }
    fill_cdb_multibyte_field(cdb + 2, 3, static_cast<uint64_t>(count) & 0xFFFFFFu);
    return run(ci, cdb, 6, nullptr, 0, true, 5400);
}

int read_position_raw(CDI_INFOP ci, CDI_READ_POSITION_DATA* out) {
    unsigned char cdb[10] = {0x34, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    unsigned char data[32];
    int status = run(ci, cdb, 10, data, sizeof data, true, 300);
    memset(out, 0, sizeof *out);
    out->first_block = out->last_block = -1;
    if (status != CDI_STAT_SUCCESS) return status;
    out->bop = (data[0] & 0x80) != 0;
    out->eop = (data[0] & 0x40) != 0;
    out->bpu = (data[0] & 0x04) != 0;
    if (out->bpu) {
        cdi_dprintf(TR_WARN, "cdi_read_position: Block Position Unknown\n");
        return status;
    }
    out->first_block = static_cast<long>(uint_from_scsi_data(data + 4, 4));
    out->last_block = static_cast<long>(uint_from_scsi_data(data + 8, 4));
    return status;
}

int mode_sense6(CDI_INFOP ci, int page, unsigned char* data, int len, int seconds) {
    unsigned char cdb[6] = {
        0x1A, 0, static_cast<unsigned char>(page & 0x3f), 0, static_cast<unsigned char>(len), 0};
    return run(ci, cdb, 6, data, len, true, seconds);
}

// The page of a MODE SENSE(6) answer, or null.
const unsigned char* find_page(const unsigned char* d, long got, int page) {
    if (got < 4) return nullptr;
    long off = 4 + d[3];
    while (off + 2 <= got) {
        if ((d[off] & 0x3f) == page) return off + 2 + d[off + 1] <= got ? d + off : nullptr;
        off += 2 + d[off + 1];
    }
    return nullptr;
}

int cmd_get_status(CDI_INFOP ci) {
    CDI_GET_STATUS_DATA& g = ci->cmd_data.get_status;
    memset(&g, 0, sizeof g);
    g.density = -1;
    g.block_position = -1;
    g.file_number = -1;
    if (tape_path(ci->path.type)) {
        ci->tape_op.mt_cmd = CDI_MT_GET;
        int status = cdi_tape_cmd(ci);
        if (status != CDI_STAT_SUCCESS) return status;
        const struct mtget& m = ci->tape_op.mtget;
        g.ready = GMT_ONLINE(m.mt_gstat) != 0;
        g.write_protected = GMT_WR_PROT(m.mt_gstat) != 0;
        g.bop = GMT_BOT(m.mt_gstat) != 0;
        g.eop = GMT_EOT(m.mt_gstat) != 0;
        g.density = static_cast<int>((m.mt_dsreg & MT_ST_DENSITY_MASK) >> MT_ST_DENSITY_SHIFT);
        g.file_number = m.mt_fileno;
        g.block_position = m.mt_blkno;
        set_drive(ci, g.ready ? (g.write_protected ? CDI_DRIVE_WRITE_PROTECTED : CDI_DRIVE_READY)
                              : CDI_DRIVE_NO_TAPE);
        return status;
    }
    if (int gt = gate(ci); gt >= 0) return gt;
    unsigned char tur[6] = {0};
    int status = run(ci, tur, 6, nullptr, 0, true, 10);
    const DRIVE_STATUS keep = ci->drivestat;
    g.ready = status == CDI_STAT_SUCCESS;
    unsigned char hdr[12];
    CDI_INFO probe;
    cdi_copy_cdi_info(&probe, ci);
    if (mode_sense6(&probe, 0, hdr, sizeof hdr, 10) == CDI_STAT_SUCCESS) {
        g.write_protected = (hdr[2] & 0x80) != 0;
        if (hdr[3] >= 8) g.density = hdr[4];
    } else {
        cdi_dprintf(TR_WARN, "CDI warn: cdi_get_status() GetDensity failed\n");
    }
    CDI_READ_POSITION_DATA pos;
    if (read_position_raw(&probe, &pos) == CDI_STAT_SUCCESS && !pos.bpu) {
        g.block_position = pos.first_block;
        g.bop = pos.bop;
        g.eop = pos.eop;
    } else {
        cdi_dprintf(TR_WARN, "CDI warn: cdi_get_status() GetPos failed\n");
    }
    cdi_free_cdi_info(&probe, 0);
    ci->drivestat = keep;
    return status;
}

int cmd_get_config(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_GET_CONFIG_DATA_T& c = ci->cmd_data.get_config_data;
    c.buffer_full_ratio = c.buffer_empty_ratio = c.data_compression_enabled =
        c.data_compression_capable = c.compression_algorithm = c.select_data_compression_algorithm =
            CDI_CONFIG_UNKNOWN;
    unsigned char d[64];
    int first = -1;
    for (int page : {0x02, 0x0F, 0x10}) {
        int status = mode_sense6(ci, page, d, sizeof d, 60);
        if (first < 0) first = status;
        if (status != CDI_STAT_SUCCESS) continue;
        const unsigned char* p = find_page(d, arrived(ci, sizeof d), page);
        if (!p) continue;
        if (page == 0x02 && p[1] >= 2) {
            c.buffer_full_ratio = p[2];
            c.buffer_empty_ratio = p[3];
        } else if (page == 0x0F && p[1] >= 10) {
            c.data_compression_enabled = (p[2] & 0x80) != 0;
            c.data_compression_capable = (p[2] & 0x40) != 0;
            c.compression_algorithm = static_cast<int>(uint_from_scsi_data(p + 4, 4));
        } else if (page == 0x10 && p[1] >= 13) {
            c.select_data_compression_algorithm = p[14];
        }
    }
    return ci->status = first;
}

int cmd_bsf(CDI_INFOP ci) {
    const long count = ci->cmd_data.bsf.count;
    TAPE_OR_SCSI(CDI_MT_BSF, count);
    CDI_INFO probe;
    cdi_copy_cdi_info(&probe, ci);
    CDI_READ_POSITION_DATA pos;
    const bool known = read_position_raw(&probe, &pos) == CDI_STAT_SUCCESS && !pos.bpu;
    cdi_free_cdi_info(&probe, 0);
    // More filemarks than blocks behind: only the beginning of the tape is there.
    if (known && count > pos.first_block) {
        cdi_dprintf(TR_INFO,
                    "%li filemarks requested but block position is %li, forwarding call to "
                    "cdi_rewind.\n",
                    count, pos.first_block);
        ci->cmd_data.rewind.immediate = 0;
        ci->command = CDI_REWIND;
        int status = cdi_tape_rewind(ci);
        ci->command = CDI_BSF;
        return status;
    }
    return space_cdb(ci, CDI_SPACE_FILEMARKS, -count);
}

// TapeAlert flags by class (the standard's flag numbers), each list ending in 255.
const unsigned char kTapeCritical[] = {4,  5,  6,  9,  13, 14, 16, 20, 22, 23, 30,
                                       31, 33, 38, 52, 53, 54, 55, 56, 57, 255};
const unsigned char kTapeWarning[] = {1,  2,  3,  7,  8,  15, 17, 18, 21, 24, 25, 26, 27, 28,
                                      29, 32, 34, 35, 36, 37, 39, 50, 51, 58, 59, 60, 255};
const unsigned char kTapeInformation[] = {10, 11, 12, 19, 255};
const unsigned char kChangerCritical[] = {40, 41, 43, 44, 45, 255};
const unsigned char kChangerWarning[] = {42, 46, 255};
const unsigned char kChangerInformation[] = {65, 255};

void place(const unsigned char* table, const unsigned char* flags, unsigned char* out) {
    for (; *table != 255; table++)
        if (*table <= 64) out[*table] = flags[*table];
}

int log_sense_cdb(CDI_INFOP ci, int page, int pc, int subpage, int param, unsigned char* buf,
                  long len, int seconds) {
    unsigned char cdb[10] = {0x4D,
                             0,
                             static_cast<unsigned char>((pc & 3) << 6 | (page & 0x3f)),
                             static_cast<unsigned char>(subpage),
                             0,
                             0,
                             0,
                             0,
                             0,
                             0};
    fill_cdb_multibyte_field(cdb + 5, 2, static_cast<uint64_t>(param) & 0xffff);
    fill_cdb_multibyte_field(cdb + 7, 2, static_cast<uint64_t>(len > 0xffff ? 0xffff : len));
    return run(ci, cdb, 10, buf, len, true, seconds);
}

int cmd_tapealert(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_GET_TAPEALERT_DATA& t = ci->cmd_data.get_tapealert;
    memset(&t, 0, sizeof t);
    unsigned char d[512];
    int status = log_sense_cdb(ci, 0x00, 1, 0, 0, d, sizeof d, 60);
    if (status != CDI_STAT_SUCCESS) return status;
    long got = arrived(ci, sizeof d);
    bool listed = false;
    long n = got >= 4 ? static_cast<long>(uint_from_scsi_data(d + 2, 2)) : 0;
    for (long i = 4; i < 4 + n && i < got; i++) listed = listed || d[i] == 0x2E;
    if (!listed) {
        vcdi_unsupported_cmd(ci);
        return ci->status;
    }
    status = log_sense_cdb(ci, 0x2E, 1, 0, 0, d, sizeof d, 60);
    if (status != CDI_STAT_SUCCESS) return status;
    got = arrived(ci, sizeof d);
    bool ok = got >= 4 + 64 * 5 && d[0] == 0x2E && d[1] == 0 && d[2] == 1 && d[3] == 0x40;
    for (int f = 1; ok && f <= 64; f++) {
        const unsigned char* p = d + 4 + (f - 1) * 5;
        ok = p[0] == 0 && p[1] == f;
        if (ok) t.flags[f] = p[4];
    }
    if (!ok) {
        memset(&t, 0, sizeof t);
        cdi_dprintf(TR_ERROR, "CDI error: cdi_get_tapealert() TapeAlert data malformed\n");
        ci->status = CDI_STAT_IOCTL_ERROR;
        vcdi_Assign_errstrFrom_status(ci, ci->status);
        return ci->status;
    }
    place(kTapeCritical, t.flags, t.tape.critical);
    place(kTapeWarning, t.flags, t.tape.warning);
    place(kTapeInformation, t.flags, t.tape.information);
    place(kChangerCritical, t.flags, t.changer.critical);
    place(kChangerWarning, t.flags, t.changer.warning);
    place(kChangerInformation, t.flags, t.changer.information);
    return status;
}

// Drives whose capacity can be read, and how. The standard's tape capacity
// log page (0x31) serves the drives listed; others have no known method.
struct SizeMethod {
    const char* vendor;
    const char* product;
};
const SizeMethod kSizeByLogPage[] = {
    {"", "Ultrium"}, {"", "ULT3580"}, {"", "03592"}, {"ARRAYSIM", "SIMTAPE"}};

int cmd_tape_size(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    if (!ci->vendor[0] || !ci->product[0]) {
        ci->status = CDI_STAT_PARAMETER_ERROR;
        ci->error.errnum = EINVAL;
        vcdi_AssignErrStr(ci, "CDI get tape size called with no vendor or product names");
        return ci->status;
    }
    bool known = false;
    for (const auto& m : kSizeByLogPage) known = known || cdi_inq_match(ci, m.vendor, m.product);
    if (!known) {
        ci->status = CDI_STAT_CMD_NOT_SUPPORTED;
        ci->error.errnum = EPERM;
        vcdi_AssignErrStrf(ci, "drive %s %s does not allow determination of tape size", ci->vendor,
                           ci->product);
        return ci->status;
    }
    CDI_GET_TAPE_SIZE_DATA& z = ci->cmd_data.get_tape_size;
    z.remaining_mb = z.maximum_mb = -1;
    unsigned char d[64];
    int status = log_sense_cdb(ci, 0x31, 1, 0, 0, d, sizeof d, 60);
    if (status != CDI_STAT_SUCCESS) return status;
    long got = arrived(ci, sizeof d);
    for (long off = 4; off + 4 <= got;) {
        const int code = static_cast<int>(uint_from_scsi_data(d + off, 2));
        const int len = d[off + 3];
        if (off + 4 + len > got) break;
        long long v = static_cast<long long>(uint_from_scsi_data(d + off + 4, len));
        if (code == 1) z.remaining_mb = v;
        if (code == 3) z.maximum_mb = v;
        off += 4 + len;
    }
    return status;
}

int cmd_tur(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    unsigned char cdb[6] = {0};
    int status = CDI_STAT_SUCCESS;
    // A reset is reported once; a drive still in reset after ten tries stays so.
    for (int tries = 0; tries < 10; tries++) {
        status = run(ci, cdb, 6, nullptr, 0, true, 60);
        if (ci->drivestat.status != CDI_DRIVE_RESET) break;
    }
    const int ds = ci->drivestat.status;
    if (ds == CDI_DRIVE_READY || ds == CDI_DRIVE_BOM || ds == CDI_DRIVE_MEDIA_CHANGED) {
        CDI_INFO probe;
        cdi_copy_cdi_info(&probe, ci);
        unsigned char hdr[16];
        if (mode_sense6(&probe, 0, hdr, sizeof hdr, 60) == CDI_STAT_SUCCESS && (hdr[2] & 0x80))
            set_drive(ci, CDI_DRIVE_WRITE_PROTECTED);
        cdi_free_cdi_info(&probe, 0);
    }
    return status;
}

int cmd_cleaning(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    unsigned char cdb[6] = {0x03, 0, 0, 0, 96, 0};
    unsigned char d[96];
    int status = run(ci, cdb, 6, d, sizeof d, true, 60);
    if (status != CDI_STAT_SUCCESS || !ci->product[0]) return status;
    bool dirty = false;
    static const char* const bit3[] = {"EXB",     "VXA",     "HP",      "C15",  "C743",
                                       "Mammoth", "ACCELIS", "Ultrium", "03580"};
    for (const char* p : bit3) dirty = dirty || (cdi_inq_match(ci, "", p) && (d[21] & 0x08));
    if (cdi_inq_match(ci, "SONY", "GY")) dirty = (d[21] & 0x01) != 0;
    if (cdi_inq_match(ci, "", "03590") || cdi_inq_match(ci, "", "03592")) dirty = d[86] >= 64;
    if (cdi_inq_match(ci, "", "DLT")) dirty = (d[34] & 0x81) == 0x81;
    if (dirty) {
        set_drive(ci, CDI_DRIVE_NEEDS_CLEANING);
        cdi_dprintf(TR_WARN, "CDI warn: Drive Needs Cleaning!\n");
    }
    return status;
}

int cmd_pr(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_PR_DATA& pr = ci->cmd_data.pr;
    if (pr.action == CDI_PR_READ_KEYS) {
        unsigned char cdb[10] = {0x5E, 0, 0, 0, 0, 0, 0, 0, 80, 0};
        unsigned char d[80];
        int status = run(ci, cdb, 10, d, sizeof d, true, 60);
        pr.nkeys = 0;
        if (status != CDI_STAT_SUCCESS) return status;
        long got = arrived(ci, sizeof d);
        long n = got >= 8 ? static_cast<long>(uint_from_scsi_data(d + 4, 4)) / 8 : 0;
        for (long i = 0; i < n && i < 8 && 8 + (i + 1) * 8 <= got; i++)
            pr.keys[pr.nkeys++] = uint_from_scsi_data(d + 8 + i * 8, 8);
        return status;
    }
    unsigned char param[24] = {0};
    unsigned char cdb[10] = {
        0x5F, 0, static_cast<unsigned char>((pr.scope & 0xf) << 4 | (pr.type & 0xf)),
        0,    0, 0,
        0,    0, sizeof param,
        0};
    switch (pr.action) {
    case CDI_PR_REG_IGNORE:
        cdb[1] = 0x06;
        fill_cdb_multibyte_field(param + 8, 8, pr.key);
        break;
    case CDI_PR_RESERVE:
        cdb[1] = 0x01;
        fill_cdb_multibyte_field(param, 8, pr.key);
        break;
    case CDI_PR_RELEASE:
        cdb[1] = 0x02;
        fill_cdb_multibyte_field(param, 8, pr.key);
        break;
    default: vcdi_parameter_error(ci); return ci->status;
    }
    return run(ci, cdb, 10, param, sizeof param, false, 60);
}

struct MamFailure {
    unsigned char asc, ascq;
    const char* text;
};
const MamFailure kMamFailures[] = {
    {0x3a, 0x00, "Medium not present"},
    {0x24, 0x00, "Invalid field in CDB"},
    {0x20, 0x00, "Invalid command operation code"},
    {0x04, 0x10, "Logical unit not ready, auxiliary memory not accessible"},
    {0x11, 0x12, "Auxiliary memory read error"},
    {0x0c, 0x0b, "Auxiliary memory write error"},
    {0x55, 0x06, "Auxiliary memory out of space"},
};

int cmd_mam(CDI_INFOP ci, bool write) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_MAM_DATA& m = ci->cmd_data.mam;
    unsigned char cdb[16] = {static_cast<unsigned char>(write ? 0x8D : 0x8C)};
    if (!write)
        fill_cdb_multibyte_field(cdb + 8, 2, static_cast<uint64_t>(m.first_attribute) & 0xffff);
    fill_cdb_multibyte_field(cdb + 10, 4, static_cast<uint64_t>(m.data.len > 0 ? m.data.len : 0));
    int status = run(ci, cdb, 16, m.data.buf, m.data.len, !write, 60);
    m.data.got = write || status != CDI_STAT_SUCCESS ? 0 : arrived(ci, m.data.len);
    if (status == CDI_STAT_CHECK_CONDITION) {
        SenseFields f;
        cdi_sense_fields(ci->scmd.scmd_sense, ci->scmd.scmd_senselen, &f);
        for (const auto& e : kMamFailures)
            if (f.have_asc && e.asc == f.asc && e.ascq == f.ascq)
                vcdi_AssignErrStrf(ci, "%s MAM failed.  0x%02x/0x%02x: %s",
                                   write ? "Write" : "Read", e.asc, e.ascq, e.text);
    }
    return status;
}

// WORM: the medium configuration mode page (0x1D) says whether the drive
// and the cartridge are WORM; its own record keeps the caller's result safe.
int cmd_is_worm(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_WORM_DATA& w = ci->cmd_data.worm;
    memset(&w, 0, sizeof w);
    w.drive_can_dltworm = cdi_inq_match(ci, "", "DLT-V") || cdi_inq_match(ci, "", "DLT-S") ||
                          cdi_inq_match(ci, "", "SDLT600");
    CDI_INFO probe;
    cdi_copy_cdi_info(&probe, ci);
    unsigned char d[64];
    int status = mode_sense6(&probe, 0x1D, d, sizeof d, 60);
    if (status == CDI_STAT_SUCCESS) {
        const unsigned char* p = find_page(d, arrived(&probe, sizeof d), 0x1D);
        if (p && p[1] >= 3) {
            w.media_worm = (p[2] & 0x01) != 0;
            w.drive_worm = 1;
            w.filemark_overwrite = p[4] == 1;
            w.label_overwrite = p[4] >= 1;
        }
    }
    ci->drivestat = probe.drivestat;
    vcdi_AssignErrStr(ci, probe.error.errstr);
    ci->error.errnum = probe.error.errnum;
    cdi_free_cdi_info(&probe, 0);
    return ci->status = status;
}

int cmd_make_dltworm(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    if (!(cdi_inq_match(ci, "", "DLT-V") || cdi_inq_match(ci, "", "DLT-S") ||
          cdi_inq_match(ci, "", "SDLT600"))) {
        ci->status = CDI_STAT_CMD_NOT_SUPPORTED;
        ci->error.errnum = EPERM;
        vcdi_AssignErrStrf(ci, "DLTWORM conversion is not possible on drive %s %s", ci->vendor,
                           ci->product);
        return ci->status;
    }
    unsigned char cdb[10] = {0x3B, 0x01, 0, 0, 0, 0, 0, 0, 0, 0};
    int status = run(ci, cdb, 10, nullptr, 0, false, 600);
    if (status != CDI_STAT_SUCCESS)
        vcdi_AssignErrStrf(ci, "DLTWORM conversion failed: %s", ci->drivestat.msg);
    return status;
}

int security(CDI_INFOP ci, bool in, int protocol, int specific, unsigned char* buf, long len) {
    unsigned char cdb[12] = {static_cast<unsigned char>(in ? 0xA2 : 0xB5),
                             static_cast<unsigned char>(protocol)};
    fill_cdb_multibyte_field(cdb + 2, 2, static_cast<uint64_t>(specific) & 0xffff);
    fill_cdb_multibyte_field(cdb + 6, 4, static_cast<uint64_t>(len > 0 ? len : 0));
    return run(ci, cdb, 12, buf, len, in, 60);
}

int vDoSpinPage10(CDI_INFOP ci, CDI_GET_ENCRYPTION_DATA& e) {
    unsigned char d[512];
    int status = security(ci, true, 0x20, 0x0010, d, sizeof d);
    if (status != CDI_STAT_SUCCESS) return status;
    long got = arrived(ci, sizeof d);
    long end = got >= 4 ? 4 + static_cast<long>(uint_from_scsi_data(d + 2, 2)) : 0;
    if (end > got) end = got;
    for (long off = 20; off + 24 <= end && e.num_algorithms < CDI_MAX_ENCRYPT_ALGS;) {
        const long dl = static_cast<long>(uint_from_scsi_data(d + off + 2, 2));
        CDI_ENCRYPT_ALG& a = e.alg[e.num_algorithms++];
        a.index = d[off];
        a.decrypt_capable = (d[off + 4] >> 3) & 3;
        a.encrypt_capable = d[off + 4] & 3;
        a.key_size = static_cast<int>(uint_from_scsi_data(d + off + 8, 2));
        a.id = static_cast<unsigned>(uint_from_scsi_data(d + off + 20, 4));
        off += 4 + (dl > 0 ? dl : 20);
    }
    return status;
}

int vDoSpinPage20(CDI_INFOP ci, CDI_GET_ENCRYPTION_DATA& e) {
    unsigned char d[64];
    int status = security(ci, true, 0x20, 0x0020, d, sizeof d);
    if (status == CDI_STAT_SUCCESS && arrived(ci, sizeof d) >= 8) {
        e.encryption_mode = d[5];
        e.decryption_mode = d[6];
        e.algorithm_index = d[7];
    }
    return status;
}

int vDoSpinPage21(CDI_INFOP ci, CDI_GET_ENCRYPTION_DATA& e) {
    unsigned char d[64];
    int status = security(ci, true, 0x20, 0x0021, d, sizeof d);
    if (status == CDI_STAT_SUCCESS && arrived(ci, sizeof d) >= 14) {
        e.next_block_status = d[12] & 0x0f;
        e.next_block_algorithm = d[13];
    }
    return status;
}

int cmd_get_encryption(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_GET_ENCRYPTION_DATA& e = ci->cmd_data.get_encryption;
    memset(&e, 0, sizeof e);
    unsigned char d[64];
    int status = security(ci, true, 0x00, 0x0000, d, sizeof d);
    if (status != CDI_STAT_SUCCESS) return status;
    long got = arrived(ci, sizeof d);
    long n = got >= 8 ? static_cast<long>(uint_from_scsi_data(d + 6, 2)) : 0;
    for (long i = 0; i < n && 8 + i < got; i++) e.supported = e.supported || d[8 + i] == 0x20;
    if (!e.supported) {
        set_drive(ci, 35);  // no encryption we can control
        return status;
    }
    if ((status = vDoSpinPage10(ci, e)) != CDI_STAT_SUCCESS) return status;
    if ((status = vDoSpinPage20(ci, e)) != CDI_STAT_SUCCESS) return status;
    return vDoSpinPage21(ci, e);
}

int cmd_set_encryption(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    const CDI_SET_ENCRYPTION_DATA req = ci->cmd_data.set_encryption;
    unsigned char page[64] = {0};
    size_t len = 20;
    if (req.disable) {
        // The fixed page that turns encryption off: no key, both modes off.
        fill_cdb_multibyte_field(page, 2, 0x0010);
        fill_cdb_multibyte_field(page + 2, 2, 48);
        page[4] = 0x40;
        len = 52;
        return security(ci, false, 0x20, 0x0010, page, static_cast<long>(len));
    }
    CDI_GET_ENCRYPTION_DATA caps;
    memset(&caps, 0, sizeof caps);
    int status = vDoSpinPage10(ci, caps);
    if (status != CDI_STAT_SUCCESS) return status;
    auto parm_error = [&](const char* trace) {
        cdi_dprintf(TR_ERROR, "%s", trace);
        vcdi_parameter_error(ci);
        return ci->status;
    };
    if (req.encryption_mode != 0 && req.encryption_mode != 2)
        return parm_error("parm error 1988\n");
    if (req.decryption_mode < 0 || req.decryption_mode > 3) return parm_error("parm error 2011\n");
    const CDI_ENCRYPT_ALG* alg = nullptr;
    for (int i = 0; i < caps.num_algorithms; i++)
        if (caps.alg[i].id == req.algorithm_ID) alg = &caps.alg[i];
    if (!alg) return parm_error("parm error 2086\n");
    if (req.encryption_mode && (req.key.len != alg->key_size || req.key.len > 32))
        return parm_error("parm error 2111\n");
    fill_cdb_multibyte_field(page, 2, 0x0010);
    page[4] = 0x40;  // scope: this I_T nexus
    page[6] = static_cast<unsigned char>(req.encryption_mode);
    page[7] = static_cast<unsigned char>(req.decryption_mode);
    page[8] = static_cast<unsigned char>(alg->index);
    const int klen = req.encryption_mode ? req.key.len : 0;
    fill_cdb_multibyte_field(page + 18, 2, static_cast<uint64_t>(klen));
    memcpy(page + 20, req.key.key, static_cast<size_t>(klen));
    len = 20 + static_cast<size_t>(klen);
    fill_cdb_multibyte_field(page + 2, 2, len - 4);
    return security(ci, false, 0x20, 0x0010, page, static_cast<long>(len));
}

int cmd_read_tape(CDI_INFOP ci) {
    if (int gt = gate(ci); gt >= 0) return gt;
    CDI_READ_TAPE_DATA& r = ci->cmd_data.read_tape;
    unsigned char cdb[6] = {0x08, static_cast<unsigned char>(r.fixed ? 1 : 0)};
    if (fill_cdb_multibyte_field(cdb + 2, 3,
                                 static_cast<uint64_t>(r.data.len > 0 ? r.data.len : 0))) {
        vcdi_parameter_error(ci);
        return ci->status;
    }
    int status = run(ci, cdb, 6, r.data.buf, r.data.len, true, 300);
    r.data.got = arrived(ci, r.data.len);
    r.filemark = r.eom = r.ili = 0;
    if (status == CDI_STAT_CHECK_CONDITION) {
        SenseFields f;
        cdi_sense_fields(ci->scmd.scmd_sense, ci->scmd.scmd_senselen, &f);
        r.filemark = f.filemark;
        r.eom = f.eom;
        r.ili = f.ili;
    }
    return status;
}

int cmd_set_block_size(CDI_INFOP ci) {
    const int size = ci->cmd_data.set_block_size.size;
    TAPE_OR_SCSI(CDI_MT_SETBLK, size);
    unsigned char param[12] = {0, 0, 0x10, 8};
    if (fill_cdb_multibyte_field(param + 9, 3, static_cast<uint64_t>(size))) {
        vcdi_parameter_error(ci);
        return ci->status;
    }
    unsigned char cdb[6] = {0x15, 0x10, 0, 0, sizeof param, 0};
    return run(ci, cdb, 6, param, sizeof param, false, 60);
}

}  // namespace

int cdi_tape_rewind(CDI_INFOP ci) {
    TAPE_OR_SCSI(CDI_MT_REW, 0);
    unsigned char cdb[6] = {0x01,
                            static_cast<unsigned char>(ci->cmd_data.rewind.immediate ? 1 : 0)};
    return run(ci, cdb, 6, nullptr, 0, true, 1200);
}

int cdi_tape_dispatch(CDI_INFOP ci, int* handled) {
    *handled = 1;
    CMD_DATA& d = ci->cmd_data;
    switch (ci->command) {
    case CDI_GET_STATUS: return cmd_get_status(ci);
    case CDI_GET_CONFIG_DATA: return cmd_get_config(ci);
    case CDI_WRITE_FILEMARKS: {
        TAPE_OR_SCSI(CDI_MT_WEOF, d.write_filemarks.count);
        unsigned char cdb[6] = {0x10,
                                static_cast<unsigned char>(d.write_filemarks.type == 1 ? 1 : 0)};
        if (d.write_filemarks.count < 0 ||
            fill_cdb_multibyte_field(cdb + 2, 3, static_cast<uint64_t>(d.write_filemarks.count))) {
            vcdi_parameter_error(ci);
            return ci->status;
        }
        return run(ci, cdb, 6, nullptr, 0, true, 300);
    }
    case CDI_SPACE: {
        const long n = d.space.count;
        if (tape_path(ci->path.type)) {
            switch (d.space.type) {
            case CDI_SPACE_BLOCKS: return tape_op(ci, n < 0 ? CDI_MT_BSR : CDI_MT_FSR, labs(n));
            case CDI_SPACE_FILEMARKS: return tape_op(ci, n < 0 ? CDI_MT_BSF : CDI_MT_FSF, labs(n));
            case CDI_SPACE_EOD: return tape_op(ci, CDI_MT_EOM, 0);
            default: vcdi_parameter_error(ci); return ci->status;
            }
        }
        if (int gt = gate(ci); gt >= 0) return gt;
        return space_cdb(ci, d.space.type, n);
    }
    case CDI_FSR: {
        TAPE_OR_SCSI(CDI_MT_FSR, d.fsr.count);
        return space_cdb(ci, CDI_SPACE_BLOCKS, d.fsr.count);
    }
    case CDI_BSR: {
        TAPE_OR_SCSI(CDI_MT_BSR, d.bsr.count);
        return space_cdb(ci, CDI_SPACE_BLOCKS, -d.bsr.count);
    }
    case CDI_FSF: {
        TAPE_OR_SCSI(CDI_MT_FSF, d.fsf.count);
        return space_cdb(ci, CDI_SPACE_FILEMARKS, d.fsf.count);
    }
    case CDI_BSF: return cmd_bsf(ci);
    case CDI_REWIND: return cdi_tape_rewind(ci);
    case CDI_EOD: {
        TAPE_OR_SCSI(CDI_MT_EOM, 0);
        return space_cdb(ci, CDI_SPACE_EOD, 0);
    }
    case CDI_UNLOAD: {
        TAPE_OR_SCSI(d.load_unload.load ? CDI_MT_LOAD : CDI_MT_OFFL, 0);
        unsigned char cdb[6] = {
            0x1B, static_cast<unsigned char>(d.load_unload.immediate ? 1 : 0), 0,
            0,    static_cast<unsigned char>(d.load_unload.load ? 1 : 0),      0};
        return run(ci, cdb, 6, nullptr, 0, true, 1200);
    }
    case CDI_OFFLINE: {
        TAPE_OR_SCSI(CDI_MT_OFFL, 0);
        unsigned char cdb[6] = {0x1B, static_cast<unsigned char>(d.offline.immediate ? 1 : 0)};
        return run(ci, cdb, 6, nullptr, 0, true, 1200);
    }
    case CDI_GET_TAPEALERT: return cmd_tapealert(ci);
    case CDI_LOCATE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        unsigned char cdb[10] = {0x2B, static_cast<unsigned char>(d.locate.immediate ? 1 : 0)};
        if (fill_cdb_multibyte_field(cdb + 3, 4, d.locate.block)) {
            vcdi_parameter_error(ci);
            return ci->status;
        }
        return run(ci, cdb, 10, nullptr, 0, true, 600);
    }
    case CDI_GET_TAPE_SIZE: return cmd_tape_size(ci);
    case CDI_READ_POSITION: {
        if (int gt = gate(ci); gt >= 0) return gt;
        CDI_READ_POSITION_DATA pos;
        int status = read_position_raw(ci, &pos);
        d.read_position = pos;
        return status;
    }
    case CDI_SET_COMPRESSION:
        if (tape_path(ci->path.type)) return tape_op(ci, CDI_MT_COMPRESSION, d.set_compression.on);
        if (ci->path.type == CDI_PATH_SCSI) {
            ci->status = CDI_STAT_SUCCESS;
            set_drive(ci, CDI_DRIVE_READY);
            return CDI_STAT_SUCCESS;
        }
        if (int gt = gate(ci); gt >= 0) return gt;
        vcdi_unimplemented_cmd(ci);
        return ci->status;
    case CDI_GET_BLOCK_LIMITS: {
        if (int gt = gate(ci); gt >= 0) return gt;
        unsigned char cdb[6] = {0x05};
        unsigned char r[6];
        int status = run(ci, cdb, 6, r, sizeof r, true, 60);
        if (status != CDI_STAT_SUCCESS) return status;
        CDI_GET_BLOCK_LIMITS_DATA& b = d.get_block_limits;
        b.granularity = r[0] & 0x1f;
        b.max = static_cast<long long>(uint_from_scsi_data(r + 1, 3));
        b.min = static_cast<long long>(uint_from_scsi_data(r + 4, 2));
        if (b.max == 0 || b.max > kSystemMaxBlock) b.max = kSystemMaxBlock;
        if (b.min > b.max)
            cdi_dprintf(TR_WARN,
                        "CDI warn: cdi_get_block_limits() Block Size; allowed MIN: %lld > allowed "
                        "MAX: %lld.\nTry rebooting OS to correct problem",
                        b.min, b.max);
        return status;
    }
    case CDI_GET_DEBUG:
        d.get_debug.level = cdi_get_debug_level();
        return ci->status = CDI_STAT_SUCCESS;
    case CDI_SET_DEBUG:
        cdi_set_debug_level(d.set_debug.level);
        return ci->status = CDI_STAT_SUCCESS;
    case CDI_LOG_SENSE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        CDI_LOG_SENSE_DATA& l = d.log_sense;
        int status = log_sense_cdb(ci, l.page, l.page_control, l.subpage, l.parameter, l.data.buf,
                                   l.data.len, 300);
        l.data.got = status == CDI_STAT_SUCCESS ? arrived(ci, l.data.len) : 0;
        return status;
    }
    case CDI_TUR: return cmd_tur(ci);
    case CDI_RECOVER_DTF: {
        if (int gt = gate(ci); gt >= 0) return gt;
        unsigned char cdb[10] = {0xE9};
        return run(ci, cdb, 10, nullptr, 0, true, 10800);
    }
    case CDI_CHECK_IF_DRIVE_NEEDS_CLEANING: return cmd_cleaning(ci);
    case CDI_RESERVE:
    case CDI_RELEASE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        unsigned char cdb[6] = {
            static_cast<unsigned char>(ci->command == CDI_RESERVE ? 0x16 : 0x17)};
        return run(ci, cdb, 6, nullptr, 0, true, 60);
    }
    case CDI_PR_CMD: return cmd_pr(ci);
    case CDI_READ_CAPACITY: {
        if (int gt = gate(ci); gt >= 0) return gt;
        unsigned char cdb[10] = {0x25};
        unsigned char r[8];
        int status = run(ci, cdb, 10, r, sizeof r, true, 300);
        if (status == CDI_STAT_SUCCESS) {
            d.read_capacity.last_lba = uint_from_scsi_data(r, 4);
            d.read_capacity.block_length = static_cast<unsigned>(uint_from_scsi_data(r + 4, 4));
        }
        return status;
    }
    case CDI_READ_MAM: return cmd_mam(ci, false);
    case CDI_WRITE_MAM: return cmd_mam(ci, true);
    case CDI_IS_WORM: return cmd_is_worm(ci);
    case CDI_MAKE_DLTWORM: return cmd_make_dltworm(ci);
    case CDI_REQUEST_SENSE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        // Its answer is the data; digesting it would read the last command's state.
        unsigned char cdb[6] = {0x03, 0, 0, 0, 32, 0};
        vcdi_SetupDefaultScmd(ci);
        ci->scmd.scmd_cdb = cdb;
        ci->scmd.scmd_cdblen = 6;
        ci->scmd.scmd_bufaddr = ci->cmd_data.array;
        ci->scmd.scmd_buflen = 32;
        ci->scmd.scmd_time = 60;
        memset(ci->cmd_data.array, 0, 32);
        int status = ci->path.type == CDI_PATH_NDMP_SCSI ? cdi_ndmp_cmd(ci) : cdi_os_cmd(ci);
        ci->scmd.scmd_cdb = nullptr;
        ci->scmd.scmd_cdblen = 0;
        return status;
    }
    case CDI_READ:
    case CDI_WRITE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        const bool rd = ci->command == CDI_READ;
        CDI_RW_DATA& rw = rd ? d.read_data : d.write_data;
        unsigned char cdb[10] = {static_cast<unsigned char>(rd ? 0x28 : 0x2A)};
        if (fill_cdb_multibyte_field(cdb + 2, 4, rw.lba) ||
            fill_cdb_multibyte_field(cdb + 7, 2, static_cast<uint64_t>(rw.blocks) & 0x1ffff)) {
            vcdi_parameter_error(ci);
            return ci->status;
        }
        int status = run(ci, cdb, 10, rw.data.buf, rw.data.len, rd, 300);
        rw.data.got = rd && status == CDI_STAT_SUCCESS ? arrived(ci, rw.data.len) : 0;
        return status;
    }
    case CDI_READ_BUFFER: {
        if (int gt = gate(ci); gt >= 0) return gt;
        CDI_RW_BUFFER_DATA& b = d.read_buffer;
        unsigned char cdb[10] = {0x3C, static_cast<unsigned char>(b.mode & 0x1f),
                                 static_cast<unsigned char>(b.id)};
        fill_cdb_multibyte_field(cdb + 3, 3, static_cast<uint64_t>(b.offset) & 0xffffff);
        fill_cdb_multibyte_field(cdb + 6, 3, static_cast<uint64_t>(b.data.len) & 0xffffff);
        int status = run(ci, cdb, 10, b.data.buf, b.data.len, true, 300);
        b.data.got = status == CDI_STAT_SUCCESS ? arrived(ci, b.data.len) : 0;
        return status;
    }
    case CDI_MODE_SELECT: {
        if (int gt = gate(ci); gt >= 0) return gt;
        CDI_MODE_DATA& m = d.mode_data;
        unsigned char cdb[10] = {0x55,
                                 static_cast<unsigned char>((m.pf ? 0x10 : 0) | (m.sp ? 1 : 0))};
        fill_cdb_multibyte_field(cdb + 7, 2, static_cast<uint64_t>(m.data.len) & 0xffff);
        return run(ci, cdb, 10, m.data.buf, m.data.len, false, 15);
    }
    case CDI_MODE_SENSE: {
        if (int gt = gate(ci); gt >= 0) return gt;
        CDI_MODE_DATA& m = d.mode_data;
        unsigned char cdb[10] = {
            0x5A, static_cast<unsigned char>(m.dbd ? 0x08 : 0),
            static_cast<unsigned char>((m.page_control & 3) << 6 | (m.page & 0x3f)),
            static_cast<unsigned char>(m.subpage)};
        fill_cdb_multibyte_field(cdb + 7, 2, static_cast<uint64_t>(m.data.len) & 0xffff);
        int status = run(ci, cdb, 10, m.data.buf, m.data.len, true, 20);
        m.data.got = status == CDI_STAT_SUCCESS ? arrived(ci, m.data.len) : 0;
        return status;
    }
    case CDI_SPIN:
    case CDI_SPOUT: {
        if (int gt = gate(ci); gt >= 0) return gt;
        const bool in = ci->command == CDI_SPIN;
        CDI_SECURITY_DATA& s = in ? d.spin : d.spout;
        int status = security(ci, in, s.protocol, s.specific, s.data.buf, s.data.len);
        s.data.got = in && status == CDI_STAT_SUCCESS ? arrived(ci, s.data.len) : 0;
        return status;
    }
    case CDI_GET_ENCRYPTION: return cmd_get_encryption(ci);
    case CDI_SET_ENCRYPTION: return cmd_set_encryption(ci);
    case CDI_READ_TAPE: return cmd_read_tape(ci);
    case CDI_SET_BLOCK_SIZE: return cmd_set_block_size(ci);
    default: *handled = 0; return ci->status;
    }
}

// ---- persistent reservation keys as text ----

unsigned long long cdi_opt_to_reskey(const char* opt) {
    if (!opt || !*opt) return 0;
    if (opt[0] == '0' && (opt[1] == 'x' || opt[1] == 'X')) {
        char* end = nullptr;
        errno = 0;
        unsigned long long v = strtoull(opt + 2, &end, 16);
        return errno || !end || *end || end == opt + 2 ? 0 : v;
    }
    // A text key: its first eight bytes, high byte first.
    unsigned long long v = 0;
    for (int i = 0; i < 8 && opt[i]; i++)
        v |= static_cast<unsigned long long>(static_cast<unsigned char>(opt[i])) << (56 - 8 * i);
    return v;
}

void cdi_key_to_string(unsigned long long key, char* out, size_t outlen) {
    if (!out || !outlen) return;
    snprintf(out, outlen, "0x%lx%lx", static_cast<unsigned long>(key >> 32),
             static_cast<unsigned long>(key & 0xffffffffUL));
}

void cdi_res_to_string(const CDI_PR_DATA* pr, char* out, size_t outlen) {
    if (!out || !outlen) return;
    if (!pr) {
        out[0] = '\0';
        return;
    }
    static const char* const types[] = {"none",
                                        "write exclusive",
                                        "none",
                                        "exclusive access",
                                        "none",
                                        "write exclusive, registrants only",
                                        "exclusive access, registrants only",
                                        "write exclusive, all registrants",
                                        "exclusive access, all registrants"};
    char key[40];
    cdi_key_to_string(pr->key, key, sizeof key);
    const char* type = pr->type >= 0 && pr->type <= 8 ? types[pr->type] : "unknown";
    const char* scope = pr->scope == 0 ? "logical unit" : "unknown";
    snprintf(out, outlen, "Key: %s, type: %s, scope: %s, scope address: %lx", key, type, scope,
             0UL);
}

int cdi_opt_to_encrypt_key(const char* opt, CDI_ENCRYPT_KEY* key) {
    if (!opt || !key) return -1;
    memset(key, 0, sizeof *key);
    if (!(opt[0] == '0' && (opt[1] == 'x' || opt[1] == 'X'))) return -1;
    const char* p = opt + 2;
    size_t n = strlen(p);
    if (n == 0 || n % 2 || n / 2 > sizeof key->key) return -1;
    for (size_t i = 0; i < n / 2; i++) {
        char b[3] = {p[2 * i], p[2 * i + 1], 0};
        char* end = nullptr;
        long v = strtol(b, &end, 16);
        if (*end) return -1;
        key->key[i] = static_cast<unsigned char>(v);
    }
    key->len = static_cast<int>(n / 2);
    return 0;
}
