// The tape interface of the device interface (path types 2 and 3): the
// system's magnetic-tape ioctls, MTIOCTOP for an operation and MTIOCGET for
// the drive's status.
#include <errno.h>
#include <string.h>
#include <sys/mtio.h>

#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"
#include "drivers/uscsi/uscsi.h"

namespace {

// CDI_MT_* to the system's operation; -1: the tape path has none.
const int mtop_map[] = {
    MTWEOF,  // CDI_MT_WEOF
    MTFSF,  MTBSF,         MTFSR, MTBSR, MTREW, MTOFFL, MTNOP, MTRETEN, MTEOM, MTERASE, MTSETBLK,
    -1,  // CDI_MT_SETDENSITY: density is the drive's to choose
    MTLOAD, MTCOMPRESSION,
};
static_assert(sizeof(mtop_map) / sizeof(mtop_map[0]) == 15, "codes 0 to 14");

int descriptor(CDI_INFOP ci) {
    return ci->path.handle;
}

}  // namespace

int cdi_tape_cmd(CDI_INFOP cdi_info) {
    CDI_TAPE_OP_DATA& t = cdi_info->tape_op;
    cdi_info->scmd.scmd_result = 0;
    if (t.mt_cmd == CDI_MT_OP) {
        const int code = t.cdi_mtop.operation;
        if (code < 0 || code > 14 || mtop_map[code] < 0) {
            cdi_dprintf(1, "CDI error: cdi_tape_cmd(): Unsupported CDI_MT_OP (%d)\n", code);
            vcdi_unsupported_cmd(cdi_info);
            return cdi_info->status;
        }
        struct mtop op;
        op.mt_op = static_cast<short>(mtop_map[code]);
        op.mt_count = t.cdi_mtop.count;
        if (uscsi_ioctl(descriptor(cdi_info), MTIOCTOP, &op) != 0)
            return vcdi_os_cmdIoCtlError(cdi_info, errno, "MTIOCTOP");
    } else if (t.mt_cmd == CDI_MT_GET) {
        memset(&t.mtget, 0, sizeof t.mtget);
        if (uscsi_ioctl(descriptor(cdi_info), MTIOCGET, &t.mtget) != 0)
            return vcdi_os_cmdIoCtlError(cdi_info, errno, "MTIOCGET");
    } else {
        cdi_dprintf(3, "CDI info: cdi_tape_cmd(): Unsupported command(%d)\n", t.mt_cmd);
        vcdi_unsupported_cmd(cdi_info);
        return cdi_info->status;
    }
    cdi_info->scmd.scmd_result |= CDI_SCMD_DONE;
    cdi_info->scmd.scmd_status = 0;
    cdi_info->status = CDI_STAT_SUCCESS;
    return CDI_STAT_SUCCESS;
}
