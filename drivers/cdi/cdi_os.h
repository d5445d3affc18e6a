// The transports under the device interface frame: the host's SCSI
// pass-through (path types 1, 2, 3), the tape interface and NDMP. Each call
// works on one caller's CDI_INFO and returns a CDI status.
#pragma once

#include "drivers/cdi/cdi.h"

int cdi_os_open(CDI_INFOP cdi_info);
int cdi_os_cmd(CDI_INFOP cdi_info);
int cdi_os_close(CDI_INFOP cdi_info);  // always 0

int cdi_tape_cmd(CDI_INFOP cdi_info);

int cdi_ndmp_open(CDI_INFOP cdi_info);
int cdi_ndmp_cmd(CDI_INFOP cdi_info);
int cdi_ndmp_close(CDI_INFOP cdi_info);
