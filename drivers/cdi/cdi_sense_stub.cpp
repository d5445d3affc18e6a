// Sense to drive status. Until the sense decoder is part of the build a
// check condition leaves the drive status as "currently unknown".
#include "drivers/cdi/cdi.h"

void vXlateScmdSense_to_DriveStatus(CDI_INFOP) {}
