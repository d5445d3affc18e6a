// The tape command set behind cdi_cmd. Works on one caller's record.
#pragma once

#include "drivers/cdi/cdi.h"

// Runs the record's command if it belongs to the tape command set (*handled
// 1) and returns its status; *handled 0 leaves the record untouched.
int cdi_tape_dispatch(CDI_INFOP cdi_info, int* handled);
int cdi_tape_rewind(CDI_INFOP cdi_info);
