// SCSI identity of the state folder's device files and the INQUIRY data and
// sense the fake device layer answers with. Thread-safe (pure functions).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/arraysim/state.h"

namespace arraysim {

struct DevIdentity {
    std::string vendor;   // 8 characters, blank-padded when built
    std::string product;  // 16
    std::string rev;      // 4
    std::string serial;   // unit serial number (VPD page 0x80)
    bool array = false;   // the array's own device: LUN and frame address bytes
    int lun = 0;
    unsigned char ip[4] = {0, 0, 0, 0};
    unsigned char wwn[16] = {0};
    bool have_wwn = false;
};

// Looks a device name (the file's base name) up in the state.
bool device_identity(const State& st, const std::string& name, DevIdentity& id);

// Builds the answer to one INQUIRY CDB into buf (at most len bytes). Returns
// the number of bytes, or -1 for an unsupported page (a check condition).
int build_inquiry(const DevIdentity& id, const unsigned char* cdb, unsigned char* buf, size_t len);

// Fixed-format sense data: ILLEGAL REQUEST with the given ASC. Returns its length.
int build_sense(unsigned char asc, unsigned char* buf, size_t len);

}  // namespace arraysim
