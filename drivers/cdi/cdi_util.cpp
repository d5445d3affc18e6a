// Big-endian fields of CDBs and SCSI data.
#include "drivers/cdi/cdi.h"

uint64_t uint_from_scsi_data(const unsigned char* bptr, int size) {
    uint64_t v = 0;
    if (!bptr) return 0;
    if (size > 8) size = 8;
    for (int i = 0; i < size; i++) v = (v << 8) | bptr[i];
    return v;
}

int fill_cdb_multibyte_field(unsigned char* cdbptr, int size, uint64_t val) {
    if (!cdbptr || size <= 0 || size > 8) return -1;
    if (size < 8 && (val >> (8 * size)) != 0) {
        cdi_dprintf(1,
                    "CDI error: fill_cdb_multibyte_field() value 0x%llx does not fit in %d bytes\n",
                    static_cast<unsigned long long>(val), size);
        return -1;
    }
    for (int i = size - 1; i >= 0; i--) {
        cdbptr[i] = static_cast<unsigned char>(val & 0xff);
        val >>= 8;
    }
    return 0;
}
