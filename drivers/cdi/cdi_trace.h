// Where the device interface's trace goes. Process-wide, thread-safe.
#pragma once

#include <stdio.h>

// Sends the trace to fp (null: standard error again). Returns the previous stream.
// The caller keeps fp open while it is set.
FILE* cdi_set_trace_stream(FILE* fp);
