// Unique identifiers of 20 bytes (five 32-bit words in network byte order)
// and their text forms. Creation and conversion are thread-safe; text made
// into the rotating buffers lives in the calling thread's record.
#pragma once

#include <stdint.h>

typedef enum {
    KVUI_NOTID = -1,
    KVUI_ZEROID = 0,
    KVUI_SHORTID = 1,
    KVUI_OVOLUME = 2,
    KVUI_OSAVESET = 3,
    KVUI_CLIENT = 4,
    KVUI_VOLUME = 5,
    KVUI_SAVESET = 6,
    KVUI_GSTDB = 7,
    KVUI_GTOBJ = 8,
    KVUI_SPECIAL = 9,
    KVUI_MERLODE = 10,
    KVUI_SCDUMMY = 11,
    KVUI_SCSUNAS = 12,
    KVUI_SCTRELM = 13,
    KVUI_SCRP = 14,
    KVUI_SCNAS = 15,
    KVUI_DEVICE = 16,
    KVUI_MAXID = 17,
} kvui_idtype_t;

typedef enum {
    KVUI_FMT_SHORT = 0,
    KVUI_FMT_LONG = 1,
    KVUI_FMT_DEFAULT = 2,
} kvui_format_t;

struct kvui_t {
    uint32_t _private;
    char _bytes[16];
};

// The same 20 bytes read as words (each in network byte order).
struct kvui_struct_t {
    uint32_t ui_idtype;
    uint32_t ui_private;
    uint32_t ui_ctime_lo;
    uint32_t ui_ctime_hi;
    uint32_t ui_ipaddr;
};

extern const kvui_t Zero_kvui;
extern const kvui_t Not_kvui;

// Room for the long form (53 characters) and its NUL.
#define KVUI_STRING_SIZE 64

// With a type other than KVUI_SHORTID: the time, a process-wide counter and
// this machine's hardware address, so that ids of two machines never collide.
// For KVUI_SHORTID only type and private value are set.
kvui_t* kvui_create(kvui_t* uid, kvui_idtype_t idtype, uint32_t priv);
// Stores the five words (host order in) in network byte order.
kvui_t* kvui_create5(kvui_t* uid, uint32_t idtype, uint32_t priv, uint32_t ctime_lo,
                     uint32_t ctime_hi, uint32_t ipaddr);

// Short form: the private value as "%lu". Long form: the POSIX cksum CRC of
// the 20 bytes as "%08x-", then the bytes as five "-"-joined groups of eight
// hex digits. A null `outbuf` takes the next rotating per-thread buffer;
// otherwise it needs KVUI_STRING_SIZE bytes.
char* kvui_to_string(const kvui_t* uid, char* outbuf, kvui_format_t how);
char* kvui_to_long_string(const kvui_t* uid, char* outbuf);
// Parses either form (the long one with its CRC checked); a short form
// gives a KVUI_SHORTID. 0 on success, -1 for text that is neither.
int string_to_kvui(const char* str, kvui_t* uid);

// The POSIX cksum CRC (length appended, result inverted).
uint32_t kvui_cksum(const unsigned char* data, unsigned int len);

int kvui_cmp(const kvui_t* a, const kvui_t* b);  // <0, 0, >0 over the 20 bytes
int kvui_is_zeroid(const kvui_t* uid);
int kvui_is_notid(const kvui_t* uid);
kvui_idtype_t kvui_get_idtype(const kvui_t* uid);
uint32_t kvui_get_private(const kvui_t* uid);
