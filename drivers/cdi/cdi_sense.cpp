// A check condition's drive status: sense key, ASC and ASCQ to one of the
// drive statuses code can test, and a message a person can read. Fixed and
// descriptor sense are both read; what the table does not know becomes a
// vendor-specific status with the decoded text.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "drivers/cdi/cdi_priv.h"
#include "drivers/cdi/cdi_rqs.h"

namespace {

struct Result {
    int status;
    int msgid;  // with text: the literal shown instead of the status text
    const char* text;
};

// Drives of a library that say "not ready" for an empty drive: for them it
// means no tape, not a failure.
bool empty_means_no_tape(CDI_INFOP ci) {
    static const char* const products[] = {"9840", "T9840B", "T9840C", "T9940A", "T9940B"};
    for (const char* p : products)
        if (cdi_inq_match(ci, "STK", p)) return true;
    return false;
}

bool sony_gy(CDI_INFOP ci) {
    return cdi_inq_match(ci, "SONY", "GY") != 0;
}

bool dlt_worm_drive(CDI_INFOP ci) {
    return cdi_inq_match(ci, "", "SDLT600") || cdi_inq_match(ci, "", "DLT-S") ||
           cdi_inq_match(ci, "", "DLT-V");
}

Result lookup(CDI_INFOP ci, unsigned char asc, unsigned char ascq) {
    const int cmd = ci->command;
    const Result none = {CDI_DRIVE_STATUS_UNKNOWN, 0, nullptr};
    switch (asc << 8 | ascq) {
    case 0x0000: return {0, 0, nullptr};
    case 0x0001: return {2, 0, nullptr};
    case 0x0002: return {3, 0, nullptr};
    case 0x0004: return {4, 0, nullptr};
    case 0x0005: return {5, 0, nullptr};
    case 0x0400: return {empty_means_no_tape(ci) ? 10 : 18, 0, nullptr};
    case 0x0401: return {17, 0, nullptr};
    case 0x0402: return {9, 0, nullptr};
    case 0x0403: return {11, 1253, "LOGICAL UNIT NOT READY, MANUAL INTERVENTION REQUIRED"};
    case 0x0500: return {11, 1254, "LOGICAL UNIT DOES NOT RESPOND TO SELECTION"};
    case 0x0900: return {11, 19387, "TRACK FOLLOWING ERROR"};
    case 0x0904: return {11, 19388, "HEAD SELECT FAULT"};
    case 0x0C00: return {11, 1255, "WRITE ERROR"};
    case 0x1100: return {11, 1256, "UNRECOVERED READ ERROR"};
    case 0x1101: return {11, 1257, "READ RETRIES EXHAUSTED"};
    case 0x1102: return {11, 1258, "ERROR TOO LONG TO CORRECT"};
    case 0x1103: return {11, 1259, "MULTIPLE READ ERRORS"};
    case 0x1108: return {11, 1260, "INCOMPLETE BLOCK READ"};
    case 0x1401: return {11, 1261, "RECORD NOT FOUND"};
    case 0x1402: return {11, 1262, "FILEMARK OR SETMARK NOT FOUND"};
    case 0x1403: return {11, 1263, "END-OF-DATA NOT FOUND"};
    case 0x1404: return {11, 1264, "BLOCK SEQUENCE ERROR"};
    case 0x1500: return {11, 19389, "RANDOM POSITIONING ERROR"};
    case 0x1501: return {11, 19390, "MECHANICAL POSITIONING ERROR"};
    case 0x1502: return {11, 19391, "POSITIONING ERROR DETECTED BY READ OF MEDIUM"};
    case 0x2000: return {26, 0, nullptr};
    case 0x2100: return {34, 0, nullptr};
    case 0x2101: return {27, 0, nullptr};
    case 0x2400: return {24, 0, nullptr};
    case 0x2600: return {25, 0, nullptr};
    case 0x2605: return {36, 0, nullptr};
    case 0x2610: return {37, 0, nullptr};
    case 0x2611: return {38, 0, nullptr};
    case 0x2612: return {39, 0, nullptr};
    case 0x2613: return {40, 0, nullptr};
    case 0x2800: return {7, 0, nullptr};
    case 0x2A11: return {41, 0, nullptr};
    case 0x2A12: return {42, 0, nullptr};
    case 0x2A13: return {43, 0, nullptr};
    case 0x3000: return {14, 1273, "INCOMPATIBLE MEDIUM INSTALLED"};
    case 0x3001: return {cmd == CDI_READ ? 31 : 14, 1274, "CANNOT READ MEDIUM - UNKNOWN FORMAT"};
    case 0x3002:
        return {cmd == CDI_READ ? 31 : 14, 1275, "CANNOT READ MEDIUM - INCOMPATIBLE FORMAT"};
    case 0x3003: return {15, 0, nullptr};
    case 0x3004: return {cmd == CDI_WRITE ? 32 : 33, 19392, "CANNOT WRITE MEDIUM - UNKNOWN FORMAT"};
    case 0x3005:
        return {cmd == CDI_WRITE ? 32 : 33, 19393, "CANNOT WRITE MEDIUM - INCOMPATIBLE FORMAT"};
    case 0x3100: return {14, 1272, "MEDIUM FORMAT CORRUPTED"};
    case 0x3A00:
    case 0x3A04: return {10, 0, nullptr};
    case 0x3B01: return {11, 1265, "TAPE POSITION ERROR AT BEGINNING-OF-MEDIUM"};
    case 0x3B02: return {11, 1266, "TAPE POSITION ERROR AT END-OF-MEDIUM"};
    case 0x4000: return {44, 0, nullptr};
    case 0x5000: return {11, 1267, "WRITE APPEND ERROR"};
    case 0x5001: return {11, 1268, "WRITE APPEND POSITION ERROR"};
    case 0x5200: return {16, 0, nullptr};
    case 0x5300: return {11, 1269, "MEDIA LOAD OR EJECT FAILED"};
    case 0x5301: return {11, 1270, "UNLOAD TAPE FAILURE"};
    case 0x5302: return {11, 1271, "MEDIUM REMOVAL PREVENTED"};
    case 0x5303: return {11, 0, "MEDIUM REMOVAL PREVENTED by Transfer Element"};
    case 0x5304: return {11, 0, "MEDIUM THREAD/UNTHREAD FAILURE"};
    case 0x5508: return {45, 0, nullptr};
    case 0x5A00: return sony_gy(ci) ? Result{7, 0, nullptr} : none;
    case 0x7471: return {58, 0, nullptr};
    case 0x7480: return {59, 0, nullptr};
    case 0x8390: return dlt_worm_drive(ci) ? Result{29, 19394, "DLTWORM Erase Failed"} : none;
    case 0x8391: return dlt_worm_drive(ci) ? Result{29, 19395, "DLTWORM Rewind Failed"} : none;
    case 0x8392: return dlt_worm_drive(ci) ? Result{29, 19396, "DLTWORM Read Failed"} : none;
    case 0x8393:
        return dlt_worm_drive(ci) ? Result{29, 19397, "DLTWORM Initialization Invalid"} : none;
    case 0x9000: return sony_gy(ci) ? Result{22, 0, nullptr} : none;
    case 0x9001: return sony_gy(ci) ? Result{23, 0, nullptr} : none;
    default: break;
    }
    if (asc == 0x27 && ascq <= 0x06) return {6, 0, nullptr};
    if (asc == 0x29 && ascq <= 0x04) return {8, 0, nullptr};
    if (asc == 0x74 && ascq <= 0x0B) return {46 + ascq, 0, nullptr};
    return none;
}

void set_msg(CDI_INFOP ci, const char* text) {
    snprintf(ci->drivestat.msg, sizeof ci->drivestat.msg, "%s", text ? text : "");
}

// The inquiry fields are blank-padded; the vendor files name them without.
std::string trimmed(const char* field, size_t n) {
    std::string s(field, strnlen(field, n));
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
    return s;
}

}  // namespace

