// Tape interface of the device interface. The tape command set is not part
// of this build yet: a tape path accepts no command.
#include "drivers/cdi/cdi_os.h"
#include "drivers/cdi/cdi_priv.h"

int cdi_tape_cmd(CDI_INFOP cdi_info) {
    vcdi_unimplemented_cmd(cdi_info);
    return cdi_info->status;
}
