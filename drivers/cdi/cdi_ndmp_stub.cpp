// NDMP transport of the device interface. The NDMP client is not part of
// this build yet: an NDMP SCSI path reports its type as not implemented.
#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"

int cdi_ndmp_open(CDI_INFOP cdi_info) {
    vcdi_unimplemented_path(cdi_info);
    return cdi_info->status;
}

int cdi_ndmp_cmd(CDI_INFOP cdi_info) {
    vcdi_unimplemented_path(cdi_info);
    return cdi_info->status;
}

int cdi_ndmp_close(CDI_INFOP) {
    return 0;
}