void vXlateScmdSense_to_DriveStatus(CDI_INFOP ci) {
    if (!ci) return;
    cdi_define_messages();
    const unsigned char* sense = ci->scmd.scmd_sense;
    int len = ci->scmd.scmd_senselen;
    if (!sense) {
        ci->drivestat.status = CDI_DRIVE_STATUS_UNKNOWN;
        set_msg(ci, " CHECK Condition w/ No Sense buffer (cdi bug?)\n");
        return;
    }
    // The default area is all there is when the caller gave none.
    if (sense == ci->default_sense_buffer && len > CDI_DEFAULT_SENSE_LEN)
        len = CDI_DEFAULT_SENSE_LEN;
    SenseFields f;
    cdi_sense_fields(sense, len, &f);
    // Descriptor sense carries the same three fields earlier in the data;
    // it is read as if it were the fixed form of the same length.
    int have = f.valid_len;
    if (f.format == 1) have = f.have_asc ? 14 : f.have_key ? 3 : 0;
    if (have < 3) {
        ci->drivestat.status = CDI_DRIVE_VENDOR_SPECIFIC;
        set_msg(ci, " CHECK Condition, but No SenseKey data!\n");
        return;
    }
    if (have <= 12 || !f.have_asc) {
        ci->drivestat.status = CDI_DRIVE_VENDOR_SPECIFIC;
        snprintf(ci->drivestat.msg, sizeof ci->drivestat.msg, " Key: 0x%x (no ASC/ASCQ)\n",
                 f.format == 1 ? f.key : sense[2]);
        return;
    }
    const Result r = lookup(ci, f.asc, f.ascq);
    ci->drivestat.status = r.status;
    if (r.text) {
        const char* t = r.msgid ? msg_lit_create(r.msgid, r.text) : r.text;
        set_msg(ci, t ? t : r.text);
    } else if (r.status >= 0 && r.status < CDI_DRIVE_STAT_COUNT) {
        set_msg(ci, cdi_drive_stat_messages[r.status]);
    }
    if (r.status != CDI_DRIVE_STATUS_UNKNOWN || f.key == 0) return;

    ci->drivestat.status = CDI_DRIVE_VENDOR_SPECIFIC;
    std::string vendor = trimmed(ci->vendor, sizeof ci->vendor);
    std::string product = trimmed(ci->product, sizeof ci->product);
    asc_info_t info = {nullptr,
                       f.key,
                       f.asc,
                       f.ascq,
                       const_cast<char*>(vendor.c_str()),
                       product.empty() ? nullptr : const_cast<char*>(product.c_str())};
    if (vendor.empty()) info.vendor = nullptr;
    char* text = scsi_sinfo(&info, 2);
    if (text && *text)
        set_msg(ci, text);
    else
        snprintf(ci->drivestat.msg, sizeof ci->drivestat.msg, " Key:%x, ASC:%02X, ASCQ:%02X\n",
                 f.key, f.asc, f.ascq);
    free(text);
}
