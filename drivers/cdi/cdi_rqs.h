// Sense data for people and for code: the text of a sense key and of an
// additional sense code (the published table, and vendor files for vendor
// codes), and the reading of fixed and descriptor sense formats.
// Thread safety: axx and the functions that call it (scsi_sinfo) share one
// process-wide scratch record and are not re-entrant; the rest is.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include "drivers/cdi/cdi.h"
#include "liblocal/kv_msg.h"

// What a lookup is about. `path` is the vendor directory, ending in a slash
// (null: "orvtovendors" beside the program); `vendor` "_GENERIC_" asks every
// vendor file.
typedef struct asc_info {
    char* path;
    unsigned char skey;
    unsigned char asc;
    unsigned char ascq;
    char* vendor;
    char* product;
} asc_info_t;

#define RQS_GENERIC_VENDOR "_GENERIC_"
#define RQS_VENDOR_DIR "orvtovendors"
#define RQS_OEM_MAP "OEM_MAP"
#define RQS_LINE_MAX 256  // a vendor or OEM line holds up to 255 bytes
#define RQS_ERRCODE 10022

// Scratch of the last table lookup: device-type letters and description.
struct s_adesc {
    char* types;  // 64 bytes
    char* desc;   // 512 bytes
};
extern s_adesc Adesc;

// One row of the published table, keyed by ASC << 8 | ASCQ.
struct AscRow {
    unsigned short code;
    int msgid;
    const char* types;  // one column per device class: D T L P W R S O M C A E B K V F
    const char* text;
};
// The row of asc/ascq, or null.
const AscRow* asc_table_find(unsigned char asc, unsigned char ascq);
size_t asc_table_size(void);
const AscRow* asc_table_row(size_t i);

// Text of a sense key (through the catalogue); "UNKNOWN" from 16 up.
char* sense_keys(unsigned char index);
// flag 0: key text; 1: ASC/ASCQ text; 2: "%s, %s" of both. Allocated (free()),
// null for a null record or another flag.
char* scsi_sinfo(asc_info_t* sinfo, int flag);
// The ASC/ASCQ text into *result, allocated.
void axx(asc_info_t* sinfo, char** result);
// The text of a vendor code from the vendor directory, allocated; never null.
char* uscsi_get_vendor_err(asc_info_t* ascinfo);

// Readers of the two vendor file kinds.
// Next non-blank line without its comment into buffer (at most max-1 bytes;
// the rest of a longer line is dropped). -1 at the end of the file.
int uscsi_read_line(char* buffer, int max, FILE* file, int* line_number);
// Cuts buffer at the first delimiter; what follows, blanks skipped, or null.
char* uscsi_get_next_token(char* buffer, char delimiter);
// The OEM tag of vendor/product from an OEM_MAP file into *oem (allocated,
// null when no line matches). Null when all is well, else an error record
// (msg_free it).
errinfo* uscsi_find_oem(char* oemfile, char** oem, char* vendor, char* product);
// Matching lines of a vendor file for asc and ascq ("0x%02x" texts),
// allocated; "" when none matches.
char* uscsi_scan_vendor_file(char* filename, char* asc, char* ascq);

// Prints a sense block for a person. REQUIRES: s holds CDI_DEFAULT_SENSE_LEN
// bytes (dump_sense_n takes the length the buffer really has).
void dump_sense(char* s, char* cmd, asc_info_t* sinfo);
void dump_sense_n(const unsigned char* s, int len, const char* cmd, asc_info_t* sinfo, FILE* err,
                  FILE* out);

// The fields code acts on, from either sense format.
struct SenseFields {
    int format;  // 0 fixed (0x70, 0x71), 1 descriptor (0x72, 0x73), -1 other
    int deferred;
    int valid_len;  // bytes that hold sense: the given length cut to what the data says
    unsigned char key, asc, ascq;
    int have_key, have_asc;
    int filemark, eom, ili;  // fixed: byte 2; descriptor: stream commands descriptor
    int info_valid;
    unsigned long long information;
};
// Reads len bytes of sense. Never reads past len, whatever the lengths in
// the data claim.
void cdi_sense_fields(const unsigned char* sense, int len, SenseFields* out);

// The drive status of the check condition in cdi_info->scmd (also in cdi.h's
// frame digestion).
void vXlateScmdSense_to_DriveStatus(CDI_INFOP cdi_info);
