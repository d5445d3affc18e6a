// The status and drive-status message tables of the device interface, filled
// once per process at the first cdi_open. Filling is not locked: two threads
// that race write the same bytes.
#include <string.h>

#include <atomic>
#include <mutex>

#include "drivers/cdi/cdi_priv.h"
#include "liblocal/kv_msg.h"

char cdi_stat_messages[CDI_STAT_SLOTS][CDI_MSG_SLOT_LEN];
char cdi_drive_stat_messages[CDI_DRIVE_STAT_COUNT][CDI_MSG_SLOT_LEN];

namespace {

struct MsgRow {
    int id;
    const char* text;
};

const MsgRow stat_rows[] = {
    {1194, "command completed successfully"},
    {1195, "command returns check condition"},
    {1196, "command returns check condition - no sense data available"},
    {1197, "command is not implemented in this revision of CDI"},
    {1198, "the path type specified is not implemented in this revision of CDI"},
    {1199, "command is not supported by the selected target"},
    {1200, "the CDI library version is too old for this application"},
    {1201, "there was not a device file name passed in to CDI"},
    {1202, "the device file name specified is unusable by CDI"},
    {1203, "the device handle passed in to CDI is unusable (not set right?)"},
    {1204, "the device file name specified is busy"},
    {1205, "the device is busy"},
    {1206, "there was a reservation conflict on the device"},
    {1207, "one of the parameters passed in is incorrect"},
    {1208, "cdi_close was called with buffers still allocated"},
    {1209, "a SCSI error occurred - see SCSI sense data for more information"},
    {1210, "a system error occurred - see errno for more information"},
    {1211, "an IOCTL error occurred - see errno for more information"},
    {1212, "an NDMP error occurred while opening a connection to the NDMP server"},
    {1213, "an NDMP error occurred while closing the NDMP tape device"},
    {1214, "an NDMP error occurred while trying to open the device path"},
    {1215, "a communications error occurred with the NDMP server"},
    {129135, "an error occurred when setting a NDMP extension on the NDMP server"},
    {56437, "Command Transport Successful, Data Corrupted"},
    {1216, "CDI error 19 occurred - no message yet"},
    {1217, "CDI error 20 occurred - no message yet"},
};

const char* const drive_texts[] = {
    // 1218 to 1246
    "The tape drive is ready for use",
    "Drive reports no error - but state is unknown",
    "A filemark was found",
    "The end of medium was reached",
    "The beginning of medium was reached",
    "The end of data was reached",
    "The tape in the drive is write-protected",
    "The tape may have changed",
    "The tape drive has been reset",
    "The drive is not ready - it requires an initialization command",
    "There is not a tape in the drive",
    "The tape drive needs user attention",
    "The tape drive is busy",
    "The tape drive is resevered by another host",
    "The tape in the drive is unreadable",
    "There is a cleaning tape in the drive",
    "There is a tape cartridge fault",
    "The drive is in the process of loading a tape",
    "The drive is not ready and the reason is not known",
    "Drive status is currently unknown",
    "Drive reports vendor specific error code",
    "Drive reports that it needs to be cleaned",
    "Sony DTF tape needs to be 'recovered'",
    "Sony DTF tape 'recovery' failed",
    "Illegal field in CDB",
    "Illegal field in parameter list",
    "Invalid command code",
    "Invalid element address",
    "Drive reports reservation conflict",
    // 19381 to 19386
    "DLT WORM creation error.",
    "WORM write error.",
    "Drive is unreadable.",
    "Drive is not writeable.",
    "The tape in the drive is not writeable.",
    "Logical Block Address is out of range.",
    // 70235 to 70252
    "Drive does not support encryption that we can control.",
    "Data Decryption Error.",
    "Too many incorrect decryption keys have been tried.",
    "Crypto Incomplete KAD Set.",
    "Crypto Key Ref Not Found.",
    "Crypto Key Instance Counter Changed.",
    "Data encryption parameters changed by another initiator.",
    "Data encryption parameters changed by vendor specific event.",
    "Data encryption key instance counter changed.",
    "Crypto Fail Hardware.",
    "Crypto Max Supplemental Decryption Keys Exceeded.",
    "Drive reports security error.",
    "Unable to decrypt data.",
    "Unencrypted data encountered while decrypting.",
    "Incorrect data encryption key.",
    "Cryptographic integrity validation failed.",
    "The key-associated data descriptors have changed.",
    "Unknown signature verification key provided.",
    // 53423 to 53429
    "Encryption parameters supplied are nopt usable.",
    "Signature validation failed.",
    "Encryption mode mismatch on a read.",
    "An encrypted block was foind and raw-read is not enabled.",
    "Incorrect encryption parameters were supplied.",
    "Unauthorized access to a LUN was attempted.",
    "Key associated descriptor was changed.",
};
static_assert(sizeof(drive_texts) / sizeof(drive_texts[0]) == CDI_DRIVE_STAT_COUNT,
              "one text per drive status");

int drive_msg_id(int index) {
    if (index < 29) return 1218 + index;
    if (index < 35) return 19381 + (index - 29);
    if (index < 53) return 70235 + (index - 35);
    return 53423 + (index - 53);
}

// A slot holds at most 125 characters, whatever the catalogue returns.
void fill_slot(char* slot, int id, const char* text) {
    const char* t = msg_lit_create(id, text);
    if (!t) t = text;
    strncpy(slot, t, 125);
    slot[125] = '\0';
}

std::atomic<int> messages_defined{0};

}  // namespace

void cdi_define_messages(void) {
    // Every first caller would fill the tables at once; one does.
    static std::once_flag once;
    std::call_once(once, [] {
        for (size_t i = 0; i < sizeof(stat_rows) / sizeof(stat_rows[0]); i++)
            fill_slot(cdi_stat_messages[i], stat_rows[i].id, stat_rows[i].text);
        for (int i = 0; i < CDI_DRIVE_STAT_COUNT; i++)
            fill_slot(cdi_drive_stat_messages[i], drive_msg_id(i), drive_texts[i]);
        messages_defined.store(1);
    });
}

const char* map_cdiStatus2cdiMsg(int status) {
    cdi_define_messages();
    if (status < 0 || status >= CDI_STAT_SLOTS) return "";
    return cdi_stat_messages[status];
}
