// Linux SCSI pass-through under the device interface: device identities,
// the per-thread cache of generic nodes and the search for a device's node
// through sysfs and /proc/scsi/scsi. Per-thread state only; the test hooks
// at the end are process-wide and meant to be set before any use.
#pragma once

#include <stddef.h>

#include "drivers/cdi/cdi.h"

// Identity of a device. Compared as 128 raw bytes, so always built on a
// zeroed record the same way.
typedef struct inq_tag {
    int iPerDevType;
    char vendor[8];
    char product[16];
    char rev[4];
    char sn[32];
    char wwn[64];
} INQ, *INQP;
static_assert(sizeof(INQ) == 128, "identities are compared as 128 bytes");

// A node of the device cache.
typedef struct sgnum_list {
    sgnum_list* next;
    int sgnum;
    char sgname[32];
    INQ sg_inq;
    int sg_inq_ok;  // the node answered the standard INQUIRY
} SNL, *SNLP;

int inq_compare(const unsigned char* p1, const unsigned char* p2);  // 0: equal

// ---- decoders of INQUIRY data (no device involved) ----
#define INQ_BUF_LEN 255
// Type and the three identification fields of standard data of len bytes.
void inq_from_standard(INQP ip, const unsigned char* data, int len);
// 1 if the supported-pages page (0x00) of len bytes lists page.
int vpd_page_listed(const unsigned char* data, int len, unsigned char page);
// Copies the payload of VPD page `page` (from byte 4, as long as the page
// says, at most dstlen bytes) into dst; 0 if the data is not that page.
int vpd_copy_payload(char* dst, int dstlen, const unsigned char* data, int len, unsigned char page);

// Sends a 6-byte INQUIRY CDB on fd and reads up to len bytes into buf; 0 on success.
typedef int (*inq_sender_t)(int fd, const unsigned char* cdb, unsigned char* buf, int len);
// The four steps of a device's identity through one transport; 0 if the
// standard INQUIRY answered (the identity is then worth comparing).
int read_identity(int fd, inq_sender_t send, INQP ip);
int sg_inquiry(int handle, INQP ip);  // over SG_IO
int st_inquiry(int handle, INQP ip);  // over SCSI_IOCTL_SEND_COMMAND

// ---- the search for a generic node ----
// "/sys", or SYSFS_PATH if it begins with a slash.
void get_path_sysfs(char* out, size_t outlen);
// The tape's generic node by sysfs: a list of one node, or null.
SNLP get_sysfs_sg_device(const char* device_file);
// Nodes whose /proc/scsi/scsi entry carries the identity ip, entry ordinal as number.
SNLP find_matching_scsi_devs(const INQ* ip);
SNLP find_matching_scsi_devs_in(const char* text, const INQ* ip);
// Prefix + number into sgname; 0 if it fits.
int sg_node_name(char* out, size_t outlen, int num);
void cdi_sg_list_free(SNLP list);

// ---- kernel version ----
// 1 if release (format "%d.%d.%d") is 2.6.16 or later, or any major from 3 up.
int cdi_release_prefers_sg_io(const char* release);
int cdi_os_detect_sg_io(void);

// ---- test hooks ----
struct UscsiHooks {
    int (*ioctl_fn)(int fd, unsigned long request, void* arg);  // null: ioctl(2)
    const char* kernel_release;                                 // null: uname
    const char* proc_scsi_path;                                 // null: /proc/scsi/scsi
    const char* dev_sg_prefix;                                  // null: /dev/sg
};
// Copies the hooks (the strings must outlive their use); null restores the system's.
void uscsi_set_hooks(const UscsiHooks* hooks);
const UscsiHooks& uscsi_hooks(void);
int uscsi_ioctl(int fd, unsigned long request, void* arg);
